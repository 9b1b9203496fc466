#pragma once

#include "Automation/AutomationAdaptor.h"

#include <QDBusConnection>

// Calls the running instance's automation interface, without ever starting
// one: a script asking for the rules of a Quillvane that is not running gets
// "Quillvane is not running. Please launch the app first.", not a fresh
// instance.
class AutomationClient final
{
public:
    struct Failure
    {
        QString message;
        // Quillvane is not running (or the bus is gone).
        bool notRunning = false;
    };
    template<typename T> using Result = Expected<T, Failure>;

    AutomationClient();

    Result<QList<Automation::BrowserEntity>> listBrowsers();
    Result<QList<Automation::BrowserEntity>> browsers(const QStringList &ids);
    Result<QList<Automation::RuleEntity>> listRules();
    Result<QList<Automation::RuleEntity>> rules(const QStringList &ids);
    // By rule id: "profile", "profileName", "privateWindow" where a rule has them.
    Result<QMap<QString, QVariantMap>> ruleOptions();
    Result<QString> createRule(const Automation::BrowserEntity &target, const QVariantMap &options);
    Result<QString> deleteRule(const Automation::RuleEntity &rule);
    Result<QString> routeURL(const QString &url);
    Result<QString> routeURL(const QString &url, const Automation::BrowserEntity &browser);
    Result<QString> setDefaultBrowser(const Automation::BrowserEntity &browser);
    Result<QString> setFallbackToAsk();
    Result<QString> toggleFeature(const QString &feature, bool enabled);

private:
    template<typename T> Result<T> call(const QString &method, const QVariantList &arguments);

    QDBusConnection m_bus;
};
