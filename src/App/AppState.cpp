#include "App/AppState.h"

#include "Models/BuildInfo.h"
#include "App/RouteTask.h"
#include "Models/DisplayText.h"
#include "Models/HostName.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "Services/BrowserDiscovery.h"
#include "Services/DefaultBrowserRegistration.h"
#include "Services/ExecLine.h"
#include "Services/Handoffs.h"
#include "Services/LaunchAtLoginManager.h"
#include "Services/RunningBrowsers.h"
#include "Services/URLCleaner.h"
#include "Services/URLRouter.h"
#include "Storage/HistoryStore.h"

#include <QCollator>
#include <QCoreApplication>
#include <QPromise>
#include <QTimer>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcAppState, "AppState")

namespace {

// The browsers tried, in order, when no fallback browser is stored yet.
const QStringList &preferredFallbacks()
{
    static const QStringList ids{
        u"firefox"_s,           u"firefox-esr"_s, u"org.mozilla.firefox"_s,  u"google-chrome"_s,
        u"com.google.Chrome"_s, u"chromium"_s,    u"org.chromium.Chromium"_s};
    return ids;
}

QCollator caseInsensitiveCollator()
{
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    return collator;
}

} // namespace

namespace {
// How often what the history database did not take is offered to it again.
constexpr int HistoryRetryMs = 2000;

} // namespace

AppState::AppState(ConfigFile &file, HistoryDatabase &history, AppServices services,
                   QObject *parent)
    : QObject(parent)
    , m_file(file)
    , m_history(history)
    , m_services(std::move(services))
    , m_queue(new RouteQueue(m_services.monotonicMs,
                             [this](const RouteQueue::Route &route) { startRoute(route); }, this))
{
    m_launchAtLogin = LaunchAtLoginManager::isEnabled(m_services.autostart);
    connect(&m_file, &ConfigFile::changed, this, &AppState::followConfig);
    connect(&m_file, &ConfigFile::problemChanged, this, &AppState::reportConfigProblem);
    if (m_file.problem())
        reportConfigProblem();
    m_compiledRules = URLRouter::CompiledRules(rules());
    reloadTodayForwardCount();
    m_browsers = BrowserDiscovery::discoverBrowsers(m_services.entries);
    if (config().fallbackBrowser.isEmpty())
        chooseFallbackBrowser();
    m_isSystemDefaultBrowser = checkIsDefaultBrowser();

    if (DiagnosticLog::isEnabled()) {
        QStringList lines{u"AppState init — %1 rule(s), %2 browser(s), fallback=%3"_s.arg(
            QString::number(rules().size()), QString::number(m_browsers.size()),
            fallbackBrowserId())};
        for (qsizetype i = 0; i < rules().size(); ++i) {
            const RoutingRule &rule = rules()[i];
            lines.append(DisplayText::escapeControls(u"  rule[%1]: %2 (%3) → %4 (%5)"_s.arg(
                QString::number(i), rule.sourceAppName, rule.sourceAppId,
                rule.targetBrowserName, rule.targetBrowserId)));
        }
        for (const BrowserInfo &browser : std::as_const(m_browsers))
            lines.append(u"  browser: %1 (%2)"_s.arg(browser.name, browser.desktopId));
        DiagnosticLog::writeLines(u"AppState", lines);
    }
    qCInfo(lcAppState).noquote()
        << u"AppState initialized with %1 rule(s), %2 browser(s), default: %3"_s.arg(
               QString::number(rules().size()), QString::number(m_browsers.size()),
               SystemLog::priv(fallbackBrowserId()));
}

AppState::~AppState() = default;

void AppState::followConfig(const Config &previous)
{
    const Config &now = config();
    if (now.rules != previous.rules)
        m_compiledRules = URLRouter::CompiledRules(now.rules);
    if (now.fallbackBrowser != previous.fallbackBrowser)
        m_reportedMissingFallback.clear();
    if (now.preferRunningBrowser && !previous.preferRunningBrowser)
        watchRunningBrowsersLater();
    Q_EMIT configChanged();
}

