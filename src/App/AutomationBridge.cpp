#include "App/AutomationBridge.h"

#include "App/AppState.h"
#include "Services/BrowserLauncher.h"
#include "Services/RoutePlanner.h"
#include "Storage/LinkJournal.h"

using namespace Qt::Literals::StringLiterals;

using Automation::Answer;
using Automation::IntentError;

AutomationBridge::AutomationBridge(AppState &state)
    : m_state(state)
{}

const Config &AutomationBridge::config() const
{
    return m_state.config();
}

QString AutomationBridge::configPath() const
{
    return m_state.configFile().path();
}

std::optional<QString> AutomationBridge::schemeApp(const QString &scheme) const
{
    const auto app = m_state.schemeHandler(scheme);
    return app ? std::optional<QString>(app->name) : std::nullopt;
}

std::optional<QString> AutomationBridge::save(const std::function<void(Config &)> &change)
{
    return m_state.saveForScript(change);
}

QList<BrowserInfo> AutomationBridge::browsers(bool shownOnly) const
{
    return shownOnly ? m_state.browsers().shown() : m_state.browsers().all();
}

QList<BrowserProfile> AutomationBridge::profiles(const QString &browserID) const
{
    return m_state.browsers().profiles(browserID);
}

std::optional<QString> AutomationBridge::applicationName(const QString &desktopID) const
{
    const auto entry = m_state.services().entries.entry(desktopID);
    return entry ? entry->name : std::nullopt;
}

bool AutomationBridge::launchAtLogin() const
{
    return m_state.launchAtLogin();
}

void AutomationBridge::setLaunchAtLogin(bool enabled)
{
    if (m_state.launchAtLogin() != enabled)
        m_state.toggleLaunchAtLogin();
}

// Answers with the launch's verdict; the link leaves the journal as soon as
// the browser runs with it, or when it could not be started.
QFuture<Answer> AutomationBridge::open(const Link &url, const QString &browserID,
                                       bool privateWindow, const QString &success,
                                       qint64 journalEntry)
{
    const LaunchPlatform platform = m_state.launchPlatform();
    LaunchOptions options = m_state.launchOptions(browserID);
    options.privateWindow = privateWindow;
    auto pending = std::make_shared<qint64>(journalEntry);
    options.started = [pending, history = &m_state.history().database()] {
        LinkJournal::finish(*history, std::exchange(*pending, 0));
    };
    // Scripts start browsers at the same pace as links from applications.
    return m_state.launchTurn()
        .then(&m_state,
              [url, browserID, options, platform, state = &m_state] {
                  return BrowserLauncher::open(url, browserID, state->browsers().all(), platform,
                                               options);
              })
        .unwrap()
        .then([success, pending,
               history = &m_state.history().database()](const BrowserLauncher::Outcome &outcome) -> Answer {
            LinkJournal::finish(*history, *pending);
            if (!outcome)
                return IntentError{IntentError::Kind::LaunchFailed, outcome.error().description()};
            return success;
        });
}

QFuture<Answer> AutomationBridge::routeURL(const Link &url,
                                           const std::optional<Automation::BrowserEntity> &browser,
                                           qint64 journalEntry)
{
    if (journalEntry == 0) {
        QList<LinkJournal::Entry> entries{{0, LinkJournal::Kind::Route, {}, url.toString(),
                                           std::nullopt, QString(),
                                           browser ? browser->id : QString(), false}};
        m_state.history().journal(entries);
        journalEntry = entries.first().id;
    }
    if (browser)
        return open(url, browser->id, false, u"Opened in %1."_s.arg(browser->name), journalEntry);

    // A script's routing action opens the browser plainly, whatever pause says,
    // and does not wait for the network to expand a short link.
    const RouteSettings settings = m_state.routeSettings();
    const RoutePolicy policy = RoutePolicy::automation();
    RoutePlan plan = RoutePlanner::prepare(url, std::nullopt, settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    if (!plan.result) {
        LinkJournal::finish(m_state.history().database(), journalEntry);
        return QtFuture::makeReadyFuture<Answer>(
            u"No routing rule matched and no default browser is set."_s);
    }
    // A rule that asks where to open the link cannot ask a script: the
    // fallback browser opens it, as when no window can ask.
    QString browserID = plan.result->browserId;
    if (plan.asks())
        browserID = m_state.fallbackBrowserId();
    if (browserID.isEmpty()) {
        LinkJournal::finish(m_state.history().database(), journalEntry);
        return QtFuture::makeReadyFuture<Answer>(IntentError{
            IntentError::Kind::ValidationFailed,
            u"The rule for this link asks where to open it, and no fallback browser is set: give the browser with --browser."_s});
    }
    // A rule that asks for a private window gets one here too: a script must
    // not open where the user asked for privacy.
    return open(plan.working, browserID, plan.result->privateWindow,
                u"Routed to %1."_s.arg(m_state.browsers().name(browserID)), journalEntry);
}
