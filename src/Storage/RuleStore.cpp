#include "Storage/RuleStore.h"

#include "Storage/SettingsKeys.h"

RuleStore::RuleStore(QSettings &settings)
    : m_settings(settings)
{}

QList<RoutingRule> RuleStore::loadRules() const
{
    const auto data = SettingsKeys::read(m_settings, SettingsKeys::RoutingRules);
    if (!data)
        return {};
    auto rules = RoutingRule::listFromJson(*data);
    return rules ? std::move(rules).value() : QList<RoutingRule>();
}

void RuleStore::saveRules(const QList<RoutingRule> &rules)
{
    SettingsKeys::write(m_settings, SettingsKeys::RoutingRules, RoutingRule::listToJson(rules));
}

bool RuleStore::loadRulesEnabled() const
{
    return SettingsKeys::read(m_settings, SettingsKeys::RulesEnabled);
}

void RuleStore::saveRulesEnabled(bool enabled)
{
    SettingsKeys::write(m_settings, SettingsKeys::RulesEnabled, enabled);
}

QString RuleStore::loadDefaultBrowserBundleID() const
{
    return SettingsKeys::read(m_settings, SettingsKeys::DefaultBrowserBundleID);
}

void RuleStore::saveDefaultBrowserBundleID(const QString &bundleID)
{
    SettingsKeys::write(m_settings, SettingsKeys::DefaultBrowserBundleID, bundleID);
}
