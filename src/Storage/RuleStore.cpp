#include "Storage/RuleStore.h"

#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"

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
    m_settings.setValue(SettingsKeys::RoutingRules.name, RoutingRule::listToJson(rules));
    UserSettings::commit(m_settings);
}

bool RuleStore::loadRulesEnabled() const
{
    return SettingsKeys::read(m_settings, SettingsKeys::RulesEnabled);
}

void RuleStore::saveRulesEnabled(bool enabled)
{
    m_settings.setValue(SettingsKeys::RulesEnabled.name, enabled);
    UserSettings::commit(m_settings);
}

QString RuleStore::loadDefaultBrowserBundleID() const
{
    return SettingsKeys::read(m_settings, SettingsKeys::DefaultBrowserBundleID);
}

void RuleStore::saveDefaultBrowserBundleID(const QString &bundleID)
{
    m_settings.setValue(SettingsKeys::DefaultBrowserBundleID.name, bundleID);
    UserSettings::commit(m_settings);
}
