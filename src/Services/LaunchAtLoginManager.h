#pragma once

#include "Platform/Autostart.h"

// Registers Quillvane to start at login, and tells whether it is registered.
namespace LaunchAtLoginManager {

bool isEnabled(const Autostart &autostart);
// The failure's description when the registration could not be changed.
Autostart::Failure enable(Autostart &autostart);
Autostart::Failure disable(Autostart &autostart);

} // namespace LaunchAtLoginManager
