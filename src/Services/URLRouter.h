#pragma once

#include "Models/Link.h"
#include "Models/RoutingRule.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The rule engine: which browser, and which profile, opens a link. Pure
// functions; a decision tells how it was reached when asked for its trail.
namespace URLRouter {

// How a decision was reached, for those who explain it to the user.
struct Decision
{
    enum class Kind
    {
        Combined,
        SourceOnly,
        UrlOnly,
        Fallback,
        NoRoute
    };

    Kind kind = Kind::NoRoute;
    std::optional<RouteResult> result;
    // Position of the deciding rule in the list, or -1 for the fallback and no route.
    qsizetype ruleIndex = -1;
};

// trail: when given, receives the lines that tell how the decision was reached.
Decision decide(const Link &url, const std::optional<SourceApp> &source,
                const QList<RoutingRule> &rules, const QString &defaultBrowserBundleID,
                QStringList *trail = nullptr);

std::optional<RouteResult> route(const Link &url, const std::optional<SourceApp> &source,
                                 const QList<RoutingRule> &rules,
                                 const QString &defaultBrowserBundleID);

bool matchesPattern(const Link &url, QStringView pattern);

int domainSpecificity(QStringView pattern);

} // namespace URLRouter
