#pragma once

#include "Models/Link.h"
#include "Models/RoutingRule.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <memory>
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

struct Plan;

// A rule list made ready to match: the patterns' shapes worked out and the URL
// rules ordered. Made once per change of the rules and shared (also across
// threads) by every link routed over them; a plain list converts to one made
// for that call alone.
class CompiledRules final
{
public:
    CompiledRules(const QList<RoutingRule> &rules = {});

    const QList<RoutingRule> &rules() const;
    qsizetype size() const { return rules().size(); }
    const RoutingRule &operator[](qsizetype index) const { return rules()[index]; }

private:
    friend Decision decide(const Link &, const std::optional<SourceApp> &, const CompiledRules &,
                           const QString &, QStringList *);
    std::shared_ptr<const Plan> m_plan;
};

// trail: when given, receives the lines that tell how the decision was reached.
Decision decide(const Link &url, const std::optional<SourceApp> &source,
                const CompiledRules &rules, const QString &fallbackBrowserId,
                QStringList *trail = nullptr);

std::optional<RouteResult> route(const Link &url, const std::optional<SourceApp> &source,
                                 const CompiledRules &rules,
                                 const QString &fallbackBrowserId);

bool matchesPattern(const Link &url, QStringView pattern);

int domainSpecificity(QStringView pattern);

} // namespace URLRouter
