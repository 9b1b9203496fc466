#include "Automation/RuleActions.h"

#include "Models/JsonFields.h"
#include "Services/ProfileDiscovery.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace Automation {

namespace {

IntentError invalid(const QString &why)
{
    return IntentError{IntentError::Kind::ValidationFailed, why};
}

// Why the browser cannot open links in that profile; none when it can.
std::optional<QString> unknownProfile(const Target &target, const BrowserEntity &browser,
                                      const QString &profile)
{
    if (auto unusable = ProfileDiscovery::unusableProfileID(profile))
        return unusable;
    const QList<BrowserProfile> profiles = target.profiles(browser.id);
    if (std::any_of(profiles.cbegin(), profiles.cend(),
                    [&profile](const BrowserProfile &known) { return known.id == profile; }))
        return std::nullopt;
    if (profiles.isEmpty())
        return u"%1 has no profiles that Quillvane can open."_s.arg(browser.name);
    QStringList ids;
    for (const BrowserProfile &known : profiles)
        ids.append(u"%1 (%2)"_s.arg(known.id, known.name));
    return u"%1 has no profile \"%2\"; its profiles are: %3."_s.arg(
        browser.name, profile.left(200), ids.join(u", "_s));
}

std::optional<QString> profileName(const Target &target, const QString &browserID,
                                   const QString &profileID)
{
    for (const BrowserProfile &profile : target.profiles(browserID)) {
        if (profile.id == profileID)
            return profile.name;
    }
    return std::nullopt;
}

IntentError notSaved(const QString &why)
{
    return IntentError{IntentError::Kind::Refused, why};
}

} // namespace

Expected<QString, IntentError> createRule(Target &target, const RuleRequest &request,
                                          const BrowserEntity &targetBrowser)
{
    const bool hasSource = request.sourceAppId && !request.sourceAppId->isEmpty();
    const bool hasPattern = request.urlPattern && !request.urlPattern->isEmpty();
    if (!hasSource && !hasPattern)
        return invalid(u"Provide a source app bundle ID, a URL pattern, or both."_s);
    if (request.askWhereToOpen && (request.profile || request.privateWindow))
        return invalid(
            u"A rule that asks where to open links has no browser, so neither a profile nor a private window."_s);
    if (request.profile) {
        if (const auto why = unknownProfile(target, targetBrowser, *request.profile))
            return invalid(*why);
    }
    if (request.privateWindow && ProfileDiscovery::privateWindowFlag(targetBrowser.id).isEmpty())
        return invalid(u"Quillvane does not know how to open a private window of %1."_s.arg(
            targetBrowser.name));

    // Taken exactly as given: scripts say what they mean. An application given
    // without a name is named as the settings window names it: by its entry.
    std::optional<QString> sourceName = request.sourceAppName;
    if (!sourceName && hasSource) {
        sourceName = target.applicationName(*request.sourceAppId)
                         .value_or(*request.sourceAppId);
    }
    RoutingRule rule{QUuid::createUuid(),
                     request.sourceAppId.value_or(QString()),
                     sourceName.value_or(QString()),
                     request.askWhereToOpen ? QString() : targetBrowser.id,
                     request.askWhereToOpen ? RoutingRule::AskName.toString() : targetBrowser.name,
                     request.urlPattern,
                     request.profile};
    rule.openInPrivateWindow = request.privateWindow;
    rule.askWhereToOpen = request.askWhereToOpen;
    if (const auto why = target.save([&rule](Config &config) { config.rules.append(rule); }))
        return notSaved(*why);
    return QString(u"Created rule: "_s + RuleEntity::from(rule).summary);
}

Expected<QString, IntentError> deleteRule(Target &target, const RuleEntity &rule,
                                          const Confirm &confirm)
{
    if (!confirm(u"Delete rule \"%1\"?"_s.arg(rule.summary)))
        return IntentError{IntentError::Kind::Refused, u"The rule was not deleted."_s};
    const auto isIt = [&rule](const RoutingRule &candidate) {
        return JsonFields::uuidText(candidate.id) == rule.id;
    };
    const QList<RoutingRule> &rules = target.config().rules;
    if (std::none_of(rules.cbegin(), rules.cend(), isIt))
        return u"Rule not found. It may have already been deleted."_s;
    if (const auto why = target.save([&isIt](Config &config) { config.rules.removeIf(isIt); }))
        return notSaved(*why);
    return QString(u"Deleted rule: "_s + rule.summary);
}

QList<RuleOptions> ruleOptions(const Target &target)
{
    QList<RuleOptions> list;
    for (const RoutingRule &rule : target.config().rules) {
        if (!rule.targetProfileID && !rule.openInPrivateWindow)
            continue;
        list.append({JsonFields::uuidText(rule.id), rule.targetProfileID,
                     rule.targetProfileID
                         ? profileName(target, rule.targetBrowserId, *rule.targetProfileID)
                         : std::nullopt,
                     rule.openInPrivateWindow});
    }
    return list;
}

} // namespace Automation
