#include "App/RouteTask.h"

#include "App/AppState.h"
#include "Models/DisplayText.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "Services/BrowserLauncher.h"
#include "Services/ProfileLauncher.h"
#include "Storage/HistoryStore.h"

#include <QMetaObject>
#include <QPointer>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcRoute, "AppState")

namespace {

void debugLog(const QString &message)
{
    DiagnosticLog::write(u"AppState", message);
}

QString hostOrText(const Link &url)
{
    return url.hasHost() ? url.host() : url.toString();
}

QString boolText(bool value)
{
    return value ? u"true"_s : u"false"_s;
}

} // namespace

RouteTask::RouteTask(AppState &state, RouteReports reports, RoutePlan plan,
                     const RoutePolicy &policy, const QString &activationToken,
                     const LinkJournal::Ticket &ticket)
    : QObject(&state)
    , m_state(state)
    , m_reports(std::move(reports))
    , m_plan(std::move(plan))
    , m_policy(policy)
    , m_activationToken(activationToken)
    , m_ticket(ticket)
{}

void RouteTask::start(AppState &state, RouteReports reports, const Link &url,
                      const std::optional<SourceApp> &source, const QString &activationToken,
                      const LinkJournal::Ticket &ticket)
{
    const QString name = source ? source->name : u"unknown"_s;
    const QString id = source ? source->desktopId : u"nil"_s;
    debugLog(DisplayText::escapeControls(
        u"routeURL() — url=%1, source=%2 (%3), rules=%4, fallback=%5, rulesEnabled=%6"_s.arg(
            url.toString(), name, id, QString::number(state.rules().size()),
            state.fallbackBrowserId(), boolText(state.config().rulesEnabled))));

    const RoutePolicy policy = RoutePolicy::routing(DiagnosticLog::isEnabled());
    RoutePlan plan = RoutePlanner::prepare(url, source, state.routeSettings(), policy);
    if (plan.unwrappedSomething())
        debugLog(u"routeURL() — unwrapped URL: %1"_s.arg(plan.unwrapped.toString()));
    if (plan.cleanedSomething())
        debugLog(u"routeURL() — cleaned URL: %1"_s.arg(plan.cleaned.toString()));

    auto *task =
        new RouteTask(state, std::move(reports), std::move(plan), policy, activationToken, ticket);
    if (task->m_plan.decision == RoutePlan::Decision::Paused) {
        const QString fallbackID =
            task->m_plan.result ? task->m_plan.result->browserId : QString();
        const QString fallbackName = state.browsers().name(fallbackID);
        task->m_reports.status(
            u"⏸ %1 → %2: %3"_s.arg(name, fallbackName, hostOrText(task->m_plan.working)));
        debugLog(DisplayText::escapeControls(
            u"routeURL() — Rules paused → fallback %1 (%2)"_s.arg(fallbackID, fallbackName)));
        task->runPaused(fallbackID, fallbackName);
    } else {
        task->runRouting();
    }
}

QString RouteTask::sourceName() const
{
    return m_plan.source ? m_plan.source->name : u"unknown"_s;
}

QString RouteTask::sourceID() const
{
    return m_plan.source ? m_plan.source->desktopId : u"nil"_s;
}

LaunchOptions RouteTask::launchOptions(const QString &browserID, const QString &browserName,
                                      const std::optional<QString> &profileID, bool privateWindow)
{
    LaunchOptions options = m_state.launchOptions(browserID);
    options.activationToken = m_activationToken;
    options.privateWindow = privateWindow;
    // Recorded as the browser starts, in the order links arrive, with the
    // journal entry ended in the same step: a Quillvane killed while the
    // verdict is pending must not open the link a second time.
    if (m_ticket.timing.known())
        options.spawning = [this] { m_ticket.timing.mark(LinkTiming::Spawning); };
    options.started = [this, browserID, browserName, profileID] {
        if (m_ticket.timing.known()) {
            m_ticket.timing.mark(LinkTiming::Started);
            debugLog(m_ticket.timing.describe());
        }
        recordOpened(browserID, browserName, profileID);
    };
    return options;
}