void AppState::reportConfigProblem()
{
    const auto &problem = m_file.problem();
    if (!problem) {
        qCInfo(lcAppState).noquote() << u"The configuration file can be read again."_s;
        return;
    }
    m_services.notify(u"Quillvane cannot read its configuration"_s,
                      u"%1\nLinks are routed as before until the file is corrected."_s.arg(
                          DisplayText::escapeControls(problem->text())));
}

bool AppState::save(const std::function<void(Config &)> &change)
{
    const auto failed = m_file.update(change);
    if (!failed)
        return true;
    m_services.notify(u"Quillvane could not save a change"_s,
                      DisplayText::escapeControls(*failed));
    Q_EMIT saveFailed(*failed);
    // A refused change is undone where it was made: the controls show what is
    // in force, not what was asked for.
    if (m_file.problem())
        Q_EMIT configChanged();
    return false;
}

void AppState::chooseFallbackBrowser()
{
    const auto isDiscovered = [this](const QString &id) {
        return std::any_of(m_browsers.cbegin(), m_browsers.cend(),
                           [&id](const BrowserInfo &browser) { return browser.desktopId == id; });
    };
    QStringList candidates;
    const std::optional<QString> current = m_services.entries.defaultHandler(u"https"_s);
    if (current && *current != QStringView(BuildInfo::AppId))
        candidates.append(*current);
    candidates += preferredFallbacks();
    QString chosen;
    for (const QString &candidate : std::as_const(candidates)) {
        if (isDiscovered(candidate)) {
            chosen = candidate;
            break;
        }
    }
    if (chosen.isEmpty() && !m_browsers.isEmpty())
        chosen = m_browsers.first().desktopId;
    if (chosen.isEmpty())
        return;
    save([&chosen](Config &config) { config.fallbackBrowser = chosen; });
}

RouteSettings AppState::routeSettings() const
{
    RouteSettings settings = RoutePlanner::settingsFor(config(), m_compiledRules, m_services.isShortLink);
    settings.schemeHandler = [this](const QString &scheme) { return schemeHandler(scheme); };
    settings.runningBrowsers = [this] {
        // The browsers the lists offer, and the fallback browser even when it
        // is hidden: whether it runs decides.
        QStringList candidates{fallbackBrowserId()};
        for (const BrowserInfo &browser : shownBrowsers())
            candidates.append(browser.desktopId);
        return m_runningBrowsers ? m_runningBrowsers->running(candidates) : QStringList();
    };
    return settings;
}

std::optional<SchemeHandler> AppState::schemeHandler(const QString &scheme) const
{
    return Handoffs::handler(m_services.entries, scheme);
}

void AppState::setHandoffEnabled(const QString &id, bool enabled)
{
    save([&](Config &config) { config.handoffs = Handoffs::switched(config.handoffs, id, enabled); });
}

void AppState::toggle(bool Config::*flag)
{
    save([flag](Config &config) { config.*flag = !(config.*flag); });
}

void AppState::setProcesses(ProcessApps &processes)
{
    m_runningBrowsers = std::make_unique<RunningBrowsers>(processes);
    watchRunningBrowsersLater();
}

void AppState::watchRunningBrowsersLater()
{
    // The first question reads every process; later ones only those started since.
    if (config().preferRunningBrowser && m_runningBrowsers)
        m_services.later(std::chrono::milliseconds(0), this,
                         [this] { routeSettings().runningBrowsers(); });
}

qsizetype AppState::todayHistoryCount() const
{
    return HistoryStore::todayCount(m_history);
}

std::optional<QString> AppState::installedBrowserName(const QString &desktopId) const
{
    for (const BrowserInfo &browser : m_browsers) {
        if (browser.desktopId == desktopId)
            return browser.name;
    }
    return std::nullopt;
}

QList<BrowserInfo> AppState::shownBrowsers(const QString &chosen) const
{
    QList<BrowserInfo> shown = m_browsers;
    shown.removeIf([this, &chosen](const BrowserInfo &browser) {
        return browser.desktopId != chosen && browserPreference(browser.desktopId).hidden;
    });
    return shown;
}

