#include "Views/BrowserIcons.h"

#include "Platform/DesktopEntries.h"

#include <QDir>
#include <QHash>

using namespace Qt::Literals::StringLiterals;

namespace BrowserIcons {

namespace {

// Looked up once per application: entries are read through GIO.
QIcon lookUp(const QString &id, DesktopEntries &entries, const QString &generic)
{
    static QHash<QString, QIcon> cache;
    const QString key = generic + u'/' + id;
    const auto cached = cache.constFind(key);
    if (cached != cache.cend())
        return *cached;
    QIcon found;
    if (const auto entry = entries.entry(id); entry && !entry->icon.isEmpty()) {
        found =
            QDir::isAbsolutePath(entry->icon) ? QIcon(entry->icon) : QIcon::fromTheme(entry->icon);
    }
    if (found.isNull())
        found = QIcon::fromTheme(generic);
    cache.insert(key, found);
    return found;
}

} // namespace

QIcon icon(const BrowserInfo &browser, DesktopEntries &entries)
{
    return lookUp(browser.desktopId, entries, u"web-browser"_s);
}

QIcon appIcon(const QString &desktopId, DesktopEntries &entries)
{
    return lookUp(desktopId, entries, u"application-x-executable"_s);
}

} // namespace BrowserIcons
