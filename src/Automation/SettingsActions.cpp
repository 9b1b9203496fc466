#include "Automation/SettingsActions.h"

#include "App/AppState.h"
#include "Services/BrowserLauncher.h"
#include "Services/RoutePlanner.h"
#include "Storage/LinkJournal.h"

using namespace Qt::Literals::StringLiterals;

namespace Automation {

namespace {

IntentError launchFailed(const BrowserLauncher::LaunchError &error)
{
    return IntentError{IntentError::Kind::LaunchFailed, error.description()};
}

// Answers with the launch's verdict; the link leaves the journal as soon as
// the browser runs with it, or when it could not be started.
QFuture<Answer> open(AppState &state, const Link &url, const QString &browserID,
                     bool privateWindow, const QString &success, qint64 journalEntry)
{
    const LaunchPlatform platform = state.launchPlatform();
    LaunchOptions options = state.launchOptions(browserID);
    options.privateWindow = privateWindow;
    auto pending = std::make_shared<qint64>(journalEntry);
    options.started = [pending, history = &state.history()] {
        LinkJournal::finish(*history, std::exchange(*pending, 0));
    };
    // Scripts start browsers at the same pace as links from applications.
    return state.launchTurn()
        .then(&state,
              [url, browserID, options, platform, state = &state] {
                  return BrowserLauncher::open(url, browserID, state->browsers(), platform,
                                               options);
              })
        .unwrap()
        .then([success, pending,
               history = &state.history()](const BrowserLauncher::Outcome &outcome) -> Answer {
            LinkJournal::finish(*history, *pending);
            if (!outcome)
                return launchFailed(outcome.error());
            return success;
        });
}

} // namespace

QFuture<Answer> routeURL(const Link &url, const std::optional<BrowserEntity> &browser,
                         qint64 journalEntry)
{
    const auto shared = sharedState();
    if (!shared)
        return QtFuture::makeReadyFuture<Answer>(shared.error());
    AppState &state = **shared;
    if (journalEntry == 0) {
        QList<LinkJournal::Entry> entries{{0, LinkJournal::Kind::Route, {}, url.toString(),
                                           std::nullopt, QString(),
                                           browser ? browser->id : QString(), false}};
        state.journal(entries);
        journalEntry = entries.first().id;
    }
    if (browser)
        return open(state, url, browser->id, false, u"Opened in %1."_s.arg(browser->name),
                    journalEntry);

    // A script's routing action opens the browser plainly, whatever pause says,
    // and does not wait for the network to expand a short link.
    const RouteSettings settings = state.routeSettings();
    const RoutePolicy policy = RoutePolicy::automation();
    RoutePlan plan = RoutePlanner::prepare(url, std::nullopt, settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    if (!plan.result) {
        LinkJournal::finish(state.history(), journalEntry);
        return QtFuture::makeReadyFuture<Answer>(
            u"No routing rule matched and no default browser is set."_s);
    }
    // A rule that asks where to open the link cannot ask a script: the
    // fallback browser opens it, as when no window can ask.
    QString browserID = plan.result->browserBundleID;
    if (plan.asks())
        browserID = state.defaultBrowserBundleID();
    if (browserID.isEmpty()) {
        LinkJournal::finish(state.history(), journalEntry);
        return QtFuture::makeReadyFuture<Answer>(IntentError{
            IntentError::Kind::ValidationFailed,
            u"The rule for this link asks where to open it, and no fallback browser is set: give the browser with --browser."_s});
    }
    // A rule that asks for a private window gets one here too: a script must
    // not open where the user asked for privacy.
    return open(state, plan.working, browserID, plan.result->privateWindow,
                u"Routed to %1."_s.arg(state.browserName(browserID)), journalEntry);
}

Answer setDefaultBrowser(const BrowserEntity &browser)
{
    const auto state = sharedState();
    if (!state)
        return state.error();
    (*state)->setDefaultBrowser(browser.id);
    return u"Default browser set to %1."_s.arg(browser.name);
}

Answer setFallbackToAsk()
{
    const auto state = sharedState();
    if (!state)
        return state.error();
    (*state)->setFallbackAsks();
    return u"Fallback set to Ask Every Time."_s;
}

Answer toggleFeature(Feature feature, bool enabled)
{
    const auto shared = sharedState();
    if (!shared)
        return shared.error();
    AppState &state = **shared;
    switch (feature) {
    case Feature::UrlCleaning:
        if (state.urlCleaningEnabled() != enabled)
            state.toggleURLCleaning();
        break;
    case Feature::UrlExpansion:
        if (state.urlExpansionEnabled() != enabled)
            state.toggleURLExpansion();
        break;
    case Feature::LaunchAtLogin:
        if (state.launchAtLogin() != enabled)
            state.toggleLaunchAtLogin();
        break;
    case Feature::UrlUnwrapping:
        if (state.urlUnwrappingEnabled() != enabled)
            state.toggleURLUnwrapping();
        break;
    case Feature::PreferRunningBrowser:
        if (state.preferRunningBrowser() != enabled)
            state.togglePreferRunningBrowser();
        break;
    case Feature::PauseRules:
        // On means paused.
        if (state.rulesEnabled() == enabled)
            state.toggleRulesEnabled();
        break;
    }
    QString title;
    for (const FeatureInfo &info : features()) {
        if (info.feature == feature)
            title = info.title.toString();
    }
    // Restates the request, whatever a failing launch-at-login switch did.
    return u"%1 is now %2."_s.arg(title, enabled ? u"enabled"_s : u"disabled"_s);
}

Expected<QList<BrowserEntity>, IntentError> listBrowsers()
{
    // A browser the user hid is left out of lists; its id still resolves.
    return allBrowsers(true);
}

} // namespace Automation
