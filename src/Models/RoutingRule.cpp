#include "Models/RoutingRule.h"

#include "Models/JsonWriter.h"

#include <QHash>

using namespace Qt::Literals::StringLiterals;

namespace {
constexpr QLatin1StringView KeyId("id");
constexpr QLatin1StringView KeySourceAppBundleID("sourceAppBundleID");
constexpr QLatin1StringView KeySourceAppName("sourceAppName");
constexpr QLatin1StringView KeyTargetBrowserBundleID("targetBrowserBundleID");
constexpr QLatin1StringView KeyTargetBrowserName("targetBrowserName");
constexpr QLatin1StringView KeyUrlPattern("urlPattern");
constexpr QLatin1StringView KeyTargetProfileID("targetProfileID");
constexpr QLatin1StringView KeyOpenInPrivateWindow("openInPrivateWindow");
constexpr QLatin1StringView KeyAskWhereToOpen("askWhereToOpen");
} // namespace

RoutingRule::Kind RoutingRule::kind() const
{
    if (!sourceAppId.isEmpty())
        return urlPattern ? Kind::Combined : Kind::SourceOnly;
    return urlPattern ? Kind::UrlOnly : Kind::Inert;
}

QString RoutingRule::description() const
{
    QString text;
    if (!sourceAppId.isEmpty()) {
        text = sourceAppName;
        if (urlPattern)
            text += u" + " + *urlPattern;
        text += u" → " + targetBrowserName;
    } else if (urlPattern) {
        text = *urlPattern + u" → " + targetBrowserName;
    } else {
        text = u"→ " + targetBrowserName;
    }
    return text;
}

Expected<RoutingRule, DecodeError> RoutingRule::fromJson(const QJsonValue &value, qsizetype index)
{
    JsonFields::ObjectReader reader(value, "Rule"_L1, index);
    RoutingRule rule;
    rule.id = reader.requiredUuid(KeyId);
    rule.sourceAppId = reader.requiredString(KeySourceAppBundleID);
    rule.sourceAppName = reader.requiredString(KeySourceAppName);
    rule.targetBrowserId = reader.requiredString(KeyTargetBrowserBundleID);
    rule.targetBrowserName = reader.requiredString(KeyTargetBrowserName);
    rule.urlPattern = reader.optionalString(KeyUrlPattern);
    rule.targetProfileID = reader.optionalString(KeyTargetProfileID);
    rule.openInPrivateWindow = reader.optionalBool(KeyOpenInPrivateWindow);
    rule.askWhereToOpen = reader.optionalBool(KeyAskWhereToOpen);
    if (reader.hasError())
        return reader.error();
    return rule;
}

void RoutingRule::writeJson(JsonWriter &writer) const
{
    writer.beginObject();
    writer.member(KeyId, JsonFields::uuidText(id));
    writer.member(KeySourceAppBundleID, sourceAppId);
    writer.member(KeySourceAppName, sourceAppName);
    writer.member(KeyTargetBrowserBundleID, targetBrowserId);
    writer.member(KeyTargetBrowserName, targetBrowserName);
    writer.optionalMember(KeyUrlPattern, urlPattern);
    writer.optionalMember(KeyTargetProfileID, targetProfileID);
    writer.trueMember(KeyOpenInPrivateWindow, openInPrivateWindow);
    writer.trueMember(KeyAskWhereToOpen, askWhereToOpen);
    writer.endObject();
}

QByteArray RoutingRule::listToJson(const QList<RoutingRule> &rules)
{
    return JsonWriter::array(rules);
}

Expected<QList<RoutingRule>, DecodeError> RoutingRule::listFromJson(QByteArrayView utf8,
                                                                    QList<DecodeError> *skipped)
{
    return JsonFields::decodeArray<RoutingRule>(utf8, &RoutingRule::fromJson, skipped);
}

size_t qHash(const RoutingRule &rule, size_t seed)
{
    return qHashMulti(seed, rule.id, rule.sourceAppId, rule.sourceAppName,
                      rule.targetBrowserId, rule.targetBrowserName,
                      rule.urlPattern.value_or(QString()), rule.urlPattern.has_value(),
                      rule.targetProfileID.value_or(QString()), rule.targetProfileID.has_value(),
                      rule.openInPrivateWindow, rule.askWhereToOpen);
}
