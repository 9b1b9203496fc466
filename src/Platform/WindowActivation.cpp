#include "Platform/WindowActivation.h"
#include "Platform/X11Atoms.h"

#include <QGuiApplication>
#include <QWindow>

#include <xcb/xcb.h>


namespace WindowActivation {

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
    const xcb_atom_t startupId = internAtom(connection, "_NET_STARTUP_ID");
    const xcb_atom_t utf8 = internAtom(connection, "UTF8_STRING");
    if (startupId == XCB_ATOM_NONE || utf8 == XCB_ATOM_NONE)
        return;
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, xcb_window_t(window.winId()),
                        startupId, utf8, 8, uint32_t(bytes.size()), bytes.constData());
    xcb_flush(connection);
}

} // namespace WindowActivation
