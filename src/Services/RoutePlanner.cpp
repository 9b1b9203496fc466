#include "Services/RoutePlanner.h"

#include "Models/ForwardingRecord.h"
#include "Models/JsonFields.h"
#include "Services/Handoffs.h"
#include "Services/URLCleaner.h"
#include "Services/URLExpander.h"
#include "Services/URLRouter.h"
#include "Services/URLUnwrapper.h"

using namespace Qt::Literals::StringLiterals;

std::optional<QString> RoutePlan::decidedBy() const
{
    switch (decision) {
    case Decision::Paused:
        return ForwardingRecord::DecidedByPause.toString();
    case Decision::Fallback:
        return ForwardingRecord::DecidedByFallback.toString();
    case Decision::Ask:
        return ForwardingRecord::DecidedByAsking.toString();
    case Decision::Handoff:
        return QString(ForwardingRecord::DecidedByHandoff.toString() + handoff->id);
    case Decision::RunningBrowser:
        return ForwardingRecord::DecidedByRunning.toString();
    case Decision::Combined:
    case Decision::SourceOnly:
    case Decision::UrlOnly:
        return ruleID ? std::optional(JsonFields::uuidText(*ruleID)) : std::nullopt;
    case Decision::Pending:
    case Decision::NoRoute:
        break;
    }
    return std::nullopt;
}