void RouteTask::runPaused(const QString &fallbackID, const QString &fallbackName)
{
    // Paused, with "Ask" as the fallback: the user is asked, as for any link.
    if (m_plan.asks()) {
        ask();
        return;
    }
    const LaunchPlatform platform = m_state.launchPlatform();
    BrowserLauncher::open(m_plan.working, fallbackID, m_state.browsers().all(), platform,
                          launchOptions(fallbackID, fallbackName, std::nullopt, false))
        .then(this, [this, fallbackID, fallbackName](const BrowserLauncher::Outcome &outcome) {
            if (!outcome) {
                const QString error = outcome.error().description();
                failed(u"FAILED: "_s + error, u"routeURL() — FAILED (rules paused): "_s + error,
                       u"Failed to open URL (rules paused) in %1: %2"_s.arg(
                           SystemLog::priv(fallbackName), SystemLog::priv(error)),
                       error);
                return;
            }
            debugLog(u"routeURL() — SUCCESS (rules paused) opened in "_s + fallbackName);
            qCInfo(lcRoute).noquote() << u"Rules paused: %1 → %2 (from: %3)"_s.arg(
                SystemLog::priv(m_plan.working.toString()), SystemLog::priv(fallbackName),
                SystemLog::priv(sourceName()));
            finish();
        });
}

void RouteTask::runRouting()
{
    if (m_plan.shortLink) {
        m_ticket.beforeWaiting();
        m_state.services().expand(m_plan.working).then(this, [this](const Link &expanded) {
            if (!(expanded == m_plan.working)) {
                debugLog(u"routeURL() — expanded URL: "_s + expanded.toString());
                RoutePlanner::expanded(m_plan, expanded);
            }
            route();
        });
        return;
    }
    route();
}

void RouteTask::route()
{
    // Rules, browsers and the fallback as they are now, after any wait.
    RoutePlanner::decide(m_plan, m_state.routeSettings(), m_policy);
    if (m_ticket.timing.known())
        m_ticket.timing.mark(LinkTiming::Decided);
    if (!m_plan.trail.isEmpty())
        DiagnosticLog::writeLines(u"URLRouter", m_plan.trail);
    const std::optional<RouteResult> &result = m_plan.result;
    if (!result) {
        failed(u"No route: %1 from %2"_s.arg(hostOrText(m_plan.working), sourceName()),
               u"routeURL() — NO ROUTE found"_s,
               u"No route found for %1 from %2"_s.arg(SystemLog::priv(m_plan.working.toString()),
                                                      SystemLog::priv(sourceID())),
               u"No rule matches it and no fallback browser is set."_s);
        return;
    }
    if (m_plan.asks()) {
        ask();
        return;
    }
    launch();
}

void RouteTask::ask()
{
    m_ticket.beforeWaiting();
    const QString host = hostOrText(m_plan.working);
    m_reports.status(u"Asking where to open %1 from %2"_s.arg(host, sourceName()));
    debugLog(u"routeURL() — asking where to open it"_s);
    AskRequest request{m_plan.working, m_plan.source, m_activationToken,
                       m_plan.result ? m_plan.result->browserId : QString(),
                       m_plan.offeredHandoff};
    if (request.offeredFirst.isEmpty())
        request.offeredFirst = m_state.fallbackBrowserId();
    m_state.askWhereToOpen(request, [task = QPointer<RouteTask>(this)](const AskAnswer &answer) {
        if (task)
            task->answered(answer);
    });
}

