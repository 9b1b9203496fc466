/*
 * quillvane-open URL...: the program of Quillvane's desktop entry. It hands the
 * links to the running Quillvane over the session bus (which starts Quillvane
 * when it does not run) and waits for the answer, so that Quillvane can find
 * out which application asked while this process, its child, still exists.
 * It links no Qt: a click costs one process start of a few hundred kilobytes.
 * While Quillvane runs, the links go through its own socket instead: no bus
 * daemon between, and the kernel names this process to Quillvane.
 */
#define _GNU_SOURCE /* struct ucred */
#include <systemd/sd-bus.h>

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/* Generous: the first link may have to start Quillvane. */
static const int AnswerTimeoutMs = 25 * 1000;

static int append_field(char **buffer, size_t *size, const char *key, const char *value)
{
    const size_t length = strlen(key) + 1 + strlen(value) + 1;
    char *grown = realloc(*buffer, *size + length + 1);
    if (!grown)
        return -1;
    *buffer = grown;
    *size += (size_t)sprintf(grown + *size, "%s=%s", key, value) + 1;
    return 0;
}

static int write_all(int fd, const char *data, size_t size)
{
    while (size > 0) {
        /* A Quillvane that ends meanwhile must not end this process too (SIGPIPE). */
        const ssize_t written = send(fd, data, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return -1;
        data += written;
        size -= (size_t)written;
    }
    return 0;
}

/* Quillvane's answer is its own text, but a terminal gets no control characters. */
static void print_refusal(const char *text, size_t size)
{
    fputs("quillvane-open: ", stderr);
    for (size_t i = 0; i < size; ++i) {
        const unsigned char c = (unsigned char)text[i];
        if (c < 0x20 || c == 0x7f)
            fprintf(stderr, "\\x%02x", c);
        else
            fputc(c, stderr);
    }
    fputc('\n', stderr);
}

/* 0: Quillvane has the links; 1: it refused them (said on standard error);
 * -1: no Quillvane of this user answered there, and the bus is asked instead. */
static int open_through_socket(int count, char **links)
{
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    struct stat folder;
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (!runtime || runtime[0] != '/' || stat(runtime, &folder) != 0 || folder.st_uid != geteuid()
        || (folder.st_mode & 077) != 0
        || snprintf(address.sun_path, sizeof address.sun_path, "%s/quillvane.socket", runtime)
               >= (int)sizeof address.sun_path)
        return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct ucred peer;
    socklen_t length = sizeof peer;
    if (connect(fd, (struct sockaddr *)&address, sizeof address) != 0
        || getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != geteuid()) {
        close(fd);
        return -1;
    }
    char *request = NULL;
    size_t size = 0;
    int result = 0;
    for (int i = 0; i < count && result == 0; ++i)
        result = append_field(&request, &size, "link", links[i]);
    const char *token = getenv("XDG_ACTIVATION_TOKEN");
    const char *startup_id = getenv("DESKTOP_STARTUP_ID");
    if (result == 0 && token && *token)
        result = append_field(&request, &size, "activation-token", token);
    if (result == 0 && startup_id && *startup_id)
        result = append_field(&request, &size, "desktop-startup-id", startup_id);
    if (result == 0 && request) {
        request[size++] = '\0'; /* the empty field that ends the request */
        result = write_all(fd, request, size);
    }
    free(request);
    if (result != 0)
        shutdown(fd, SHUT_WR);
    /* Quillvane acts on a whole request only: one that did not get there, or
     * got no answer (Quillvane ended meanwhile), goes by the bus. One that it
     * refused before it was all sent (too large) has its answer waiting. */
    char answer[4096];
    size_t received = 0;
    while (received < sizeof answer) {
        struct pollfd wait = {.fd = fd, .events = POLLIN};
        const int ready = poll(&wait, 1, AnswerTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready == 0 && result != 0)
            break;
        if (ready <= 0) {
            fputs("quillvane-open: Quillvane did not answer in time.\n", stderr);
            close(fd);
            return 1;
        }
        const ssize_t got = read(fd, answer + received, sizeof answer - received);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        received += (size_t)got;
    }
    close(fd);
    if (received == 0)
        return -1;
    if (answer[0] == '0')
        return 0;
    print_refusal(answer + 1, received - 1);
    return 1;
}

/* libsystemd, and what it brings (libgcrypt, three compressors), cost a
 * millisecond at each start: loaded only when the bus is needed. */
static struct {
    __typeof__(sd_bus_open_user) *open_user;
    __typeof__(sd_bus_message_new_method_call) *message_new_method_call;
    __typeof__(sd_bus_message_append_strv) *message_append_strv;
    __typeof__(sd_bus_message_open_container) *message_open_container;
    __typeof__(sd_bus_message_append) *message_append;
    __typeof__(sd_bus_can_send) *can_send;
    __typeof__(sd_bus_message_close_container) *message_close_container;
    __typeof__(sd_bus_call) *call;
    __typeof__(sd_bus_error_free) *error_free;
    __typeof__(sd_bus_message_unref) *message_unref;
    __typeof__(sd_bus_unref) *unref;
    __typeof__(sd_bus_flush_close_unref) *flush_close_unref;
} sd;

static int load_sd_bus(void)
{
    void *library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return -1;
#define LOAD(name) \
    if (!(sd.name = (__typeof__(sd.name))dlsym(library, "sd_bus_" #name))) \
        return -1;
    LOAD(open_user)
    LOAD(message_new_method_call)
    LOAD(message_append_strv)
    LOAD(message_open_container)
    LOAD(message_append)
    LOAD(can_send)
    LOAD(message_close_container)
    LOAD(call)
    LOAD(error_free)
    LOAD(message_unref)
    LOAD(unref)
    LOAD(flush_close_unref)
#undef LOAD
    return 0;
}

static int append_platform_data(sd_bus *bus, sd_bus_message *message, int proof)
{
    const char *token = getenv("XDG_ACTIVATION_TOKEN");
    const char *startup_id = getenv("DESKTOP_STARTUP_ID");
    int result = sd.message_open_container(message, 'a', "{sv}");
    if (result >= 0 && token && *token)
        result = sd.message_append(message, "{sv}", "activation-token", "s", token);
    if (result >= 0 && startup_id && *startup_id)
        result = sd.message_append(message, "{sv}", "desktop-startup-id", "s", startup_id);
    /* A claim, checked against what the bus says: Quillvane looks up the
     * application while the bus answers instead of after. */
    if (result >= 0)
        result = sd.message_append(message, "{sv}", "sender-pid", "u", (uint32_t)getpid());
    /* A proof of the claim that needs no question to the bus: the kernel
     * keeps which process made a socket pair, and only this one has it. */
    if (result >= 0 && proof >= 0 && sd.can_send(bus, SD_BUS_TYPE_UNIX_FD) > 0)
        result = sd.message_append(message, "{sv}", "sender-socket", "h", proof);
    if (result >= 0)
        result = sd.message_close_container(message);
    return result;
}

int main(int argc, char **argv)
{
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        fputs("Usage: quillvane-open URL...\n"
              "Hands the links to Quillvane, which opens each in the browser its rules choose.\n",
              argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }

    const int direct = open_through_socket(argc - 1, argv + 1);
    if (direct >= 0)
        return direct;

    if (load_sd_bus() != 0) {
        fprintf(stderr, "quillvane-open: cannot load libsystemd to reach the session bus: %s\n", dlerror());
        return 1;
    }
    sd_bus *bus = NULL;
    sd_bus_message *call = NULL;
    sd_bus_message *reply = NULL;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int result = sd.open_user(&bus);
    if (result < 0) {
        fprintf(stderr, "quillvane-open: cannot reach the D-Bus session bus: %s\n", strerror(-result));
        return 1;
    }
    result = sd.message_new_method_call(bus, &call, "work.vorpa.Quillvane", "/work/vorpa/Quillvane",
                                            "org.freedesktop.Application", "Open");
    if (result >= 0)
        result = sd.message_append_strv(call, argv + 1);
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0)
        pair[0] = pair[1] = -1;
    if (result >= 0)
        result = append_platform_data(bus, call, pair[0]);
    if (result < 0) {
        fprintf(stderr, "quillvane-open: cannot build the request: %s\n", strerror(-result));
        sd.message_unref(call);
        sd.unref(bus);
        return 1;
    }
    result = sd.call(bus, call, (uint64_t)AnswerTimeoutMs * 1000, &error, &reply);
    int status = 0;
    if (result < 0) {
        fprintf(stderr, "quillvane-open: %s\n", error.message ? error.message : strerror(-result));
        status = 1;
    }
    sd.error_free(&error);
    sd.message_unref(reply);
    sd.message_unref(call);
    sd.flush_close_unref(bus);
    if (pair[0] >= 0) {
        close(pair[0]);
        close(pair[1]);
    }
    return status;
}
