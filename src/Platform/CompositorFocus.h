#pragma once

#include "Platform/ActiveApplication.h"

#include <QString>

#include <memory>

// The focused window as a tiling compositor's own socket reports it: sway's
// (and i3-compatible ones') IPC at $SWAYSOCK, Hyprland's event socket under
// $XDG_RUNTIME_DIR/hypr/$HYPRLAND_INSTANCE_SIGNATURE. Quillvane sleeps on the
// socket (no polling), connects again when the socket comes back after the
// compositor restarted, and talks only to a socket of this user's.
namespace CompositorFocus {

// sway's socket path, or Hyprland's folder of sockets; empty where it does not run.
QString swaySocket();
QString hyprlandFolder();

// Followers of the compositor named by the environment; none elsewhere.
std::unique_ptr<ActiveApplication> create();

// Why a socket path would not be used ("" when it may be): missing, not a
// socket, or owned by another user.
QString refusal(const QString &path);

} // namespace CompositorFocus
