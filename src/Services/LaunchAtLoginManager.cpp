#include "Services/LaunchAtLoginManager.h"

#include "Platform/SystemLog.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcLaunchAtLogin, "LaunchAtLogin")

namespace LaunchAtLoginManager {

bool isEnabled(const Autostart &autostart)
{
    const Autostart::Status status = autostart.status();
    qCDebug(lcLaunchAtLogin).noquote() << u"Current launch-at-login status: %1"_s.arg(int(status));
    return status == Autostart::Status::Enabled;
}

Autostart::Result enable(Autostart &autostart)
{
    qCInfo(lcLaunchAtLogin) << "Registering launch at login";
    const Autostart::Result enabled = autostart.enable();
    if (enabled)
        qCInfo(lcLaunchAtLogin) << "Successfully registered launch at login";
    return enabled;
}

Autostart::Result disable(Autostart &autostart)
{
    qCInfo(lcLaunchAtLogin) << "Unregistering launch at login";
    const Autostart::Result disabled = autostart.disable();
    if (disabled)
        qCInfo(lcLaunchAtLogin) << "Successfully unregistered launch at login";
    return disabled;
}

} // namespace LaunchAtLoginManager
