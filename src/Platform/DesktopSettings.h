#pragma once

#include "Models/Expected.h"

#include <QString>

#include <optional>

// What desktops keep beside the MIME registry to choose the web browser:
// XFCE's preferred applications (xfce4/helpers.rc, with a helper entry of its
// own kind) and KDE Plasma's kdeglobals. xdg-settings reads these on those
// desktops, so Quillvane writes them there too.
namespace DesktopSettings {

using Result = Expected<void, QString>;

// Whether XDG_CURRENT_DESKTOP names that desktop ("XFCE", "KDE").
bool isCurrentDesktop(QStringView name);

// Makes the helper appId.desktop (which runs command, "%s" standing for the
// link) XFCE's web browser. Other lines of helpers.rc are kept.
Result setXfceWebBrowser(const QString &appId, const QString &name, const QString &icon,
                         const QString &command);
// helpers.rc's WebBrowser, as the user's configuration has it; none when unset.
std::optional<QString> xfceWebBrowser();

// kdeglobals' [General] BrowserApplication; none when unset.
std::optional<QString> kdeBrowserApplication();

} // namespace DesktopSettings
