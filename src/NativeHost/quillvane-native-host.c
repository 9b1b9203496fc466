/*
 * quillvane-native-host: the program a browser starts for Quillvane's extension
 * (native messaging). It reads the extension's requests on standard input and
 * answers on standard output, each message a 32-bit length in the machine's
 * byte order followed by that many bytes of UTF-8 JSON, and asks the running
 * Quillvane over the session bus. No Qt: the browser starts it once per
 * session, and it must cost little while it waits.
 *
 * Requests, one JSON object each, with only these members:
 *   {"id": N, "type": "status"}                      hello: is Quillvane there?
 *   {"id": N, "type": "leaves", "url": "https://…"}   does a rule send it elsewhere?
 *   {"id": N, "type": "open",   "url": "https://…"}   hand it to Quillvane
 * N is a whole number the answer repeats. Answers:
 *   {"id": N, "ok": true, "quillvane": "running" | "not running", …}
 *   {"id": N, "ok": false, "error": "why"}
 * A link is http or https only, without control characters or spaces, at
 * most MaxLinkBytes long. Anything else is refused with a reason; a message
 * longer than MaxMessageBytes ends the conversation, since what follows it
 * cannot be trusted to be a message.
 *
 * Which browser asks is not for the message to say: Quillvane learns it from
 * the system, as the parent of this process.
 */
#include <gio/gio.h>
#include <json-glib/json-glib.h>

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum {
    /* The longest link a browser can be handed (as Quillvane's own limit). */
    MaxLinkBytes = 130000,
    /* A link, every byte escaped, and the other members. */
    MaxMessageBytes = 6 * MaxLinkBytes + 1024,
};

static const char *const BusName = "work.vorpa.Quillvane";
static const char *const ObjectPath = "/work/vorpa/Quillvane";
static const char *const BrowserInterface = "work.vorpa.Quillvane.Browser";
/* The check of a link that is about to load: the extension decides how long
 * a page waits for it; this only bounds a Quillvane that hangs. */
static const int LeavesTimeoutMs = 5000;
/* A link handed over may have to start Quillvane first. */
static const int OpenTimeoutMs = 25 * 1000;

static int read_all(int fd, void *data, size_t size)
{
    char *at = data;
    while (size > 0) {
        const ssize_t got = read(fd, at, size);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return -1;
        at += got;
        size -= (size_t)got;
    }
    return 0;
}

static int write_all(int fd, const void *data, size_t size)
{
    const char *at = data;
    while (size > 0) {
        const ssize_t written = write(fd, at, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return -1;
        at += written;
        size -= (size_t)written;
    }
    return 0;
}

static int send_message(JsonBuilder *builder)
{
    JsonNode *root = json_builder_get_root(builder);
    JsonGenerator *generator = json_generator_new();
    json_generator_set_root(generator, root);
    gsize length = 0;
    gchar *text = json_generator_to_data(generator, &length);
    const uint32_t size = (uint32_t)length;
    const int result = write_all(STDOUT_FILENO, &size, sizeof size) == 0
                               && write_all(STDOUT_FILENO, text, length) == 0
                           ? 0
                           : -1;
    g_free(text);
    g_object_unref(generator);
    json_node_unref(root);
    return result;
}

static JsonBuilder *begin_answer(gint64 id, gboolean ok)
{
    JsonBuilder *builder = json_builder_new();
    json_builder_begin_object(builder);
    if (id >= 0) {
        json_builder_set_member_name(builder, "id");
        json_builder_add_int_value(builder, id);
    }
    json_builder_set_member_name(builder, "ok");
    json_builder_add_boolean_value(builder, ok);
    return builder;
}

static int finish(JsonBuilder *builder)
{
    json_builder_end_object(builder);
    const int result = send_message(builder);
    g_object_unref(builder);
    return result;
}

static int refuse(gint64 id, const char *why)
{
    JsonBuilder *builder = begin_answer(id, FALSE);
    json_builder_set_member_name(builder, "error");
    json_builder_add_string_value(builder, why);
    return finish(builder);
}

/* The member's string; NULL when it is absent or not a string. */
static const char *string_member(JsonObject *object, const char *name)
{
    JsonNode *node = json_object_get_member(object, name);
    if (!node || !JSON_NODE_HOLDS_VALUE(node) || json_node_get_value_type(node) != G_TYPE_STRING)
        return NULL;
    return json_node_get_string(node);
}

static const char *bad_link(const char *url)
{
    if (!url)
        return "The request's \"url\" must be a text.";
    if (strlen(url) > MaxLinkBytes)
        return "The link is longer than a browser can be given.";
    if (g_ascii_strncasecmp(url, "https://", 8) != 0 && g_ascii_strncasecmp(url, "http://", 7) != 0)
        return "Only http and https links are handed to Quillvane.";
    for (const unsigned char *c = (const unsigned char *)url; *c; ++c) {
        if (*c <= 0x20 || *c == 0x7f)
            return "A link has no spaces or control characters.";
    }
    return NULL;
}

/* The conversation: requests come from a thread that waits on standard
 * input, each is answered when Quillvane has (bus calls are asynchronous, so
 * an "open" that waits for Quillvane to start holds up no "leaves"), and the
 * host ends once the browser has closed its side and every call is answered. */
static GDBusConnection *bus;
static GMainLoop *loop;
static int pending;
static gboolean ending;
static int exit_status;

static void call_done(void)
{
    if (--pending == 0 && ending)
        g_main_loop_quit(loop);
}

static void end_conversation(int status)
{
    if (status != 0)
        exit_status = status;
    ending = TRUE;
    if (pending == 0)
        g_main_loop_quit(loop);
}

/* Answers written in the order the calls come back; a browser that stopped
 * reading ends the conversation. */
static void deliver(int written)
{
    if (written != 0)
        end_conversation(exit_status);
}

static void add_state(JsonBuilder *builder, gboolean runs)
{
    json_builder_set_member_name(builder, "quillvane");
    json_builder_add_string_value(builder, runs ? "running" : "not running");
}

/* Whether the error of a call to Quillvane still says that it runs (busy,
 * too slow, an older version): only "no one has the name" says it does not. */
static gboolean runs_despite(const GError *error)
{
    return !g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN)
           && !g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
}

