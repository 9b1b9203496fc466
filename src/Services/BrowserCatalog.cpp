#include "Services/BrowserCatalog.h"

#include "Models/BuildInfo.h"
#include "Platform/SystemLog.h"
#include "Services/ConfigFile.h"
#include "Services/ExecLine.h"

#include <QCollator>
#include <QFileInfo>
#include <QSet>

#include <algorithm>
#include <optional>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcBrowserDiscovery, "BrowserDiscovery")

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

std::optional<BrowserInfo> makeBrowserInfo(const DesktopEntry &entry)
{
    if (entry.id.isEmpty())
        return std::nullopt;
    const QString name = entry.name.value_or(QFileInfo(entry.path).completeBaseName());
    return BrowserInfo{entry.id, name, QUrl::fromLocalFile(entry.path)};
}

bool isTerminalEmulator(const DesktopEntry &entry)
{
    return entry.categories.contains(u"TerminalEmulator"_s)
           || terminalIds().contains(entry.id, Qt::CaseInsensitive);
}

} // namespace

bool BrowserCatalog::isQuillvane(const DesktopEntry &entry)
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

QList<BrowserInfo> BrowserCatalog::discover(DesktopEntries &entries)
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

BrowserCatalog::BrowserCatalog(DesktopEntries &entries, const ConfigFile &config,
                               ProfileReader profiles, QObject *parent)
    : QObject(parent)
    , m_entries(entries)
    , m_config(config)
    , m_readProfiles(std::move(profiles))
    , m_browsers(discover(entries))
{}

bool BrowserCatalog::isQuillvane(const QString &desktopId) const
{
    if (desktopId.compare(QString::fromUtf16(BuildInfo::AppId), Qt::CaseInsensitive) == 0)
        return true;
    const auto entry = m_entries.entry(desktopId);
    return entry && isQuillvane(*entry);
}

QList<BrowserInfo> BrowserCatalog::shown(const QString &chosen) const
{
    QList<BrowserInfo> shown = m_browsers;
    shown.removeIf([this, &chosen](const BrowserInfo &browser) {
        return browser.desktopId != chosen
               && BrowserPreference::of(m_config.config().browserPreferences, browser.desktopId)
                      .hidden;
    });
    return shown;
}

std::optional<QString> BrowserCatalog::installedName(const QString &desktopId) const
{
    for (const BrowserInfo &browser : m_browsers) {
        if (browser.desktopId == desktopId)
            return browser.name;
    }
    return std::nullopt;
}

QList<BrowserProfile> BrowserCatalog::profiles(const QString &desktopId) const
{
    const QString key = desktopId.toLower();
    auto found = m_profiles.constFind(key);
    if (found == m_profiles.cend())
        found = m_profiles.insert(key, m_readProfiles ? m_readProfiles(desktopId)
                                                      : QList<BrowserProfile>());
    return *found;
}

std::optional<QString> BrowserCatalog::profileName(const QString &desktopId,
                                                   const QString &profileId) const
{
    for (const BrowserProfile &profile : profiles(desktopId)) {
        if (profile.id == profileId)
            return profile.name;
    }
    return std::nullopt;
}

void BrowserCatalog::refresh()
{
    m_profiles.clear();
    m_browsers = discover(m_entries);
    qCInfo(lcBrowserDiscovery).noquote() << u"Refreshed browsers: %1 found"_s.arg(m_browsers.size());
    Q_EMIT changed();
}

void BrowserCatalog::refreshProfiles()
{
    m_profiles.clear();
    Q_EMIT profilesChanged();
}
