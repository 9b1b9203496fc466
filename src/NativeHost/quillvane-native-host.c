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
/* The check of a link that is about to load: never long enough to be felt. */
static const int LeavesTimeoutMs = 250;
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

static gboolean quillvane_runs(GDBusConnection *bus)
{
    if (!bus)
        return FALSE;
    GVariant *owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", BusName), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, LeavesTimeoutMs, NULL, NULL);
    gboolean runs = FALSE;
    if (owned) {
        g_variant_get(owned, "(b)", &runs);
        g_variant_unref(owned);
    }
    return runs;
}

static void add_state(JsonBuilder *builder, gboolean runs)
{
    json_builder_set_member_name(builder, "quillvane");
    json_builder_add_string_value(builder, runs ? "running" : "not running");
}

/* Says hello for the browser (Quillvane notes which one has the extension)
 * and learns whether links may leave browsers at all. */
static int answer_status(GDBusConnection *bus, gint64 id)
{
    GVariant *answer = NULL;
    if (bus)
        answer = g_dbus_connection_call_sync(bus, BusName, ObjectPath, BrowserInterface, "Hello",
                                             NULL, G_VARIANT_TYPE("(b)"),
                                             G_DBUS_CALL_FLAGS_NO_AUTO_START, LeavesTimeoutMs,
                                             NULL, NULL);
    gboolean leave = FALSE;
    const gboolean runs = answer ? TRUE : quillvane_runs(bus);
    JsonBuilder *builder = begin_answer(id, TRUE);
    add_state(builder, runs);
    if (answer) {
        g_variant_get(answer, "(b)", &leave);
        g_variant_unref(answer);
        json_builder_set_member_name(builder, "linksLeave");
        json_builder_add_boolean_value(builder, leave);
    }
    return finish(builder);
}

/* Whether Quillvane would send the link to another browser or profile than
 * the one asking: one round trip, which also tells whether Quillvane runs.
 * Without an answer (not running, too slow) the link stays. */
static int answer_leaves(GDBusConnection *bus, gint64 id, const char *url)
{
    gboolean runs = FALSE;
    gboolean leaves = FALSE;
    if (bus) {
        GError *error = NULL;
        GVariant *answer = g_dbus_connection_call_sync(
            bus, BusName, ObjectPath, BrowserInterface, "Leaves", g_variant_new("(s)", url),
            G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NO_AUTO_START, LeavesTimeoutMs, NULL,
            &error);
        if (answer) {
            runs = TRUE;
            g_variant_get(answer, "(b)", &leaves);
            g_variant_unref(answer);
        } else {
            runs = !g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN)
                   && !g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)
                   && quillvane_runs(bus);
            g_error_free(error);
        }
    }
    JsonBuilder *builder = begin_answer(id, TRUE);
    add_state(builder, runs);
    json_builder_set_member_name(builder, "leaves");
    json_builder_add_boolean_value(builder, leaves);
    return finish(builder);
}

/* The link goes in by Quillvane's door for links, as any application's: it
 * names this process's parent, the browser, as the link's source, and routes
 * the link by the rules (or asks). */
static int answer_open(GDBusConnection *bus, gint64 id, const char *url)
{
    if (!bus)
        return refuse(id, "There is no session bus to reach Quillvane by.");
    const char *const uris[] = {url, NULL};
    GError *error = NULL;
    GVariant *answer = g_dbus_connection_call_sync(
        bus, BusName, ObjectPath, "org.freedesktop.Application", "Open",
        g_variant_new("(^asa{sv})", uris, NULL), NULL, G_DBUS_CALL_FLAGS_NONE, OpenTimeoutMs,
        NULL, &error);
    if (!answer) {
        g_dbus_error_strip_remote_error(error);
        const int result = refuse(id, error->message);
        g_error_free(error);
        return result;
    }
    g_variant_unref(answer);
    JsonBuilder *builder = begin_answer(id, TRUE);
    add_state(builder, TRUE);
    return finish(builder);
}

static int answer(GDBusConnection *bus, const char *text, gsize length)
{
    JsonParser *parser = json_parser_new_immutable();
    GError *error = NULL;
    int result = 0;
    if (!json_parser_load_from_data(parser, text, (gssize)length, &error)) {
        result = refuse(-1, "The request is not JSON.");
        g_error_free(error);
        g_object_unref(parser);
        return result;
    }
    JsonNode *root = json_parser_get_root(parser);
    if (!root || !JSON_NODE_HOLDS_OBJECT(root)) {
        g_object_unref(parser);
        return refuse(-1, "The request is not a JSON object.");
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

    if (why)
        result = refuse(id, why);
    else if (strcmp(type, "status") == 0)
        result = answer_status(bus, id); else if (strcmp(type, "leaves") == 0)
        result = answer_leaves(bus, id, url);
    else if (strcmp(type, "open") == 0)
        result = answer_open(bus, id, url);
    else
        result = refuse(id, "Quillvane answers \"status\", \"leaves\" and \"open\".");
    g_object_unref(parser);
    return result;
}

int main(void)
{
    /* Without a session bus every link stays where it is; the extension says why. */
    GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SESSION, NULL, NULL);
    int status = 0;
    for (;;) {
        uint32_t size = 0;
        if (read_all(STDIN_FILENO, &size, sizeof size) != 0)
            break; /* the browser closed the conversation */
        if (size > MaxMessageBytes) {
            refuse(-1, "The request is longer than any link Quillvane takes.");
            status = 1;
            break;
        }
        char *text = g_malloc(size + 1);
        const int complete = read_all(STDIN_FILENO, text, size);
        text[size] = '\0';
        const int answered = complete == 0 ? answer(bus, text, size) : -1;
        g_free(text);
        if (answered != 0)
            break;
    }
    if (bus)
        g_object_unref(bus);
    return status;
}
