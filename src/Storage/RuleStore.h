#pragma once

#include "Models/BrowserPreference.h"
#include "Models/RoutingRule.h"

#include <QList>
#include <QSettings>

#include <optional>

// Persists the rules, the rule-engine switch and the fallback browser. No cache:
// every load reads the settings, every save writes them. (Today's forward count
// lives beside the history, which changes with every link: see HistoryStore.)
class RuleStore final
{
public:
    explicit RuleStore(QSettings &settings);

    QSettings &settings() const { return m_settings; }

    // The rules that can be read: a damaged one is left out, not the list.
    QList<RoutingRule> loadRules() const;
    // What the last loadRules() could not read: the number of rules left out
    // (-1: the whole list) and the first reason; none when all was read.
    struct Damage
    {
        qsizetype skipped;
        QString reason;
    };
    const std::optional<Damage> &lastLoadDamage() const { return m_damage; }
    void saveRules(const QList<RoutingRule> &rules);

    bool loadRulesEnabled() const;
    void saveRulesEnabled(bool enabled);

    // What the user set per browser; the readable entries of a damaged list.
    QList<BrowserPreference> loadBrowserPreferences() const;
    void saveBrowserPreferences(const QList<BrowserPreference> &preferences);

    QString loadDefaultBrowserBundleID() const;
    void saveDefaultBrowserBundleID(const QString &bundleID);

private:
    QSettings &m_settings;
    mutable std::optional<Damage> m_damage;
};
