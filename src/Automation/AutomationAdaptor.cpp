#include "Automation/AutomationAdaptor.h"

#include "Automation/RuleActions.h"
#include "Automation/SettingsActions.h"

#include <QDBusMetaType>
#include <QFuture>

using namespace Qt::Literals::StringLiterals;

namespace {

// Every value here is a pair of strings.
QDBusArgument &writePair(QDBusArgument &argument, const QString &first, const QString &second)
{
    argument.beginStructure();
    argument << first << second;
    argument.endStructure();
    return argument;
}

const QDBusArgument &readPair(const QDBusArgument &argument, QString &first, QString &second)
{
    argument.beginStructure();
    argument >> first >> second;
    argument.endStructure();
    return argument;
}

} // namespace

QDBusArgument &operator<<(QDBusArgument &argument, const Automation::BrowserEntity &browser)
{
    return writePair(argument, browser.id, browser.name);
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Automation::BrowserEntity &browser)
{
    return readPair(argument, browser.id, browser.name);
}

QDBusArgument &operator<<(QDBusArgument &argument, const Automation::RuleEntity &rule)
{
    return writePair(argument, rule.id, rule.summary);
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Automation::RuleEntity &rule)
{
    return readPair(argument, rule.id, rule.summary);
}

QDBusArgument &operator<<(QDBusArgument &argument, const Automation::FeatureEntity &feature)
{
    return writePair(argument, feature.rawValue, feature.title);
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Automation::FeatureEntity &feature)
{
    return readPair(argument, feature.rawValue, feature.title);
}

namespace Automation {

void registerDBusTypes()
{
    qDBusRegisterMetaType<BrowserEntity>();
    qDBusRegisterMetaType<QList<BrowserEntity>>();
    qDBusRegisterMetaType<RuleEntity>();
    qDBusRegisterMetaType<QList<RuleEntity>>();
    qDBusRegisterMetaType<FeatureEntity>();
    qDBusRegisterMetaType<QList<FeatureEntity>>();
    qDBusRegisterMetaType<QMap<QString, QVariantMap>>();
    qDBusRegisterMetaType<QList<QVariantMap>>();
}

QString dbusErrorName(IntentError::Kind kind)
{
    switch (kind) {
    case IntentError::Kind::ValidationFailed:
        return BusNames::Error::ValidationFailed;
    case IntentError::Kind::AppNotReady:
        return BusNames::Error::AppNotReady;
    case IntentError::Kind::Refused:
        return BusNames::Error::Refused;
    case IntentError::Kind::LaunchFailed:
        return BusNames::Error::LaunchFailed;
    }
    return BusNames::Error::Failed;
}

} // namespace Automation

using namespace Automation;

namespace {

const QString InvalidArgs = u"org.freedesktop.DBus.Error.InvalidArgs"_s;

constexpr qsizetype MaxTextLength = RoutingRule::MaxTextLength;

std::optional<QString> badText(const QString &what, const QString &text, bool required)
{
    if (required && text.isEmpty())
        return u"%1 is empty."_s.arg(what);
    if (text.size() > MaxTextLength)
        return u"%1 is too long (%2 characters; at most %3)."_s.arg(
            what, QString::number(text.size()), QString::number(MaxTextLength));
    return std::nullopt;
}

std::optional<QString> badBrowser(const BrowserEntity &browser)
{
    if (auto bad = badText(u"The browser id"_s, browser.id, true))
        return bad;
    return badText(u"The browser name"_s, browser.name, false);
}

// An entity that names a browser must name an installed one, as the entity
// query lists them; the bus hands over any pair of strings.
std::optional<QString> notInstalled(const Target &target, const BrowserEntity &browser)
{
    if (auto bad = badBrowser(browser))
        return bad;
    if (browsers(target, {browser.id}).isEmpty())
        return unknownBrowser(browser.id);
    return std::nullopt;
}

} // namespace

AutomationAdaptor::AutomationAdaptor(QObject *parent, const QDBusConnection &connection,
                                     Target &target)
    : QDBusAbstractAdaptor(parent)
    , m_connection(connection)
    , m_target(target)
{
    registerDBusTypes();
}

void AutomationAdaptor::refuse(const QDBusMessage &message, const QString &errorName,
                               const QString &text)
{
    message.setDelayedReply(true);
    m_connection.send(message.createErrorReply(errorName, text));
}

template<typename T>
T AutomationAdaptor::answer(Expected<T, IntentError> result, const QDBusMessage &message)
{
    if (result)
        return std::move(result).value();
    refuse(message, dbusErrorName(result.error().kind), result.error().description());
    return {};
}

QList<BrowserEntity> AutomationAdaptor::ListBrowsers()
{
    return listBrowsers(m_target);
}

QList<BrowserEntity> AutomationAdaptor::Browsers(const QStringList &ids)
{
    return browsers(m_target, ids);
}

QList<RuleEntity> AutomationAdaptor::ListRules()
{
    return allRules(m_target);
}

QList<RuleEntity> AutomationAdaptor::Rules(const QStringList &ids)
{
    return rules(m_target, ids);
}

