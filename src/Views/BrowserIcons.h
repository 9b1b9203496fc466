#pragma once

#include "Models/BrowserInfo.h"

#include <QIcon>

class DesktopEntries;

// A browser's application icon, from its desktop entry (a theme icon name or a
// file), remembered per browser; a generic web-browser icon when it has none.
namespace BrowserIcons {

QIcon icon(const BrowserInfo &browser, DesktopEntries &entries);
// Any application's icon by its id; the generic application icon when it is
// not installed or has none.
QIcon appIcon(const QString &desktopId, DesktopEntries &entries);

} // namespace BrowserIcons
