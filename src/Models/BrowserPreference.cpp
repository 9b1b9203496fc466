#include "Models/BrowserPreference.h"

#include "Models/JsonWriter.h"

using namespace Qt::Literals::StringLiterals;

namespace {
constexpr QLatin1StringView KeyBrowserBundleID("browserBundleID");
constexpr QLatin1StringView KeyHidden("hidden");
constexpr QLatin1StringView KeyExtraArguments("extraArguments");
} // namespace

void BrowserPreference::writeJson(JsonWriter &writer) const
{
    writer.beginObject();
    writer.member(KeyBrowserBundleID, browserId);
    writer.trueMember(KeyHidden, hidden);
    if (!extraArguments.isEmpty())
        writer.member(KeyExtraArguments, extraArguments);
    writer.endObject();
}

Expected<BrowserPreference, DecodeError> BrowserPreference::fromJson(const QJsonValue &value,
                                                                     qsizetype index)
{
    JsonFields::ObjectReader reader(value, "Browser preference"_L1, index);
    BrowserPreference preference;
    preference.browserId = reader.requiredString(KeyBrowserBundleID);
    preference.hidden = reader.optionalBool(KeyHidden);
    preference.extraArguments = reader.optionalString(KeyExtraArguments).value_or(QString());
    if (reader.hasError())
        return reader.error();
    return preference;
}

QByteArray BrowserPreference::listToJson(const QList<BrowserPreference> &preferences)
{
    return JsonWriter::array(preferences);
}

Expected<QList<BrowserPreference>, DecodeError>
BrowserPreference::listFromJson(QByteArrayView utf8, QList<DecodeError> *skipped)
{
    return JsonFields::decodeArray<BrowserPreference>(utf8, &BrowserPreference::fromJson, skipped);
}

BrowserPreference BrowserPreference::of(const QList<BrowserPreference> &preferences,
                                        const QString &desktopId)
{
    for (const BrowserPreference &preference : preferences) {
        if (preference.browserId.compare(desktopId, Qt::CaseInsensitive) == 0)
            return preference;
    }
    return BrowserPreference{desktopId, false, {}};
}
