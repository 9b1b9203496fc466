#include "App/AppState.h"

#include "Models/BuildInfo.h"
#include "App/RouteTask.h"
#include "Models/DisplayText.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "Services/DefaultBrowserRegistration.h"
#include "Services/ExecLine.h"
#include "Services/Handoffs.h"
#include "Services/LaunchAtLoginManager.h"
#include "Services/RunningBrowsers.h"
#include "Services/URLCleaner.h"
#include "Services/URLRouter.h"

#include <QCoreApplication>
#include <QPromise>

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

} // namespace

AppState::AppState(ConfigFile &file, HistoryDatabase &history, AppServices services,
                   QObject *parent)
    : QObject(parent)
    , m_file(file)
    , m_services(std::move(services))
    , m_history(history, m_services.clock, m_services.journal)
    , m_browsers(m_services.entries, file, m_services.profiles)
    , m_queue(new RouteQueue(m_services.monotonicMs,
                             [this](const RouteQueue::Route &route) { startRoute(route); }, this))
{
    m_launchAtLogin = LaunchAtLoginManager::isEnabled(m_services.autostart);
    connect(&m_file, &ConfigFile::changed, this, &AppState::followConfig);
    connect(&m_file, &ConfigFile::problemChanged, this, &AppState::reportConfigProblem);
    if (m_file.problem())
        reportConfigProblem();
    m_compiledRules = URLRouter::CompiledRules(rules());
    connect(&m_browsers, &BrowserCatalog::changed, this, &AppState::reportMissingFallback);
    if (config().fallbackBrowser.isEmpty())
        chooseFallbackBrowser();
    m_isSystemDefaultBrowser = checkIsDefaultBrowser();

    if (DiagnosticLog::isEnabled()) {
        QStringList lines{u"AppState init — %1 rule(s), %2 browser(s), fallback=%3"_s.arg(
            QString::number(rules().size()), QString::number(m_browsers.all().size()),
            fallbackBrowserId())};
        for (qsizetype i = 0; i < rules().size(); ++i) {
            const RoutingRule &rule = rules()[i];
            lines.append(DisplayText::escapeControls(u"  rule[%1]: %2 (%3) → %4 (%5)"_s.arg(
                QString::number(i), rule.sourceAppName, rule.sourceAppId,
                rule.targetBrowserName, rule.targetBrowserId)));
        }
        for (const BrowserInfo &browser : m_browsers.all())
            lines.append(u"  browser: %1 (%2)"_s.arg(browser.name, browser.desktopId));
        DiagnosticLog::writeLines(u"AppState", lines);
    }
    qCInfo(lcAppState).noquote()
        << u"AppState initialized with %1 rule(s), %2 browser(s), default: %3"_s.arg(
               QString::number(rules().size()), QString::number(m_browsers.all().size()),
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
    QStringList candidates;
    const std::optional<QString> current = m_services.entries.defaultHandler(u"https"_s);
    if (current && *current != QStringView(BuildInfo::AppId))
        candidates.append(*current);
    candidates += preferredFallbacks();
    QString chosen;
    for (const QString &candidate : std::as_const(candidates)) {
        if (m_browsers.installedName(candidate)) {
            chosen = candidate;
            break;
        }
    }
    if (chosen.isEmpty() && !m_browsers.all().isEmpty())
        chosen = m_browsers.all().first().desktopId;
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
        for (const BrowserInfo &browser : m_browsers.shown())
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

void AppState::reportMissingFallback()
{
    const QString &fallback = fallbackBrowserId();
    if (fallback.isEmpty() || m_browsers.installedName(fallback)) {
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
    m_history.count(ticket);
    m_queue->add({url, source, activationToken, ticket});
}

bool AppState::routesStartAtOnce(qsizetype count)
{
    return m_queue->startsAtOnce(count);
}

QFuture<void> AppState::launchTurn()
{
    return m_queue->launchTurn();
}

void AppState::startRoute(const RouteQueue::Route &route)
{
    RouteReports reports{
        [this](const QString &text) { setLastRouteLog(text); },
        [this](const QString &link, const QString &why, const QString &browserID) {
            notifyRouteFailure(link, why, browserID);
        },
        [this] {
            m_history.keepWriting();
            Q_EMIT routeFinished();
        }};
    RouteTask::start(*this, std::move(reports), route.url, route.source, route.activationToken,
                     route.ticket);
}

