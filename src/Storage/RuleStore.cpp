#include "Storage/RuleStore.h"

#include "Platform/SystemLog.h"
#include "Storage/SettingsKeys.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcRuleStore, "RuleStore")

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

QList<BrowserPreference> RuleStore::loadBrowserPreferences() const
{
    const auto data = SettingsKeys::read(m_settings, SettingsKeys::BrowserPreferences);
    if (!data)
        return {};
    QList<DecodeError> skipped;
    auto preferences = BrowserPreference::listFromJson(*data, &skipped);
    if (!preferences || !skipped.isEmpty())
        qCWarning(lcRuleStore).noquote()
            << u"Some browser settings could not be read and are left out: %1"_s.arg(
                   preferences ? skipped.first().description : preferences.error().description);
    return preferences ? std::move(preferences).value() : QList<BrowserPreference>();
}

void RuleStore::saveBrowserPreferences(const QList<BrowserPreference> &preferences)
{
    SettingsKeys::write(m_settings, SettingsKeys::BrowserPreferences,
                        BrowserPreference::listToJson(preferences));
}

QString RuleStore::loadDefaultBrowserBundleID() const
{
    return SettingsKeys::read(m_settings, SettingsKeys::DefaultBrowserBundleID);
}

void RuleStore::saveDefaultBrowserBundleID(const QString &bundleID)
{
    SettingsKeys::write(m_settings, SettingsKeys::DefaultBrowserBundleID, bundleID);
}
