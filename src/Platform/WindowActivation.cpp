#include "Platform/WindowActivation.h"

#include <QGuiApplication>
#include <QWindow>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>

namespace WindowActivation {

namespace {

xcb_atom_t atom(xcb_connection_t *connection, const char *name)
{
    xcb_intern_atom_reply_t *reply = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, uint16_t(std::strlen(name)), name), nullptr);
    const xcb_atom_t found = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    free(reply);
    return found;
}

} // namespace

void prepare(QWindow &window, const QString &token)
{
    if (token.isEmpty())
        return;
    const QByteArray bytes = token.toUtf8();
    if (QGuiApplication::platformName() == u"wayland") {
        // Qt's Wayland window hands this to the compositor when it asks to be activated.
        qputenv("XDG_ACTIVATION_TOKEN", bytes);
        return;
    }
    auto *x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection())
        return;
    xcb_connection_t *connection = x11->connection();
    const xcb_atom_t startupId = atom(connection, "_NET_STARTUP_ID");
    const xcb_atom_t utf8 = atom(connection, "UTF8_STRING");
    if (startupId == XCB_ATOM_NONE || utf8 == XCB_ATOM_NONE)
        return;
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, xcb_window_t(window.winId()),
                        startupId, utf8, 8, uint32_t(bytes.size()), bytes.constData());
    xcb_flush(connection);
}

} // namespace WindowActivation
