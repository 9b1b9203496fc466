#include "Services/BrowserDiscovery.h"

#include "Models/BuildInfo.h"
#include "Platform/SystemLog.h"
#include "Services/ExecLine.h"

#include <QCollator>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <optional>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcBrowserDiscovery, "BrowserDiscovery")

namespace BrowserDiscovery {

namespace {

const QStringList &terminalIds()
{
    static const QStringList ids{u"com.googlecode.iterm2"_s, u"net.kovidgoyal.kitty"_s,
                                 u"com.apple.Terminal"_s};
    return ids;
}

const QStringList &excludedPrefixes()
{
    static const QStringList prefixes{u"com.parallels."_s};
    return prefixes;
}

std::optional<QList<BrowserInfo>> &cache()
{
    static std::optional<QList<BrowserInfo>> browsers;
    return browsers;
}

std::optional<BrowserInfo> makeBrowserInfo(const DesktopEntry &entry)
{
    if (entry.id.isEmpty())
        return std::nullopt;
    const QString name = entry.name.value_or(QFileInfo(entry.path).completeBaseName());
    return BrowserInfo{entry.id, name, QUrl::fromLocalFile(entry.path)};
}

} // namespace

bool isQuillvane(const DesktopEntry &entry)
{
    if (entry.id.compare(QString::fromUtf16(BuildInfo::AppId), Qt::CaseInsensitive) == 0)
        return true;
    const auto argv = ExecLine::split(entry.exec);
    if (!argv)
        return false;
    for (const QString &word : *argv) {
        const QString program = QFileInfo(word).fileName();
        // "env" and its assignments come before the program.
        if (program == u"env" || (word.contains(u'=') && !word.startsWith(u'-')))
            continue;
        return program == u"quillvane" || program == u"quillvane-open";
    }
    return false;
}

namespace {

bool isTerminalEmulator(const DesktopEntry &entry)
{
    return entry.categories.contains(u"TerminalEmulator"_s)
           || terminalIds().contains(entry.id, Qt::CaseInsensitive);
}

QList<BrowserInfo> performDiscovery(DesktopEntries &entries)
{
    const QList<DesktopEntry> handlers = entries.handlersForScheme(u"https"_s);
    qCInfo(lcBrowserDiscovery).noquote() << u"HTTPS handlers: %1"_s.arg(handlers.size());

    QList<BrowserInfo> result;
    QSet<QString> seen;
    for (const DesktopEntry &entry : handlers) {
        const auto browser = makeBrowserInfo(entry);
        if (!browser) {
            qCCritical(lcBrowserDiscovery).noquote()
                << u"Skipping unreadable bundle at %1"_s.arg(SystemLog::priv(entry.path));
            continue;
        }
        const QString key = browser->desktopId.toLower();
        if (isQuillvane(entry)) {
            qCDebug(lcBrowserDiscovery) << "Excluding self from browser list";
            continue;
        }
        if (isTerminalEmulator(entry)) {
            qCDebug(lcBrowserDiscovery).noquote()
                << u"Excluding terminal emulator: %1"_s.arg(SystemLog::priv(browser->desktopId));
            continue;
        }
        const bool excluded =
            std::any_of(excludedPrefixes().cbegin(), excludedPrefixes().cend(),
                        [&key](const QString &prefix) { return key.startsWith(prefix); });
        if (excluded) {
            qCDebug(lcBrowserDiscovery).noquote()
                << u"Excluding non-browser app: %1"_s.arg(SystemLog::priv(browser->desktopId));
            continue;
        }
        if (seen.contains(key)) {
            qCDebug(lcBrowserDiscovery).noquote()
                << u"Skipping duplicate browser: %1"_s.arg(SystemLog::priv(browser->desktopId));
            continue;
        }
        seen.insert(key);
        result.append(*browser);
    }

    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(result.begin(), result.end(),
                     [&collator](const BrowserInfo &a, const BrowserInfo &b) {
                         return collator.compare(a.name, b.name) < 0;
                     });
    qCInfo(lcBrowserDiscovery).noquote() << u"Discovered %1 browser(s)"_s.arg(result.size());
    return result;
}

} // namespace

QList<BrowserInfo> discoverBrowsers(DesktopEntries &entries)
{
    if (!cache())
        cache() = performDiscovery(entries);
    return *cache();
}

QList<BrowserInfo> refreshBrowsers(DesktopEntries &entries)
{
    cache().reset();
    return discoverBrowsers(entries);
}

} // namespace BrowserDiscovery
