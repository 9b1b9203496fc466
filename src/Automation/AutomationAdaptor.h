#pragma once

#include "Automation/AutomationTarget.h"
#include "Automation/BusNames.h"

#include <QDBusAbstractAdaptor>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QVariantMap>

// The values travel as (ss) structures: id and name, id and summary.
QDBusArgument &operator<<(QDBusArgument &argument, const Automation::BrowserEntity &browser);
const QDBusArgument &operator>>(const QDBusArgument &argument, Automation::BrowserEntity &browser);
QDBusArgument &operator<<(QDBusArgument &argument, const Automation::RuleEntity &rule);
const QDBusArgument &operator>>(const QDBusArgument &argument, Automation::RuleEntity &rule);

namespace Automation {

// (raw value, title) of a feature, for callers that list them.
struct FeatureEntity
{
    QString rawValue;
    QString title;
};

// Registers the structures with the bus binding; needed before any call in
// either direction.
void registerDBusTypes();

// D-Bus error names for IntentError kinds.
QString dbusErrorName(IntentError::Kind kind);

} // namespace Automation

QDBusArgument &operator<<(QDBusArgument &argument, const Automation::FeatureEntity &feature);
const QDBusArgument &operator>>(const QDBusArgument &argument, Automation::FeatureEntity &feature);

Q_DECLARE_METATYPE(Automation::BrowserEntity)
Q_DECLARE_METATYPE(Automation::RuleEntity)
Q_DECLARE_METATYPE(Automation::FeatureEntity)

// work.vorpa.Quillvane.Automation on the instance's object: every automation
// action and query, one method each (data/dbus/work.vorpa.Quillvane.Automation.xml
// describes them). Each method checks what it is given, runs the action on the
// main thread and answers with the action's sentence or its error.
class AutomationAdaptor final : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "work.vorpa.Quillvane.Automation")

public:
    // parent: the object published on the bus; target: what the actions change.
    AutomationAdaptor(QObject *parent, const QDBusConnection &connection,
                      Automation::Target &target);

public Q_SLOTS:
    QList<Automation::BrowserEntity> ListBrowsers();
    QList<Automation::BrowserEntity> Browsers(const QStringList &ids);
    QList<Automation::RuleEntity> ListRules();
    QList<Automation::RuleEntity> Rules(const QStringList &ids);
    QString CreateRule(const Automation::BrowserEntity &target_browser, const QVariantMap &options,
                       const QDBusMessage &message);
    QString DeleteRule(const Automation::RuleEntity &rule, const QDBusMessage &message);
    QString RouteURL(const QString &url, const QDBusMessage &message);
    QString RouteURLInBrowser(const QString &url, const Automation::BrowserEntity &browser,
                              const QDBusMessage &message);
    QString SetDefaultBrowser(const Automation::BrowserEntity &browser,
                              const QDBusMessage &message);
    QString ToggleFeature(const QString &feature, bool enabled, const QDBusMessage &message);
    QString SetFallbackToAsk(const QDBusMessage &message);
    QList<Automation::FeatureEntity> ListFeatures();
    QMap<QString, QVariantMap> RuleOptions();
    QString ConfigPath();
    QString CheckConfig(const QString &path, const QDBusMessage &message);
    QString ExportConfig();
    QString ImportConfig(const QString &document, const QDBusMessage &message);
    QString SetHandoff(const QString &handoff, bool enabled, const QDBusMessage &message);
    QList<QVariantMap> ListHandoffs();

private:
    template<typename T>
    T answer(Expected<T, Automation::IntentError> result, const QDBusMessage &message);
    void refuse(const QDBusMessage &message, const QString &errorName, const QString &text);
    QString route(const QString &url, const std::optional<Automation::BrowserEntity> &browser,
                  const QDBusMessage &message);

    QDBusConnection m_connection;
    Automation::Target &m_target;
};