QString AutomationAdaptor::CreateRule(const BrowserEntity &target_browser,
                                      const QVariantMap &options, const QDBusMessage &message)
{
    RuleRequest request;
    const std::pair<QString, std::optional<QString> RuleRequest::*> texts[] = {
        {u"sourceAppBundleID"_s, &RuleRequest::sourceAppId},
        {u"sourceAppName"_s, &RuleRequest::sourceAppName},
        {u"urlPattern"_s, &RuleRequest::urlPattern},
        {u"profile"_s, &RuleRequest::profile}};
    for (auto it = options.cbegin(); it != options.cend(); ++it) {
        if (it.key() == u"privateWindow" || it.key() == u"askWhereToOpen") {
            if (it.value().metaType() != QMetaType::fromType<bool>()) {
                refuse(message, InvalidArgs,
                       u"The option %1 must be a boolean."_s.arg(it.key()));
                return {};
            }
            (it.key() == u"privateWindow" ? request.privateWindow : request.askWhereToOpen) =
                it.value().toBool();
            continue;
        }
        const auto text = std::find_if(std::cbegin(texts), std::cend(texts),
                                       [&it](const auto &known) { return known.first == it.key(); });
        if (text == std::cend(texts)) {
            refuse(
                message, InvalidArgs,
                u"Unknown option \"%1\": a rule takes sourceAppBundleID, sourceAppName, urlPattern, profile, privateWindow and askWhereToOpen."_s
                    .arg(it.key().left(80)));
            return {};
        }
        if (it.value().metaType() != QMetaType::fromType<QString>()) {
            refuse(message, InvalidArgs, u"The option %1 must be a string."_s.arg(it.key()));
            return {};
        }
        const QString value = it.value().toString();
        if (const auto bad = badText(u"The option "_s + it.key(), value, false)) {
            refuse(message, InvalidArgs, *bad);
            return {};
        }
        request.*(text->second) = value;
    }
    // A rule that asks names no browser; any other names an installed one.
    if (!request.askWhereToOpen) {
        if (const auto bad = notInstalled(m_target, target_browser)) {
            refuse(message, InvalidArgs, *bad);
            return {};
        }
    }
    return answer(createRule(m_target, request, target_browser), message);
}

QString AutomationAdaptor::DeleteRule(const RuleEntity &rule, const QDBusMessage &message)
{
    // The caller has asked the user already: a D-Bus method cannot.
    return answer(deleteRule(m_target, rule, [](const QString &) { return true; }), message);
}

QString AutomationAdaptor::route(const QString &url, const std::optional<BrowserEntity> &browser,
                                 const QDBusMessage &message)
{
    if (browser) {
        if (const auto bad = badBrowser(*browser)) {
            refuse(message, InvalidArgs, *bad);
            return {};
        }
    }
    const auto link = Link::parseWebLink(url);
    if (!link) {
        refuse(message, InvalidArgs, link.error().description);
        return {};
    }
    // The browser's answer comes later; the main thread goes on meanwhile.
    message.setDelayedReply(true);
    m_target.routeURL(*link, browser).then(this, [this, message](const Answer &result) {
        if (result)
            m_connection.send(message.createReply(*result));
        else
            m_connection.send(message.createErrorReply(dbusErrorName(result.error().kind),
                                                       result.error().description()));
    });
    return {};
}

QString AutomationAdaptor::RouteURL(const QString &url, const QDBusMessage &message)
{
    return route(url, std::nullopt, message);
}

QString AutomationAdaptor::RouteURLInBrowser(const QString &url, const BrowserEntity &browser,
                                             const QDBusMessage &message)
{
    return route(url, browser, message);
}

QString AutomationAdaptor::SetDefaultBrowser(const BrowserEntity &browser,
                                             const QDBusMessage &message)
{
    if (const auto bad = notInstalled(m_target, browser)) {
        refuse(message, InvalidArgs, *bad);
        return {};
    }
    return answer(setDefaultBrowser(m_target, browser), message);
}

QString AutomationAdaptor::ToggleFeature(const QString &feature, bool enabled,
                                         const QDBusMessage &message)
{
    const auto known = featureFromRawValue(feature);
    if (!known) {
        QStringList names;
        for (const FeatureInfo &info : features())
            names.append(info.rawValue.toString());
        refuse(message, InvalidArgs,
               u"There is no feature named \"%1\". The features are: %2."_s.arg(
                   feature.left(80), names.join(u", "_s)));
        return {};
    }
    return answer(toggleFeature(m_target, *known, enabled), message);
}

QString AutomationAdaptor::SetFallbackToAsk(const QDBusMessage &message)
{
    return answer(setFallbackToAsk(m_target), message);
}

QMap<QString, QVariantMap> AutomationAdaptor::RuleOptions()
{
    QMap<QString, QVariantMap> map;
    for (const Automation::RuleOptions &rule : ruleOptions(m_target)) {
        QVariantMap values;
        if (rule.profile)
            values.insert(u"profile"_s, *rule.profile);
        if (rule.profileName)
            values.insert(u"profileName"_s, *rule.profileName);
        values.insert(u"privateWindow"_s, rule.privateWindow);
        map.insert(rule.id, values);
    }
    return map;
}

QList<FeatureEntity> AutomationAdaptor::ListFeatures()
{
    QList<FeatureEntity> list;
    for (const FeatureInfo &info : features())
        list.append({info.rawValue.toString(), info.title.toString()});
    return list;
}

QString AutomationAdaptor::ConfigPath()
{
    return m_target.configPath();
}

QString AutomationAdaptor::CheckConfig(const QString &path, const QDBusMessage &message)
{
    return answer(checkConfig(m_target, path), message);
}

QString AutomationAdaptor::ExportConfig()
{
    return exportConfig(m_target);
}

QString AutomationAdaptor::ImportConfig(const QString &document, const QDBusMessage &message)
{
    return answer(importConfig(m_target, document.toUtf8()), message);
}

QString AutomationAdaptor::SetHandoff(const QString &handoff, bool enabled,
                                      const QDBusMessage &message)
{
    return answer(setHandoff(m_target, handoff, enabled), message);
}

QList<QVariantMap> AutomationAdaptor::ListHandoffs()
{
    return handoffs(m_target);
}