BrowserPreference AppState::browserPreference(const QString &desktopId) const
{
    return BrowserPreference::of(config().browserPreferences, desktopId);
}

LaunchOptions AppState::launchOptions(const QString &desktopId) const
{
    LaunchOptions options;
    const QString extra = browserPreference(desktopId).extraArguments;
    if (extra.isEmpty())
        return options;
    auto arguments = ExecLine::splitExtraArguments(extra);
    if (arguments)
        options.extraArguments = std::move(arguments).value();
    else
        qCWarning(lcAppState).noquote() << u"The extra arguments for %1 are left out: %2"_s.arg(
            SystemLog::priv(desktopId), arguments.error().description);
    return options;
}

QList<BrowserProfile> AppState::profiles(const QString &desktopId) const
{
    const QString key = desktopId.toLower();
    auto found = m_profiles.constFind(key);
    if (found == m_profiles.cend())
        found = m_profiles.insert(key, m_services.profiles ? m_services.profiles(desktopId)
                                                           : QList<BrowserProfile>());
    return *found;
}

std::optional<QString> AppState::profileName(const QString &desktopId,
                                             const QString &profileID) const
{
    for (const BrowserProfile &profile : profiles(desktopId)) {
        if (profile.id == profileID)
            return profile.name;
    }
    return std::nullopt;
}

void AppState::refreshProfiles()
{
    m_profiles.clear();
    Q_EMIT profilesChanged();
}

std::optional<QString> AppState::setBrowserPreference(const BrowserPreference &preference)
{
    if (const auto arguments = ExecLine::splitExtraArguments(preference.extraArguments);
        !arguments)
        return arguments.error().description;
    std::optional<QString> refused;
    save([&preference](Config &config) {
        config.browserPreferences.removeIf([&preference](const BrowserPreference &stored) {
            return stored.browserId.compare(preference.browserId,
                                                  Qt::CaseInsensitive)
                   == 0;
        });
        if (!preference.isDefault())
            config.browserPreferences.append(preference);
    });
    return std::nullopt;
}

QList<RoutingRule> AppState::appRules() const
{
    QList<RoutingRule> result;
    std::copy_if(rules().cbegin(), rules().cend(), std::back_inserter(result),
                 [](const RoutingRule &rule) { return !rule.sourceAppId.isEmpty(); });
    return result;
}

QList<RoutingRule> AppState::urlRules() const
{
    QList<RoutingRule> result;
    std::copy_if(rules().cbegin(), rules().cend(), std::back_inserter(result),
                 [](const RoutingRule &rule) {
                     return rule.sourceAppId.isEmpty() && rule.urlPattern.has_value();
                 });
    return result;
}

QList<RoutingRule> AppState::sortedAppRules() const
{
    QList<RoutingRule> rules = appRules();
    const QCollator collator = caseInsensitiveCollator();
    // An app's catch-all rule comes before its rules with a pattern.
    std::stable_sort(rules.begin(), rules.end(),
                     [&collator](const RoutingRule &a, const RoutingRule &b) {
                         const int order = collator.compare(a.sourceAppName, b.sourceAppName);
                         if (order != 0)
                             return order < 0;
                         return !a.urlPattern && b.urlPattern;
                     });
    return rules;
}

QList<RoutingRule> AppState::sortedUrlRules() const
{
    QList<RoutingRule> rules = urlRules();
    const QCollator collator = caseInsensitiveCollator();
    // One site's rules together, the more specific first.
    std::stable_sort(rules.begin(), rules.end(),
                     [&collator](const RoutingRule &a, const RoutingRule &b) {
                         const QString rootA = rootDomain(a.urlPattern.value_or(QString()));
                         const QString rootB = rootDomain(b.urlPattern.value_or(QString()));
                         if (rootA != rootB)
                             return collator.compare(rootA, rootB) < 0;
                         return URLRouter::domainSpecificity(a.urlPattern.value_or(QString()))
                                > URLRouter::domainSpecificity(b.urlPattern.value_or(QString()));
                     });
    return rules;
}

