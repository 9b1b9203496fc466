#include "Models/BrowserPreference.h"

using namespace Qt::Literals::StringLiterals;

namespace {
constexpr QLatin1StringView KeyBrowserBundleID("browserBundleID");
constexpr QLatin1StringView KeyHidden("hidden");
constexpr QLatin1StringView KeyExtraArguments("extraArguments");
} // namespace

QJsonObject BrowserPreference::toJson() const
{
    QJsonObject object{{KeyBrowserBundleID, browserId}};
    if (hidden)
        object.insert(KeyHidden, true);
    if (!extraArguments.isEmpty())
        object.insert(KeyExtraArguments, extraArguments);
    return object;
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
