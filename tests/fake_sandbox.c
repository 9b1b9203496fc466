/* The two sides of a sandboxed application's link, for the tests:
 *
 *   fake_sandbox portal URL   asks the desktop portal to open URL, as a Flatpak
 *                             app does (run it in a sandbox that holds a
 *                             /.flatpak-info);
 *   fake_sandbox snap URL     asks snapd's session agent to, as a Snap app does;
 *   fake_sandbox snapd        is that agent: it owns io.snapcraft.Launcher and
 *                             runs xdg-open for each OpenURL, like snapd does.
 *
 * The applications stay connected after asking, until their standard input
 * ends, as a running application would; they print "asked" once answered. */
#include <gio/gio.h>
#include <stdio.h>
#include <string.h>

static int fail(const GError *error)
{
    fprintf(stderr, "fake_sandbox: %s\n", error->message);
    return 1;
}

static const char *const LauncherXml =
    "<node><interface name='io.snapcraft.Launcher'>"
    "<method name='OpenURL'><arg type='s' name='url' direction='in'/></method>"
    "</interface></node>";

static void reap(GPid child, gint status, gpointer data)
{
    (void)status, (void)data;
    g_spawn_close_pid(child);
}

static void on_call(GDBusConnection *connection, const char *sender, const char *path,
                    const char *interface, const char *method, GVariant *parameters,
                    GDBusMethodInvocation *invocation, gpointer data)
{
    (void)connection, (void)sender, (void)path, (void)interface, (void)data;
    if (strcmp(method, "OpenURL") != 0) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.UnknownMethod", method);
        return;
    }
    const char *url = NULL;
    g_variant_get(parameters, "(&s)", &url);
    const char *argv[] = {"xdg-open", url, NULL};
    GError *error = NULL;
    GPid child = 0;
    /* Its own child, as snapd's is (GLib would otherwise hand it to init). */
    if (!g_spawn_async(NULL, (char **)argv, NULL, G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD,
                       NULL, NULL, &child, &error)) {
        g_dbus_method_invocation_return_gerror(invocation, error);
        g_error_free(error);
        return;
    }
    g_child_watch_add(child, reap, NULL);
    g_dbus_method_invocation_return_value(invocation, NULL);
}

static int run_snapd(GDBusConnection *bus)
{
    static const GDBusInterfaceVTable vtable = {on_call, NULL, NULL, {0}};
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(LauncherXml, NULL);
    GError *error = NULL;
    if (!g_dbus_connection_register_object(bus, "/io/snapcraft/Launcher", node->interfaces[0],
                                           &vtable, NULL, NULL, &error)) {
        return fail(error);
    }
    GVariant *owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "RequestName", g_variant_new("(su)", "io.snapcraft.Launcher", 4u), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error);
    if (!owned) {
        return fail(error);
    }
    g_variant_unref(owned);
    printf("ready\n");
    fflush(stdout);
    g_main_loop_run(g_main_loop_new(NULL, FALSE));
    return 0;
}

int main(int argc, char **argv)
{
    if (argc < 2)
        return 2;
    GError *error = NULL;
    GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SESSION, NULL, &error);
    if (!bus) {
        return fail(error);
    }
    if (strcmp(argv[1], "snapd") == 0)
        return run_snapd(bus);
    if (argc != 3)
        return 2;
    const gboolean portal = strcmp(argv[1], "portal") == 0;
    GVariant *reply =
        portal ? g_dbus_connection_call_sync(
                     bus, "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                     "org.freedesktop.portal.OpenURI", "OpenURI",
                     g_variant_new("(ss@a{sv})", "", argv[2], g_variant_new_array(G_VARIANT_TYPE("{sv}"), NULL, 0)),
                     NULL, G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error)
               : g_dbus_connection_call_sync(bus, "io.snapcraft.Launcher", "/io/snapcraft/Launcher",
                                             "io.snapcraft.Launcher", "OpenURL",
                                             g_variant_new("(s)", argv[2]), NULL,
                                             G_DBUS_CALL_FLAGS_NONE, -1, NULL, &error);
    if (!reply) {
        return fail(error);
    }
    g_variant_unref(reply);
    printf("asked\n");
    fflush(stdout);
    char line[64];
    while (fgets(line, sizeof line, stdin)) {
    }
    return 0;
}
