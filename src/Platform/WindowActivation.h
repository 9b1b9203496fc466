#pragma once

#include <QString>

class QWindow;

// Lets a window that Quillvane shows for a link take the focus as the
// application that sent the link allowed it: the link's activation token is
// the window's startup id on X11 (_NET_STARTUP_ID, read by the window manager
// when the window is mapped), and its xdg-activation token on Wayland (which Qt
// uses when the window asks to be activated). Call before showing the window.
namespace WindowActivation {

void prepare(QWindow &window, const QString &token);

} // namespace WindowActivation