namespace RoutePlanner {

namespace {

std::optional<QString> creditedRule(const std::optional<SourceApp> &source,
                                    const QList<RoutingRule> &rules)
{
    if (!source)
        return std::nullopt;
    for (const RoutingRule &rule : rules) {
        if (!rule.sourceAppId.isEmpty()
            && rule.sourceAppId.compare(source->desktopId, Qt::CaseInsensitive) == 0)
            return rule.sourceAppName + u" → " + rule.targetBrowserName;
    }
    return std::nullopt;
}

RoutePlan::Decision fromRouter(URLRouter::Decision::Kind kind)
{
    using Kind = URLRouter::Decision::Kind;
    switch (kind) {
    case Kind::Combined:
        return RoutePlan::Decision::Combined;
    case Kind::SourceOnly:
        return RoutePlan::Decision::SourceOnly;
    case Kind::UrlOnly:
        return RoutePlan::Decision::UrlOnly;
    case Kind::Fallback:
        return RoutePlan::Decision::Fallback;
    case Kind::NoRoute:
        break;
    }
    return RoutePlan::Decision::NoRoute;
}

// The app of the link's service, when the desktop has one for its scheme.
std::optional<RoutePlan::AppHandoff> appFor(const Link &link, const RouteSettings &settings)
{
    const auto match = Handoffs::match(link);
    if (!match || !settings.schemeHandler)
        return std::nullopt;
    const auto app = settings.schemeHandler(match->handoff->scheme);
    if (!app)
        return std::nullopt;
    return RoutePlan::AppHandoff{match->handoff->id, match->handoff->name, *app, match->link};
}

} // namespace

RoutePlan prepare(const Link &received, const std::optional<SourceApp> &source,
                  const RouteSettings &settings, const RoutePolicy &policy)
{
    RoutePlan plan;
    plan.received = received;
    plan.unwrapped = settings.urlUnwrappingEnabled ? URLUnwrapper::unwrap(received) : received;
    plan.cleaned =
        settings.urlCleaningEnabled ? URLCleaner::clean(plan.unwrapped) : plan.unwrapped;
    plan.working = plan.cleaned;
    plan.source = source;
    if (policy.honourPause && !settings.rulesEnabled) {
        plan.decision = RoutePlan::Decision::Paused;
        if (!settings.fallbackBrowserId.isEmpty() || settings.fallbackAsks)
            plan.result = RouteResult{settings.fallbackBrowserId, std::nullopt, false,
                                      settings.fallbackAsks};
        plan.ruleMatched = u"⏸ Rules paused"_s;
        return plan;
    }
    const auto &isShortLink =
        settings.isShortLink ? settings.isShortLink : std::function(&URLExpander::isShortLink);
    plan.shortLink = settings.urlExpansionEnabled && isShortLink(plan.cleaned);
    return plan;
}

void expanded(RoutePlan &plan, const Link &target)
{
    plan.working = target;
}

RouteSettings settingsFor(const Config &config, URLRouter::CompiledRules compiled,
                          std::function<bool(const Link &)> isShortLink)
{
    RouteSettings settings{std::move(compiled),
                           config.fallbackBrowser,
                           config.rulesEnabled,
                           config.urlCleaningEnabled,
                           config.urlExpansionEnabled,
                           config.urlUnwrappingEnabled,
                           config.fallbackAsks,
                           std::move(isShortLink)};
    settings.handoffs = config.handoffs;
    settings.preferRunningBrowser = config.preferRunningBrowser;
    return settings;
}

void decide(RoutePlan &plan, const RouteSettings &settings, const RoutePolicy &policy)
{
    if (plan.decided())
        return;
    const URLRouter::Decision decision =
        URLRouter::decide(plan.working, plan.source, settings.rules,
                          settings.fallbackBrowserId, policy.trail ? &plan.trail : nullptr);
    plan.decision = fromRouter(decision.kind);
    plan.result = decision.result;
    plan.ruleMatched = creditedRule(plan.source, settings.rules.rules());
    // A rule that names a browser is the user's own choice for the link, and
    // holds; else the link goes to its service's app, where that is switched on.
    const bool ruleNamesBrowser = decision.ruleIndex >= 0 && plan.result && !plan.result->ask;
    if (policy.desktopChoices && !ruleNamesBrowser) {
        if (auto app = appFor(plan.working, settings)) {
            if (settings.handoffs.contains(app->id)) {
                if (policy.trail)
                    plan.trail.append(u"HANDOFF: %1 → %2 (%3)"_s.arg(
                        app->name, app->link.toString(), app->app.id));
                plan.decision = RoutePlan::Decision::Handoff;
                plan.result = RouteResult{app->app.id, std::nullopt};
                plan.ruleIndex = -1;
                plan.handoff = std::move(app);
                return;
            }
            plan.offeredHandoff = std::move(app);
        }
    }
    // "Ask" as the fallback: the user chooses, the fallback browser offered first.
    if (settings.fallbackAsks && policy.honourPause
        && (plan.decision == RoutePlan::Decision::Fallback
            || plan.decision == RoutePlan::Decision::NoRoute)) {
        plan.decision = RoutePlan::Decision::Ask;
        plan.result = RouteResult{settings.fallbackBrowserId, std::nullopt, false, true};
    }
    if (plan.result && !policy.keepProfile)
        plan.result->profileID.reset();
    plan.ruleIndex = decision.ruleIndex;
    if (decision.ruleIndex >= 0) {
        const RoutingRule &rule = settings.rules[decision.ruleIndex];
        plan.ruleID = rule.id;
        plan.ruleDescription = rule.description();
    }
    // The fallback browser gives way to one that runs, when it does not itself.
    if (plan.decision == RoutePlan::Decision::Fallback && policy.desktopChoices
        && settings.preferRunningBrowser && settings.runningBrowsers) {
        const QStringList running = settings.runningBrowsers();
        if (!running.isEmpty()
            && !running.contains(settings.fallbackBrowserId, Qt::CaseInsensitive)) {
            if (policy.trail)
                plan.trail.append(
                    u"RUNNING: %1 instead of the fallback %2, which does not run"_s.arg(
                        running.first(), settings.fallbackBrowserId));
            plan.decision = RoutePlan::Decision::RunningBrowser;
            plan.result = RouteResult{running.first(), std::nullopt};
        }
    }
}

bool leavesBrowser(const RoutePlan &plan, const QString &desktopId,
                   const std::optional<QString> &profile)
{
    using Decision = RoutePlan::Decision;
    const bool byRule = plan.decision == Decision::Combined
                        || plan.decision == Decision::SourceOnly
                        || plan.decision == Decision::UrlOnly;
    if (!byRule || !plan.result || plan.result->ask)
        return false;
    if (plan.result->browserId.compare(desktopId, Qt::CaseInsensitive) != 0)
        return true;
    // Another profile of this browser, when both are known: a browser whose
    // profile cannot be told is taken to be in the rule's, so nothing bounces.
    return profile && plan.result->profileID && *profile != *plan.result->profileID;
}

} // namespace RoutePlanner