QString AppState::rootDomain(const QString &pattern)
{
    QString text = pattern;
    text.remove(u'*');
    text.remove(u"https://"_s);
    text.remove(u"http://"_s);
    text = text.section(u'/', 0, 0);
    return text.isEmpty() ? text : HostName::registrableDomain(text);
}

void AppState::addRule(const RoutingRule &rule)
{
    save([&rule](Config &config) { config.rules.append(rule); });
}

void AppState::updateRule(const RoutingRule &rule)
{
    save([&rule](Config &config) {
        for (RoutingRule &existing : config.rules) {
            if (existing.id == rule.id)
                existing = rule;
        }
    });
}

void AppState::deleteRule(const RoutingRule &rule)
{
    save([&rule](Config &config) {
        config.rules.removeIf([&rule](const RoutingRule &existing) { return existing.id == rule.id; });
    });
}

void AppState::setDefaultBrowser(const QString &desktopId)
{
    save([&desktopId](Config &config) {
        config.fallbackBrowser = desktopId;
        config.fallbackAsks = false;
    });
}

void AppState::askWhereToOpen(const AskRequest &request,
                              std::function<void(const AskAnswer &)> answer)
{
    if (m_ask)
        m_ask(request, std::move(answer));
    else
        answer(AskAnswer{});
}

void AppState::setFallbackAsks()
{
    save([](Config &config) { config.fallbackAsks = true; });
}

QList<ForwardingRecord> AppState::historyRecords(const QString &filter, qsizetype limit) const
{
    return HistoryStore::loadHistory(m_history, filter,
                                     limit < 0 ? HistoryStore::MaxRecords : limit);
}

void AppState::clearHistory()
{
    HistoryStore::clearHistory(m_history);
    Q_EMIT historyCleared();
}

Expected<QByteArray, ConfigManager::ConfigError> AppState::exportConfig() const
{
    return ConfigManager::exportToJSON(config());
}

void AppState::setFlag(bool AppState::*field, bool value, void (AppState::*changed)())
{
    this->*field = value;
    Q_EMIT(this->*changed)();
}

void AppState::toggleLaunchAtLogin()
{
    const Autostart::Result switched = LaunchAtLoginManager::isEnabled(m_services.autostart)
                                           ? LaunchAtLoginManager::disable(m_services.autostart)
                                           : LaunchAtLoginManager::enable(m_services.autostart);
    if (!switched) {
        qCCritical(lcAppState).noquote()
            << u"Failed to toggle launch at login: %1"_s.arg(SystemLog::priv(switched.error()));
        return;
    }
    setFlag(&AppState::m_launchAtLogin, LaunchAtLoginManager::isEnabled(m_services.autostart),
            &AppState::launchAtLoginChanged);
}

void AppState::refreshBrowsers()
{
    m_profiles.clear();
    m_browsers = BrowserDiscovery::refreshBrowsers(m_services.entries);
    Q_EMIT browsersChanged();
    qCInfo(lcAppState).noquote() << u"Refreshed browsers: %1 found"_s.arg(m_browsers.size());
    reportMissingFallback();
}

void AppState::reportMissingFallback()
{
    const QString &fallback = fallbackBrowserId();
    if (fallback.isEmpty() || installedBrowserName(fallback)) {
        m_reportedMissingFallback.clear();
        return;
    }
    if (m_reportedMissingFallback == fallback)
        return;
    m_reportedMissingFallback = fallback;
    const QString what =
        u"The fallback browser “%1” is no longer installed. Links that no rule claims will not open until you choose another fallback browser (Settings → General, or the Fallback menu)."_s
            .arg(DisplayText::escapeControls(fallback));
    qCWarning(lcAppState).noquote() << u"The fallback browser %1 is no longer installed."_s.arg(
        SystemLog::priv(fallback));
    m_services.notify(u"Quillvane's fallback browser is gone"_s, what);
}

