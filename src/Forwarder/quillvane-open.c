/*
 * quillvane-open URL...: the program of Quillvane's desktop entry. It hands the
 * links to the running Quillvane over the session bus (which starts Quillvane
 * when it does not run) and waits for the answer, so that Quillvane can find
 * out which application asked while this process, its child, still exists.
 * It links no Qt: a click costs one process start of a few hundred kilobytes.
 */
#include <systemd/sd-bus.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int append_platform_data(sd_bus *bus, sd_bus_message *message, int proof)
{
    const char *token = getenv("XDG_ACTIVATION_TOKEN");
    const char *startup_id = getenv("DESKTOP_STARTUP_ID");
    int result = sd_bus_message_open_container(message, 'a', "{sv}");
    if (result >= 0 && token && *token)
        result = sd_bus_message_append(message, "{sv}", "activation-token", "s", token);
    if (result >= 0 && startup_id && *startup_id)
        result = sd_bus_message_append(message, "{sv}", "desktop-startup-id", "s", startup_id);
    /* A claim, checked against what the bus says: Quillvane looks up the
     * application while the bus answers instead of after. */
    if (result >= 0)
        result = sd_bus_message_append(message, "{sv}", "sender-pid", "u", (uint32_t)getpid());
    /* A proof of the claim that needs no question to the bus: the kernel
     * keeps which process made a socket pair, and only this one has it. */
    if (result >= 0 && proof >= 0 && sd_bus_can_send(bus, SD_BUS_TYPE_UNIX_FD) > 0)
        result = sd_bus_message_append(message, "{sv}", "sender-socket", "h", proof);
    if (result >= 0)
        result = sd_bus_message_close_container(message);
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

    sd_bus *bus = NULL;
    sd_bus_message *call = NULL;
    sd_bus_message *reply = NULL;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int result = sd_bus_open_user(&bus);
    if (result < 0) {
        fprintf(stderr, "quillvane-open: cannot reach the D-Bus session bus: %s\n", strerror(-result));
        return 1;
    }
    result = sd_bus_message_new_method_call(bus, &call, "work.vorpa.Quillvane", "/work/vorpa/Quillvane",
                                            "org.freedesktop.Application", "Open");
    if (result >= 0)
        result = sd_bus_message_append_strv(call, argv + 1);
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0)
        pair[0] = pair[1] = -1;
    if (result >= 0)
        result = append_platform_data(bus, call, pair[0]);
    if (result < 0) {
        fprintf(stderr, "quillvane-open: cannot build the request: %s\n", strerror(-result));
        sd_bus_message_unref(call);
        sd_bus_unref(bus);
        return 1;
    }
    /* Generous: the first link may have to start Quillvane. */
    result = sd_bus_call(bus, call, 25 * 1000 * 1000, &error, &reply);
    int status = 0;
    if (result < 0) {
        fprintf(stderr, "quillvane-open: %s\n", error.message ? error.message : strerror(-result));
        status = 1;
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_flush_close_unref(bus);
    if (pair[0] >= 0) {
        close(pair[0]);
        close(pair[1]);
    }
    return status;
}