typedef void (*Answered)(gint64 id, GVariant *answer, GError *error);

typedef struct
{
    gint64 id;
    Answered answered;
} Call;

static void call_finished(GObject *source, GAsyncResult *result, gpointer data)
{
    Call *call = data;
    GError *error = NULL;
    GVariant *answer = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    call->answered(call->id, answer, error);
    if (answer)
        g_variant_unref(answer);
    if (error)
        g_error_free(error);
    g_free(call);
    call_done();
}

static void call_quillvane(gint64 id, const char *interface, const char *method,
                           GVariant *arguments, const GVariantType *reply, GDBusCallFlags flags,
                           int timeoutMs, Answered answered)
{
    Call *call = g_new(Call, 1);
    call->id = id;
    call->answered = answered;
    ++pending;
    g_dbus_connection_call(bus, BusName, ObjectPath, interface, method, arguments, reply, flags,
                           timeoutMs, NULL, call_finished, call);
}

/* Hello: Quillvane notes which browser has the extension and says whether
 * links may leave browsers at all. */
static void status_answered(gint64 id, GVariant *answer, GError *error)
{
    JsonBuilder *builder = begin_answer(id, TRUE);
    add_state(builder, answer ? TRUE : runs_despite(error));
    if (answer) {
        gboolean leave = FALSE;
        g_variant_get(answer, "(b)", &leave);
        json_builder_set_member_name(builder, "linksLeave");
        json_builder_add_boolean_value(builder, leave);
    }
    deliver(finish(builder));
}

/* Whether Quillvane would send the link to another browser or profile than
 * the one asking. Without an answer (not running, too slow) the link stays. */
static void leaves_answered(gint64 id, GVariant *answer, GError *error)
{
    gboolean leaves = FALSE;
    if (answer)
        g_variant_get(answer, "(b)", &leaves);
    JsonBuilder *builder = begin_answer(id, TRUE);
    add_state(builder, answer ? TRUE : runs_despite(error));
    json_builder_set_member_name(builder, "leaves");
    json_builder_add_boolean_value(builder, leaves);
    deliver(finish(builder));
}

static void open_answered(gint64 id, GVariant *answer, GError *error)
{
    if (!answer) {
        g_dbus_error_strip_remote_error(error);
        deliver(refuse(id, error->message));
        return;
    }
    JsonBuilder *builder = begin_answer(id, TRUE);
    add_state(builder, TRUE);
    deliver(finish(builder));
}

static void ask(gint64 id, const char *type, const char *url)
{
    if (strcmp(type, "status") == 0 || strcmp(type, "leaves") == 0) {
        const gboolean status = strcmp(type, "status") == 0;
        if (!bus) {
            /* Without a session bus every link stays; the extension says why. */
            JsonBuilder *builder = begin_answer(id, TRUE);
            add_state(builder, FALSE);
            if (!status) {
                json_builder_set_member_name(builder, "leaves");
                json_builder_add_boolean_value(builder, FALSE);
            }
            deliver(finish(builder));
            return;
        }
        /* A check before a page loads never starts Quillvane. */
        call_quillvane(id, BrowserInterface, status ? "Hello" : "Leaves",
                       status ? NULL : g_variant_new("(s)", url), G_VARIANT_TYPE("(b)"),
                       G_DBUS_CALL_FLAGS_NO_AUTO_START, LeavesTimeoutMs,
                       status ? status_answered : leaves_answered);
        return;
    }
    if (!bus) {
        deliver(refuse(id, "There is no session bus to reach Quillvane by."));
        return;
    }
    /* The link goes in by Quillvane's door for links, as any application's:
     * it names this process's parent, the browser, as the link's source, and
     * routes the link by the rules (or asks). It may start Quillvane. */
    const char *const uris[] = {url, NULL};
    call_quillvane(id, "org.freedesktop.Application", "Open",
                   g_variant_new("(^asa{sv})", uris, NULL), NULL, G_DBUS_CALL_FLAGS_NONE,
                   OpenTimeoutMs, open_answered);
}

