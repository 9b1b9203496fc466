#include "Automation/RuleActions.h"

#include "App/AppState.h"
#include "Models/JsonFields.h"

using namespace Qt::Literals::StringLiterals;

namespace Automation {

Expected<QString, IntentError> createRule(const std::optional<QString> &sourceAppBundleID,
                                          const std::optional<QString> &sourceAppName,
                                          const std::optional<QString> &urlPattern,
                                          const BrowserEntity &targetBrowser)
{
    const auto state = sharedState();
    if (!state)
        return state.error();
    const bool hasSource = sourceAppBundleID && !sourceAppBundleID->isEmpty();
    const bool hasPattern = urlPattern && !urlPattern->isEmpty();
    if (!hasSource && !hasPattern)
        return IntentError{IntentError::Kind::ValidationFailed,
                           u"Provide a source app bundle ID, a URL pattern, or both."_s};

    // Taken exactly as given: scripts say what they mean.
    const RoutingRule rule{QUuid::createUuid(),
                           sourceAppBundleID.value_or(QString()),
                           sourceAppName.value_or(QString()),
                           targetBrowser.id,
                           targetBrowser.name,
                           urlPattern,
                           std::nullopt};
    (*state)->addRule(rule);
    return QString(u"Created rule: "_s + RuleEntity::from(rule).summary);
}

Expected<QString, IntentError> deleteRule(const RuleEntity &rule, const Confirm &confirm)
{
    const auto state = sharedState();
    if (!state)
        return state.error();
    if (!confirm(u"Delete rule \"%1\"?"_s.arg(rule.summary)))
        return IntentError{IntentError::Kind::Refused, u"The rule was not deleted."_s};
    const QList<RoutingRule> &rules = (*state)->rules();
    const auto found =
        std::find_if(rules.cbegin(), rules.cend(), [&rule](const RoutingRule &candidate) {
            return JsonFields::uuidText(candidate.id) == rule.id;
        });
    if (found == rules.cend())
        return u"Rule not found. It may have already been deleted."_s;
    (*state)->deleteRule(*found);
    return QString(u"Deleted rule: "_s + rule.summary);
}

Expected<QList<RuleEntity>, IntentError> listRules()
{
    return allRules();
}

} // namespace Automation
