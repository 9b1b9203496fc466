#include "Automation/AutomationValues.h"

#include "Automation/AutomationTarget.h"
#include "Models/JsonFields.h"

#include <QSet>

using namespace Qt::Literals::StringLiterals;

namespace Automation {

namespace {

template<typename Entity> QList<Entity> keepIds(const QList<Entity> &all, const QStringList &ids)
{
    // A set: scripts may pass long lists.
    const QSet<QString> wanted(ids.cbegin(), ids.cend());
    QList<Entity> kept;
    std::copy_if(all.cbegin(), all.cend(), std::back_inserter(kept),
                 [&wanted](const Entity &entity) { return wanted.contains(entity.id); });
    return kept;
}

} // namespace

RuleEntity RuleEntity::from(const RoutingRule &rule)
{
    return RuleEntity{JsonFields::uuidText(rule.id), rule.description()};
}

const QList<FeatureInfo> &features()
{
    static const QList<FeatureInfo> list{
        {Feature::UrlCleaning, u"urlCleaning", u"URL Cleaning"},
        {Feature::UrlExpansion, u"urlExpansion", u"URL Expansion"},
        {Feature::LaunchAtLogin, u"launchAtLogin", u"Launch at Login"},
        {Feature::PauseRules, u"pauseRules", u"Pause Rules"},
        {Feature::UrlUnwrapping, u"urlUnwrapping", u"Redirect Unwrapping"},
        {Feature::PreferRunningBrowser, u"preferRunningBrowser", u"Prefer Running Browser"},
    };
    return list;
}

std::optional<Feature> featureFromRawValue(QStringView rawValue)
{
    for (const FeatureInfo &info : features()) {
        if (info.rawValue == rawValue)
            return info.feature;
    }
    return std::nullopt;
}

QString IntentError::description() const
{
    if (kind == Kind::AppNotReady)
        return u"Quillvane is not running. Please launch the app first."_s;
    return message;
}

QList<BrowserEntity> allBrowsers(const Target &target, bool shownOnly)
{
    QList<BrowserEntity> result;
    for (const BrowserInfo &browser : target.browsers(shownOnly))
        result.append(BrowserEntity::from(browser));
    return result;
}

QList<BrowserEntity> browsers(const Target &target, const QStringList &ids)
{
    return keepIds(allBrowsers(target), ids);
}

QList<RuleEntity> allRules(const Target &target)
{
    QList<RuleEntity> result;
    for (const RoutingRule &rule : target.config().rules)
        result.append(RuleEntity::from(rule));
    return result;
}

QList<RuleEntity> rules(const Target &target, const QStringList &ids)
{
    return keepIds(allRules(target), ids);
}

QString unknownBrowser(const QString &id)
{
    return u"no installed browser has the id \"%1\"; \"quillvane browsers\" lists them."_s.arg(
        id.left(200));
}

} // namespace Automation
