#include "Storage/RuleStore.h"

#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"

#include <QLocale>

RuleStore::RuleStore(QSettings &settings, Clock clock)
    : m_settings(settings)
    , m_clock(clock ? std::move(clock) : Clock([] { return QDateTime::currentDateTime(); }))
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

qint64 RuleStore::loadTodayCount()
{
    resetCountIfNeeded();
    return SettingsKeys::read(m_settings, SettingsKeys::TodayForwardCount);
}

qint64 RuleStore::incrementTodayCount()
{
    resetCountIfNeeded();
    const qint64 count = SettingsKeys::read(m_settings, SettingsKeys::TodayForwardCount) + 1;
    // Written now, put on disk when the link's route ends (see RouteTask): one
    // disk write then carries both the count and the history, after the
    // browser has the link rather than before.
    m_settings.setValue(SettingsKeys::TodayForwardCount.name, count);
    return count;
}

QString RuleStore::dayString(const QDateTime &instant)
{
    return QLocale::c().toString(instant.toLocalTime().date(), u"yyyy-MM-dd");
}

void RuleStore::resetCountIfNeeded()
{
    const QString today = dayString(m_clock());
    if (SettingsKeys::read(m_settings, SettingsKeys::TodayDate) == today)
        return;
    m_settings.setValue(SettingsKeys::TodayForwardCount.name, 0);
    m_settings.setValue(SettingsKeys::TodayDate.name, today);
    UserSettings::commit(m_settings);
}
