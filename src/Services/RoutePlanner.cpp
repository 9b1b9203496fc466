#include "Services/RoutePlanner.h"

#include "Models/ForwardingRecord.h"
#include "Models/JsonFields.h"
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
        if (!rule.sourceAppBundleID.isEmpty()
            && rule.sourceAppBundleID.compare(source->bundleID, Qt::CaseInsensitive) == 0)
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
        if (!settings.defaultBrowserBundleID.isEmpty() || settings.fallbackAsks)
            plan.result = RouteResult{settings.defaultBrowserBundleID, std::nullopt, false,
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

void decide(RoutePlan &plan, const RouteSettings &settings, const RoutePolicy &policy)
{
    if (plan.decided())
        return;
    const URLRouter::Decision decision =
        URLRouter::decide(plan.working, plan.source, settings.rules,
                          settings.defaultBrowserBundleID, policy.trail ? &plan.trail : nullptr);
    plan.decision = fromRouter(decision.kind);
    plan.result = decision.result;
    // "Ask" as the fallback: the user chooses, the fallback browser offered first.
    if (settings.fallbackAsks && policy.honourPause
        && (plan.decision == RoutePlan::Decision::Fallback
            || plan.decision == RoutePlan::Decision::NoRoute)) {
        plan.decision = RoutePlan::Decision::Ask;
        plan.result = RouteResult{settings.defaultBrowserBundleID, std::nullopt, false, true};
    }
    if (plan.result && !policy.keepProfile)
        plan.result->profileID.reset();
    plan.ruleIndex = decision.ruleIndex;
    if (decision.ruleIndex >= 0) {
        const RoutingRule &rule = settings.rules[decision.ruleIndex];
        plan.ruleID = rule.id;
        plan.ruleDescription = rule.description();
    }
    plan.ruleMatched = creditedRule(plan.source, settings.rules);
}

} // namespace RoutePlanner
