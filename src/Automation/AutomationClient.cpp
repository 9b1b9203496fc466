#include "Automation/AutomationClient.h"

#include "Models/BuildInfo.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDBusReply>

using namespace Qt::Literals::StringLiterals;
using namespace Automation;

namespace {

// Long enough for a browser that takes its time to start.
constexpr int CallTimeout = 30000;

AutomationClient::Failure notRunning()
{
    return {IntentError::appNotReady().description(), true};
}

bool meansNotRunning(const QString &errorName)
{
    return errorName == u"org.freedesktop.DBus.Error.ServiceUnknown"
           || errorName == u"org.freedesktop.DBus.Error.NameHasNoOwner"
           || errorName == u"org.freedesktop.DBus.Error.Disconnected";
}

} // namespace

AutomationClient::AutomationClient()
    : m_bus(QDBusConnection::sessionBus())
{
    registerDBusTypes();
}

template<typename T>
AutomationClient::Result<T> AutomationClient::call(const QString &method,
                                                   const QVariantList &arguments)
{
    if (!m_bus.isConnected())
        return notRunning();
    QDBusMessage message =
        QDBusMessage::createMethodCall(QString::fromUtf16(BuildInfo::AppId), BusNames::ObjectPath,
                                       BusNames::AutomationInterface, method);
    message.setArguments(arguments);
    message.setAutoStartService(false);
    const QDBusMessage reply = m_bus.call(message, QDBus::Block, CallTimeout);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        if (meansNotRunning(reply.errorName()))
            return notRunning();
        if (reply.errorName() == u"org.freedesktop.DBus.Error.NoReply")
            return Failure{u"Quillvane did not answer within %1 seconds."_s.arg(CallTimeout / 1000),
                           false};
        return Failure{reply.errorMessage(), false};
    }
    const QDBusReply<T> typed(reply);
    if (!typed.isValid())
        return Failure{u"Quillvane answered in a way this command does not understand: %1"_s.arg(
                           typed.error().message()),
                       false};
    return typed.value();
}

AutomationClient::Result<QList<BrowserEntity>> AutomationClient::listBrowsers()
{
    return call<QList<BrowserEntity>>(u"ListBrowsers"_s, {});
}

AutomationClient::Result<QList<BrowserEntity>> AutomationClient::browsers(const QStringList &ids)
{
    return call<QList<BrowserEntity>>(u"Browsers"_s, {ids});
}

AutomationClient::Result<QList<RuleEntity>> AutomationClient::listRules()
{
    return call<QList<RuleEntity>>(u"ListRules"_s, {});
}

AutomationClient::Result<QList<RuleEntity>> AutomationClient::rules(const QStringList &ids)
{
    return call<QList<RuleEntity>>(u"Rules"_s, {ids});
}

AutomationClient::Result<QMap<QString, QVariantMap>> AutomationClient::ruleOptions()
{
    return call<QMap<QString, QVariantMap>>(u"RuleOptions"_s, {});
}

AutomationClient::Result<QString> AutomationClient::createRule(const BrowserEntity &target,
                                                               const QVariantMap &options)
{
    return call<QString>(u"CreateRule"_s, {QVariant::fromValue(target), options});
}

AutomationClient::Result<QString> AutomationClient::deleteRule(const RuleEntity &rule)
{
    return call<QString>(u"DeleteRule"_s, {QVariant::fromValue(rule)});
}

AutomationClient::Result<QString> AutomationClient::routeURL(const QString &url)
{
    return call<QString>(u"RouteURL"_s, {url});
}

AutomationClient::Result<QString> AutomationClient::routeURL(const QString &url,
                                                             const BrowserEntity &browser)
{
    return call<QString>(u"RouteURLInBrowser"_s, {url, QVariant::fromValue(browser)});
}

AutomationClient::Result<QString> AutomationClient::setDefaultBrowser(const BrowserEntity &browser)
{
    return call<QString>(u"SetDefaultBrowser"_s, {QVariant::fromValue(browser)});
}

AutomationClient::Result<QString> AutomationClient::setFallbackToAsk()
{
    return call<QString>(u"SetFallbackToAsk"_s, {});
}

AutomationClient::Result<QString> AutomationClient::toggleFeature(const QString &feature,
                                                                  bool enabled)
{
    return call<QString>(u"ToggleFeature"_s, {feature, enabled});
}