bool AppState::checkIsDefaultBrowser() const
{
    const std::optional<QString> handler = m_services.entries.defaultHandler(u"https"_s);
    return handler && *handler == QStringView(BuildInfo::AppId);
}

void AppState::refreshDefaultBrowserStatus()
{
    setFlag(&AppState::m_isSystemDefaultBrowser, checkIsDefaultBrowser(),
            &AppState::isSystemDefaultBrowserChanged);
}

bool AppState::applyImportedConfig(const ConfigManager::ExportData &imported)
{
    const bool saved = save([&imported](Config &config) { ConfigManager::apply(imported, config); });
    if (saved)
        qCInfo(lcAppState).noquote()
            << u"Applied imported config: %1 rule(s), default=%2, urlCleaning=%3"_s.arg(
                   QString::number(imported.rules.size()),
                   SystemLog::priv(imported.fallbackBrowserId.value_or(u"nil"_s)),
                   imported.urlCleaningEnabled ? u"true"_s : u"false"_s);
    return saved;
}

void AppState::requestSetAsDefaultBrowser()
{
    QMetaObject::invokeMethod(
        this,
        [this] {
            const auto requested = DefaultBrowserRegistration::request(
                m_services.entries, QString::fromUtf16(BuildInfo::AppId));
            if (!requested) {
                DiagnosticLog::write(
                    u"AppState", QString(u"Failed to set default browser: "_s + requested.error()));
                qCCritical(lcAppState).noquote() << u"Failed to set default browser: %1"_s.arg(
                    SystemLog::priv(requested.error()));
                return;
            }
            DiagnosticLog::write(
                u"AppState",
                u"Successfully requested default browser registration for http + https");
            // The desktop may apply the association a moment after it was written.
            m_services.later(std::chrono::seconds(1), this,
                             [this] { refreshDefaultBrowserStatus(); });
        },
        Qt::QueuedConnection);
}

void AppState::setLastRouteLog(const QString &text)
{
    m_lastRouteLog = text;
    Q_EMIT lastRouteLogChanged();
}

void AppState::notifyRouteFailure(const QString &link, const QString &why,
                                  const QString &browserID)
{
    // Told once already, when it went.
    if (!browserID.isEmpty() && browserID == m_reportedMissingFallback)
        return;
    // A fallback browser that went away fails every link the same way: the user
    // hears of it once in a while, not once per link.
    constexpr int RepeatedFailureQuietMs = 30000;
    if (why == m_lastNotifiedFailure && !m_failureQuietUntil.hasExpired())
        return;
    m_lastNotifiedFailure = why;
    m_failureQuietUntil.setRemainingTime(RepeatedFailureQuietMs);
    m_services.notify(u"Quillvane could not open a link"_s, link + u'\n' + why);
}

bool AppState::isQuillvane(const QString &desktopId) const
{
    if (desktopId.compare(QString::fromUtf16(BuildInfo::AppId), Qt::CaseInsensitive) == 0)
        return true;
    const auto entry = m_services.entries.entry(desktopId);
    return entry && BrowserDiscovery::isQuillvane(*entry);
}

std::optional<QString> AppState::refuseLoop(const Link &url,
                                            const std::function<bool()> &cameFromOwnLaunch)
{
    const auto program = m_launches.recentlyHandedTo(url.toString());
    if (!program || !cameFromOwnLaunch())
        return std::nullopt;
    const QString what = u"%1 handed the link straight back to Quillvane, which had just opened it "
                         "there: a routing loop. Quillvane did not open it again; choose another "
                         "browser for it."_s.arg(*program);
    DiagnosticLog::write(u"AppState", DisplayText::escapeControls(
                                          u"Routing loop stopped: %1 came back from %2"_s.arg(
                                              url.toString(), *program)));
    qCWarning(lcAppState).noquote() << u"Routing loop stopped: %1 came back from %2"_s.arg(
        SystemLog::priv(url.toString()), SystemLog::priv(*program));
    m_services.notify(u"Quillvane stopped a routing loop"_s,
                      (url.hasHost() ? url.host() : url.toString()) + u'\n' + what);
    return what;
}

