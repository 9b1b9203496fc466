// How soon the window that asks where a link opens is on screen: from the Open
// call of a link that no rule claims (the fallback is "Ask") to the window
// being mapped on the X server, on a running Quillvane. Run it by hand under a
// virtual X server:
//     xvfb-run -a ./build/rel/bench/picker_latency 30
// Quillvane is installed from the build tree and started on a session bus of
// the harness's own; each round presses Escape to close the window, and the
// next link comes a moment later, as links come from a person's clicks.
#include "HarnessSupport.h"
#include "Platform/X11Atoms.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace Qt::Literals::StringLiterals;
using namespace HarnessSupport;

namespace {

// The window's title as UTF-8 (_NET_WM_NAME).
QString windowName(xcb_connection_t *connection, xcb_window_t window)
{
    static const xcb_atom_t netWmName = internAtom(connection, "_NET_WM_NAME");
    xcb_get_property_reply_t *reply = xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, window, netWmName, XCB_ATOM_ANY, 0, 256),
        nullptr);
    QString name;
    if (reply)
        name = QString::fromUtf8(static_cast<const char *>(xcb_get_property_value(reply)),
                                 xcb_get_property_value_length(reply));
    free(reply);
    return name;
}

// Waits for the next map (or unmap) of a top-level window with that name;
// returns the window, 0 when none came.
xcb_window_t waitFor(xcb_connection_t *connection, uint8_t kind, const QString &name,
                     int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        xcb_generic_event_t *event = xcb_poll_for_event(connection);
        if (!event) {
            QThread::usleep(100);
            continue;
        }
        const uint8_t type = event->response_type & 0x7f;
        xcb_window_t window = 0;
        if (type == XCB_MAP_NOTIFY)
            window = reinterpret_cast<xcb_map_notify_event_t *>(event)->window;
        else if (type == XCB_UNMAP_NOTIFY)
            window = reinterpret_cast<xcb_unmap_notify_event_t *>(event)->window;
        free(event);
        if (type == kind && windowName(connection, window) == name)
            return window;
    }
    return 0;
}

// What a window manager sends when the user closes a window.
void closeWindow(xcb_connection_t *connection, xcb_window_t window)
{
    xcb_client_message_event_t message = {};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = window;
    message.type = internAtom(connection, "WM_PROTOCOLS");
    message.data.data32[0] = internAtom(connection, "WM_DELETE_WINDOW");
    message.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(connection, 0, window, XCB_EVENT_MASK_NO_EVENT,
                   reinterpret_cast<const char *>(&message));
    xcb_flush(connection);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::max(5, atoi(argv[1])) : 30;
    xcb_connection_t *connection = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(connection)) {
        std::fprintf(stderr, "needs an X server: run it under xvfb-run -a\n");
        return 1;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection)).data->root;
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection, root, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(connection);

    QTemporaryDir root_;
    const QString base = root_.path();
    const QString prefix = installInto(base);
    writeFile(base + u"/data/applications/fake-browser.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Fake\nExec=true %u\n"
              "MimeType=x-scheme-handler/https;\n");
    writeFile(base + u"/config/Quillvane/Quillvane.conf"_s,
              "[General]\ndefault_browser_bundle_id=fake-browser\nfallback_asks=true\n");
    qputenv("QT_QPA_PLATFORM", "xcb");

    QProcess bus;
    startSessionBus(bus, base, prefix);

    QProcess instance;
    instance.setStandardOutputFile(QProcess::nullDevice());
    instance.setStandardErrorFile(QProcess::nullDevice());
    instance.start(prefix + u"/bin/quillvane"_s);
    waitForInstance();

    const QString title = u"Open Link — Quillvane"_s;
    QList<double> shown;
    for (int i = 0; i < rounds; ++i) {
        QThread::msleep(200);
        QElapsedTimer clock;
        clock.start();
        QDBusMessage open = QDBusMessage::createMethodCall(
            u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane"_s,
            u"org.freedesktop.Application"_s, u"Open"_s);
        open << QStringList{u"https://ask.example/%1"_s.arg(i)} << QVariantMap();
        QDBusConnection::sessionBus().asyncCall(open);
        const xcb_window_t window = waitFor(connection, XCB_MAP_NOTIFY, title, 10000);
        if (!window) {
            std::fprintf(stderr, "round %d: the window did not appear\n", i);
            return 1;
        }
        shown.append(double(clock.nsecsElapsed()) / 1e6);
        closeWindow(connection, window);
        if (!waitFor(connection, XCB_UNMAP_NOTIFY, title, 10000)) {
            std::fprintf(stderr, "round %d: the window did not close\n", i);
            return 1;
        }
    }
    // The first link that asks makes the window (Quillvane at rest has none).
    const double first = shown.first();
    std::sort(shown.begin(), shown.end());
    std::printf("rounds: %d; from the Open call to the window mapped, in milliseconds\n", rounds);
    std::printf("median %.1f, fastest %.1f, slowest %.1f; the first (window made) %.1f\n",
                median(shown), shown.first(), shown.last(), first);
    instance.terminate();
    instance.waitForFinished(5000);
    bus.terminate();
    bus.waitForFinished(5000);
    xcb_disconnect(connection);
    return 0;
}