void RouteTask::answered(const AskAnswer &answer)
{
    const QString host = hostOrText(m_plan.working);
    switch (answer.kind) {
    case AskAnswer::Kind::Cancelled:
        // The user's choice: nothing opens, nothing is recorded.
        debugLog(u"routeURL() — not opened: the user closed the window that asked"_s);
        m_reports.status(u"Not opened: %1 (closed without a choice)"_s.arg(host));
        LinkJournal::finish(m_state.history().database(), m_ticket.entry);
        m_ticket.entry = 0;
        finish();
        return;
    case AskAnswer::Kind::CannotAsk: {
        const QString fallback = m_state.fallbackBrowserId();
        if (fallback.isEmpty()) {
            failed(u"FAILED: could not ask where to open %1"_s.arg(host),
                   u"routeURL() — FAILED: no window can ask, and no fallback browser is set"_s,
                   u"Could not ask where to open %1: no window can be shown"_s.arg(
                       SystemLog::priv(m_plan.working.toString())),
                   u"No window could ask where to open it, and no fallback browser is set."_s);
            return;
        }
        debugLog(u"routeURL() — no window can ask: the fallback browser opens it"_s);
        // The fallback browser decided (the pause, when rules are paused).
        if (m_plan.decision != RoutePlan::Decision::Paused)
            m_plan.decision = RoutePlan::Decision::Fallback;
        m_plan.result = RouteResult{fallback, std::nullopt};
        break;
    }
    case AskAnswer::Kind::Chosen:
        debugLog(DisplayText::escapeControls(
            u"routeURL() — the user chose %1 profile=%2 private=%3"_s.arg(
                answer.browserID, answer.profileID.value_or(u"default"_s),
                boolText(answer.privateWindow))));
        m_plan.result =
            RouteResult{answer.browserID, answer.profileID, answer.privateWindow, false};
        if (answer.app)
            m_plan.handoff = m_plan.offeredHandoff;
        break;
    }
    launch();
}

void RouteTask::launch()
{
    const std::optional<RouteResult> &result = m_plan.result;
    const QString targetName =
        m_plan.handoff ? m_plan.handoff->app.name : m_state.browsers().name(result->browserId);
    const QString profilePart = result->profileID ? u" [%1]"_s.arg(*result->profileID) : QString();
    m_reports.status(
        u"%1 → %2%3: %4"_s.arg(sourceName(), targetName, profilePart, hostOrText(m_plan.working)));
    debugLog(DisplayText::escapeControls(u"routeURL() — target=%1 (%2) profile=%3"_s.arg(
        result->browserId, targetName, result->profileID.value_or(u"default"_s))));

    const QList<BrowserInfo> &browsers = m_state.browsers().all();
    const auto browser =
        std::find_if(browsers.cbegin(), browsers.cend(), [&result](const BrowserInfo &info) {
            return info.desktopId == result->browserId;
        });
    if (!result->profileID || browser == browsers.cend()) {
        launchPlain(result->browserId, targetName,
                    u"routeURL() — SUCCESS opened in "_s + targetName);
        return;
    }

    const QString profileID = *result->profileID;
    const QString browserID = result->browserId;
    const LaunchPlatform platform = m_state.launchPlatform();
    ProfileLauncher::open(m_plan.linkToOpen(), *browser, profileID, platform,
                          launchOptions(browserID, targetName, profileID, result->privateWindow))
        .then(this, [this, browserID, targetName,
                     profileID](const ProfileLauncher::Outcome &outcome) {
            if (outcome) {
                debugLog(DisplayText::escapeControls(
                    u"routeURL() — SUCCESS opened in %1 profile %2"_s.arg(targetName, profileID)));
                qCInfo(lcRoute).noquote() << u"Routed %1 → %2 (from: %3)"_s.arg(
                    SystemLog::priv(m_plan.working.toString()), SystemLog::priv(targetName),
                    SystemLog::priv(sourceName()));
                finish();
                return;
            }
            withdrawRecord();
            debugLog(DisplayText::escapeControls(
                u"routeURL() — ProfileLauncher failed: %1, falling back to BrowserLauncher"_s.arg(
                    outcome.error().description())));
            launchPlain(browserID, targetName,
                        u"routeURL() — SUCCESS opened in %1 (fallback)"_s.arg(targetName));
        });
}

