#pragma once

#include "Platform/Autostart.h"

// Registers Quillvane to start at login, and tells whether it is registered.
namespace LaunchAtLoginManager {

bool isEnabled(const Autostart &autostart);
// The failure's description when the registration could not be changed.
Autostart::Result enable(Autostart &autostart);
Autostart::Result disable(Autostart &autostart);

} // namespace LaunchAtLoginManager