void AppState::routeURL(const Link &url, const std::optional<SourceApp> &source,
                        const QString &activationToken, const LinkJournal::Ticket &ticket)
{
    // A link routed again after a restart was counted when it first arrived.
    // One taken without an entry is counted with its history record, after its
    // browser has started: nothing is written before.
    if (!ticket.counted) {
        const QString day = HistoryStore::dayString(m_services.clock());
        if (ticket.entry == 0 && ticket.journal) {
            HistoryStore::countLater(m_history, day);
            m_todayForwardCount = day == m_forwardCountDay
                                      ? m_todayForwardCount + 1
                                      : HistoryStore::loadForwardCount(m_history, day);
        } else {
            m_todayForwardCount = HistoryStore::incrementForwardCount(m_history, day, ticket.entry);
        }
        m_forwardCountDay = day;
        Q_EMIT todayForwardCountChanged();
    }
    m_queue->add({url, source, activationToken, ticket});
}

void AppState::journal(QList<LinkJournal::Entry> &entries)
{
    // Counted in the same write: one transaction a link fewer before its browser starts.
    const QString day = HistoryStore::dayString(m_services.clock());
    const std::optional<qint64> count =
        LinkJournal::accept(m_history, entries, m_services.journal, day);
    if (count) {
        m_forwardCountDay = day;
        m_todayForwardCount = *count;
        Q_EMIT todayForwardCountChanged();
    }
    keepJournalFresh();
}

bool AppState::routesStartAtOnce(qsizetype count)
{
    return m_queue->startsAtOnce(count);
}

QFuture<void> AppState::launchTurn()
{
    return m_queue->launchTurn();
}

QList<LinkJournal::Entry> AppState::takeOverJournal()
{
    QList<LinkJournal::Entry> entries = LinkJournal::unfinished(m_history, m_services.journal);
    if (!entries.isEmpty())
        keepJournalFresh();
    return entries;
}

// While this Quillvane has links in the journal (waiting their turn, or a
// window that asks), it marks them as young now and then: should it be killed,
// their age counts from then, not from when they arrived. With nothing left, it
// stops, and nothing wakes it at rest.
void AppState::keepJournalFresh()
{
    if (!m_journalFreshness) {
        m_journalFreshness = new QTimer(this);
        m_journalFreshness->setSingleShot(true);
        m_journalFreshness->setInterval(LinkJournal::KeepFreshMs);
        connect(m_journalFreshness, &QTimer::timeout, this, [this] {
            if (LinkJournal::keepFresh(m_history, m_services.journal) != 0)
                m_journalFreshness->start();
        });
    }
    if (!m_journalFreshness->isActive())
        m_journalFreshness->start();
}

void AppState::startRoute(const RouteQueue::Route &route)
{
    RouteReports reports{
        [this](const QString &text) { setLastRouteLog(text); },
        [this](const QString &link, const QString &why, const QString &browserID) {
            notifyRouteFailure(link, why, browserID);
        },
        [this] {
            keepWritingHistory();
            Q_EMIT routeFinished();
        }};
    RouteTask::start(*this, std::move(reports), route.url, route.source, route.activationToken,
                     route.ticket);
}

void AppState::reloadTodayForwardCount()
{
    m_forwardCountDay = HistoryStore::dayString(m_services.clock());
    m_todayForwardCount = HistoryStore::loadForwardCount(m_history, m_forwardCountDay);
    Q_EMIT todayForwardCountChanged();
}

void AppState::keepWritingHistory()
{
    if (m_history.unwritten().isEmpty())
        return;
    if (!m_historyRetry) {
        m_historyRetry = new QTimer(this);
        m_historyRetry->setInterval(HistoryRetryMs);
        connect(m_historyRetry, &QTimer::timeout, this, [this] {
            if (HistoryStore::flush(m_history))
                m_historyRetry->stop();
        });
    }
    if (!m_historyRetry->isActive())
        m_historyRetry->start();
}
