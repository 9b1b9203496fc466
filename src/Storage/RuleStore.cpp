#include "Storage/RuleStore.h"

#include "Storage/SettingsKeys.h"

RuleStore::RuleStore(QSettings &settings)
    : m_settings(settings)
{}

QList<RoutingRule> RuleStore::loadRules() const
{
    m_damage.reset();
    const auto data = SettingsKeys::read(m_settings, SettingsKeys::RoutingRules);
    if (!data)
        return {};
    QList<DecodeError> skipped;
    auto rules = RoutingRule::listFromJson(*data, &skipped);
    if (!rules) {
        m_damage = Damage{-1, rules.error().description};
        return {};
    }
    if (!skipped.isEmpty())
        m_damage = Damage{skipped.size(), skipped.first().description};
    return std::move(rules).value();
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
