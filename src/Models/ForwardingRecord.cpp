#include "Models/ForwardingRecord.h"

#include "Models/JsonWriter.h"

using namespace Qt::Literals::StringLiterals;

namespace {
constexpr QLatin1StringView KeyId("id");
constexpr QLatin1StringView KeyTimestamp("timestamp");
constexpr QLatin1StringView KeyOriginalURL("originalURL");
constexpr QLatin1StringView KeySourceAppBundleID("sourceAppBundleID");
constexpr QLatin1StringView KeySourceAppName("sourceAppName");
constexpr QLatin1StringView KeyTargetBrowserBundleID("targetBrowserBundleID");
constexpr QLatin1StringView KeyTargetBrowserName("targetBrowserName");
constexpr QLatin1StringView KeyRuleMatched("ruleMatched");
constexpr QLatin1StringView KeyDecidedBy("decidedBy");
constexpr QLatin1StringView KeyDecisionDescription("decisionDescription");
constexpr QLatin1StringView KeyTargetProfileID("targetProfileID");
constexpr QStringView PausedCredit = u"⏸ Rules paused";
} // namespace

void ForwardingRecord::writeJson(JsonWriter &writer) const
{
    writer.beginObject();
    writer.member(KeyId, JsonFields::uuidText(id));
    writer.member(KeyTimestamp, JsonFields::referenceSeconds(timestamp));
    writer.member(KeyOriginalURL, originalURL);
    writer.optionalMember(KeySourceAppBundleID, sourceAppId);
    writer.optionalMember(KeySourceAppName, sourceAppName);
    writer.member(KeyTargetBrowserBundleID, targetBrowserId);
    writer.member(KeyTargetBrowserName, targetBrowserName);
    writer.optionalMember(KeyRuleMatched, ruleMatched);
    writer.optionalMember(KeyDecidedBy, decidedBy);
    writer.optionalMember(KeyDecisionDescription, decisionDescription);
    writer.optionalMember(KeyTargetProfileID, targetProfileID);
    writer.endObject();
}

Expected<ForwardingRecord, DecodeError> ForwardingRecord::fromJson(const QJsonValue &value,
                                                                   qsizetype index)
{
    JsonFields::ObjectReader reader(value, "History record"_L1, index);
    ForwardingRecord record;
    record.id = reader.requiredUuid(KeyId);
    record.timestamp = reader.requiredDate(KeyTimestamp);
    record.originalURL = reader.requiredString(KeyOriginalURL);
    record.sourceAppId = reader.optionalString(KeySourceAppBundleID);
    record.sourceAppName = reader.optionalString(KeySourceAppName);
    record.targetBrowserId = reader.requiredString(KeyTargetBrowserBundleID);
    record.targetBrowserName = reader.requiredString(KeyTargetBrowserName);
    record.ruleMatched = reader.optionalString(KeyRuleMatched);
    record.decidedBy = reader.optionalString(KeyDecidedBy);
    record.decisionDescription = reader.optionalString(KeyDecisionDescription);
    record.targetProfileID = reader.optionalString(KeyTargetProfileID);
    if (reader.hasError())
        return reader.error();
    return record;
}

bool ForwardingRecord::decidedByPause() const
{
    return decidedBy ? *decidedBy == DecidedByPause : ruleMatched == PausedCredit;
}

QString ForwardingRecord::decisionText() const
{
    if (decidedByPause())
        return u"Rules paused"_s;
    if (!decidedBy)
        return ruleMatched.value_or(QString());
    if (*decidedBy == DecidedByFallback)
        return u"Fallback"_s;
    if (*decidedBy == DecidedByAsking)
        return u"Asked"_s;
    if (*decidedBy == DecidedByRunning)
        return u"Running browser"_s;
    return decisionDescription.value_or(*decidedBy);
}

QByteArray ForwardingRecord::listToJson(const QList<ForwardingRecord> &records)
{
    return JsonWriter::array(records);
}

Expected<QList<ForwardingRecord>, DecodeError>
ForwardingRecord::listFromJson(QByteArrayView utf8, QList<DecodeError> *skipped)
{
    return JsonFields::decodeArray<ForwardingRecord>(utf8, &ForwardingRecord::fromJson, skipped);
}