void RouteTask::launchPlain(const QString &browserID, const QString &targetName,
                            const QString &successLine)
{
    const LaunchPlatform platform = m_state.launchPlatform();
    const bool privateWindow = m_plan.result && m_plan.result->privateWindow;
    BrowserLauncher::open(m_plan.linkToOpen(), browserID, m_state.browsers().all(), platform,
                          launchOptions(browserID, targetName, std::nullopt, privateWindow))
        .then(this, [this, browserID, targetName,
                     successLine](const BrowserLauncher::Outcome &outcome) {
            if (!outcome && m_plan.handoff && !m_state.fallbackBrowserId().isEmpty()) {
                // The app did not take the link: the web link still opens, in
                // the fallback browser, rather than being lost.
                withdrawRecord();
                debugLog(DisplayText::escapeControls(
                    u"routeURL() — handoff to %1 failed: %2; opening the web link in the fallback browser"_s
                        .arg(targetName, outcome.error().description())));
                m_plan.handoff.reset();
                m_plan.decision = RoutePlan::Decision::Fallback;
                m_plan.result = RouteResult{m_state.fallbackBrowserId(), std::nullopt};
                launch();
                return;
            }
            if (!outcome) {
                const QString error = outcome.error().description();
                failed(u"FAILED: "_s + error, u"routeURL() — FAILED: "_s + error,
                       u"Failed to open URL in %1: %2"_s.arg(SystemLog::priv(targetName),
                                                             SystemLog::priv(error)),
                       error);
                return;
            }
            debugLog(successLine);
            qCInfo(lcRoute).noquote() << u"Routed %1 → %2 (from: %3)"_s.arg(
                SystemLog::priv(m_plan.working.toString()), SystemLog::priv(targetName),
                SystemLog::priv(sourceName()));
            finish();
        });
}

void RouteTask::recordOpened(const QString &browserID, const QString &browserName,
                             const std::optional<QString> &profileID)
{
    ForwardingRecord record;
    record.id = QUuid::createUuid();
    record.timestamp = m_state.services().clock();
    record.originalURL = m_plan.received.toString();
    if (m_plan.source) {
        record.sourceAppId = m_plan.source->desktopId;
        record.sourceAppName = m_plan.source->name;
    }
    record.targetBrowserId = browserID;
    record.targetBrowserName = browserName;
    record.ruleMatched = m_plan.ruleMatched;
    record.decidedBy = m_plan.decidedBy();
    record.decisionDescription = m_plan.decision == RoutePlan::Decision::Handoff
                                     ? std::optional<QString>(u"Handoff: "_s + m_plan.handoff->name)
                                     : m_plan.ruleDescription;
    record.targetProfileID = profileID;
    HistoryStore::record(m_state.history().database(), record, m_ticket.entry);
    m_ticket.entry = 0;
    m_record = record.id;
    release();
}

void RouteTask::release()
{
    if (m_ticket.released)
        std::exchange(m_ticket.released, {})();
}

void RouteTask::withdrawRecord()
{
    if (m_record)
        HistoryStore::withdraw(m_state.history().database(), *m_record);
    m_record.reset();
}

void RouteTask::failed(const QString &statusText, const QString &diagnosticLine,
                       const QString &logLine, const QString &userText)
{
    withdrawRecord();
    m_reports.status(statusText);
    // Launch errors quote entries, folders and profiles: text from outside.
    debugLog(DisplayText::escapeControls(diagnosticLine));
    qCCritical(lcRoute).noquote() << logLine;
    LinkJournal::finish(m_state.history().database(), m_ticket.entry);
    m_reports.failure(hostOrText(m_plan.working), userText,
                      m_plan.result ? m_plan.result->browserId : QString());
    finish();
}

void RouteTask::finish()
{
    release();
    m_reports.finished();
    deleteLater();
}
