#include "Views/BrowserIcons.h"

#include "Platform/DesktopEntries.h"

#include <QDir>
#include <QHash>

using namespace Qt::Literals::StringLiterals;

namespace BrowserIcons {

QIcon icon(const BrowserInfo &browser, DesktopEntries &entries)
{
    static QHash<QString, QIcon> cache;
    const auto cached = cache.constFind(browser.bundleID);
    if (cached != cache.cend())
        return *cached;
    QIcon found;
    if (const auto entry = entries.entry(browser.bundleID); entry && !entry->icon.isEmpty()) {
        found =
            QDir::isAbsolutePath(entry->icon) ? QIcon(entry->icon) : QIcon::fromTheme(entry->icon);
    }
    if (found.isNull())
        found = QIcon::fromTheme(u"web-browser"_s);
    cache.insert(browser.bundleID, found);
    return found;
}

} // namespace BrowserIcons
