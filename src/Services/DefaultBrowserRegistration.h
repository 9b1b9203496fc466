#pragma once

#include "Platform/DesktopEntries.h"

#include <QString>

#include <optional>

// Asks the desktop to hand Quillvane every web link: the default handler for
// http, then https (also HTML files, as "xdg-settings set default-web-browser"
// does), and on KDE Plasma and XFCE their own browser settings.
namespace DefaultBrowserRegistration {

// Fails when http or https could not be claimed.
DesktopEntries::Result request(DesktopEntries &entries, const QString &appId);

} // namespace DefaultBrowserRegistration
