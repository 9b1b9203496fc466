#pragma once

#include "Models/RoutingRule.h"

#include <QDateTime>
#include <QList>
#include <QSettings>

#include <functional>

// Persists the rules, the rule-engine switch, the fallback browser and today's
// forward count. No cache: every load reads the settings, every save writes them.
class RuleStore final
{
public:
    using Clock = std::function<QDateTime()>;

    explicit RuleStore(QSettings &settings, Clock clock = {});

    QSettings &settings() const { return m_settings; }

    QList<RoutingRule> loadRules() const;
    void saveRules(const QList<RoutingRule> &rules);

    bool loadRulesEnabled() const;
    void saveRulesEnabled(bool enabled);

    QString loadDefaultBrowserBundleID() const;
    void saveDefaultBrowserBundleID(const QString &bundleID);

    qint64 loadTodayCount();
    // The new count is in the settings at once; its caller syncs them.
    qint64 incrementTodayCount();

    // "yyyy-MM-dd" of a local date, whatever the user's locale and calendar.
    static QString dayString(const QDateTime &instant);

private:
    void resetCountIfNeeded();

    QSettings &m_settings;
    Clock m_clock;
};