static void answer(const char *text, gsize length)
{
    JsonParser *parser = json_parser_new_immutable();
    GError *error = NULL;
    if (!json_parser_load_from_data(parser, text, (gssize)length, &error)) {
        deliver(refuse(-1, "The request is not JSON."));
        g_error_free(error);
        g_object_unref(parser);
        return;
    }
    JsonNode *root = json_parser_get_root(parser);
    if (!root || !JSON_NODE_HOLDS_OBJECT(root)) {
        g_object_unref(parser);
        deliver(refuse(-1, "The request is not a JSON object."));
        return;
    }
    JsonObject *object = json_node_get_object(root);
    JsonNode *idNode = json_object_get_member(object, "id");
    gint64 id = -1;
    if (idNode && JSON_NODE_HOLDS_VALUE(idNode) && json_node_get_value_type(idNode) == G_TYPE_INT64
        && json_node_get_int(idNode) >= 0)
        id = json_node_get_int(idNode);
    const char *type = string_member(object, "type");
    const char *url = string_member(object, "url");
    const char *why = NULL;
    GList *members = json_object_get_members(object);
    for (GList *member = members; member && !why; member = member->next) {
        if (strcmp(member->data, "id") != 0 && strcmp(member->data, "type") != 0
            && strcmp(member->data, "url") != 0)
            why = "The request has a member Quillvane does not know.";
    }
    g_list_free(members);
    const gboolean wantsLink = type && (strcmp(type, "leaves") == 0 || strcmp(type, "open") == 0);
    if (!why && id < 0)
        why = "The request's \"id\" must be a whole number.";
    if (!why && !type)
        why = "The request's \"type\" must be a text.";
    if (!why && wantsLink)
        why = bad_link(url);
    if (!why && !wantsLink && json_object_has_member(object, "url"))
        why = "Only \"leaves\" and \"open\" take a link.";

    if (!why && strcmp(type, "status") != 0 && !wantsLink)
        why = "Quillvane answers \"status\", \"leaves\" and \"open\".";
    if (why)
        deliver(refuse(id, why));
    else
        ask(id, type, url);
    g_object_unref(parser);
}

typedef struct
{
    char *text; /* NULL: the browser closed its side */
    uint32_t size;
    gboolean oversized;
} Message;

static gboolean take_message(gpointer data)
{
    Message *message = data;
    if (ending) {
        /* nothing more after the end */
    } else if (message->oversized) {
        refuse(-1, "The request is longer than any link Quillvane takes.");
        end_conversation(1);
    } else if (!message->text) {
        end_conversation(0);
    } else {
        answer(message->text, message->size);
    }
    g_free(message->text);
    g_free(message);
    return G_SOURCE_REMOVE;
}

static void post(char *text, uint32_t size, gboolean oversized)
{
    Message *message = g_new(Message, 1);
    message->text = text;
    message->size = size;
    message->oversized = oversized;
    g_main_context_invoke(NULL, take_message, message);
}

/* Standard input, message by message, handed to the main loop in order. */
static gpointer read_requests(gpointer unused)
{
    (void)unused;
    for (;;) {
        uint32_t size = 0;
        if (read_all(STDIN_FILENO, &size, sizeof size) != 0)
            break;
        if (size > MaxMessageBytes) {
            /* What follows cannot be trusted to be a message. */
            post(NULL, 0, TRUE);
            return NULL;
        }
        char *text = g_malloc(size + 1);
        if (read_all(STDIN_FILENO, text, size) != 0) {
            g_free(text);
            break;
        }
        text[size] = '\0';
        post(text, size, FALSE);
    }
    post(NULL, 0, FALSE);
    return NULL;
}

int main(void)
{
    bus = g_bus_get_sync(G_BUS_TYPE_SESSION, NULL, NULL);
    loop = g_main_loop_new(NULL, FALSE);
    GThread *reader = g_thread_new("requests", read_requests, NULL);
    g_main_loop_run(loop);
    /* The reader may still wait on a browser that keeps its side open after
     * an oversized message: the process ends without it. */
    g_thread_unref(reader);
    if (bus) {
        g_dbus_connection_flush_sync(bus, NULL, NULL);
        g_object_unref(bus);
    }
    g_main_loop_unref(loop);
    return exit_status;
}
