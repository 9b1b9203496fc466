#pragma once

#include "Models/RoutingRule.h"

#include <QList>
#include <QSettings>

// Persists the rules, the rule-engine switch and the fallback browser. No cache:
// every load reads the settings, every save writes them. (Today's forward count
// lives beside the history, which changes with every link: see HistoryStore.)
class RuleStore final
{
public:
    explicit RuleStore(QSettings &settings);

    QSettings &settings() const { return m_settings; }

    QList<RoutingRule> loadRules() const;
    void saveRules(const QList<RoutingRule> &rules);

    bool loadRulesEnabled() const;
    void saveRulesEnabled(bool enabled);

    QString loadDefaultBrowserBundleID() const;
    void saveDefaultBrowserBundleID(const QString &bundleID);

private:
    QSettings &m_settings;
};
