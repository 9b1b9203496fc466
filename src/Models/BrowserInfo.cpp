#include "Models/BrowserInfo.h"

#include <QHash>

using namespace Qt::Literals::StringLiterals;

namespace {
constexpr QLatin1StringView KeyBundleID("bundleID");
constexpr QLatin1StringView KeyName("name");
constexpr QLatin1StringView KeyPath("path");
constexpr QLatin1StringView KeyId("id");
constexpr QLatin1StringView KeyBrowserBundleID("browserBundleID");
} // namespace

QJsonObject BrowserInfo::toJson() const
{
    return QJsonObject{
        {KeyBundleID, bundleID}, {KeyName, name}, {KeyPath, path.toString(QUrl::FullyEncoded)}};
}

Expected<BrowserInfo, DecodeError> BrowserInfo::fromJson(const QJsonValue &value)
{
    JsonFields::ObjectReader reader(value, "Browser"_L1);
    BrowserInfo browser;
    browser.bundleID = reader.requiredString(KeyBundleID);
    browser.name = reader.requiredString(KeyName);
    browser.path = QUrl(reader.requiredString(KeyPath), QUrl::StrictMode);
    if (reader.hasError())
        return reader.error();
    if (!browser.path.isValid())
        return DecodeError{u"Browser has a member \"path\" that is not a valid URL."_s};
    return browser;
}

size_t qHash(const BrowserInfo &browser, size_t seed)
{
    return qHash(browser.bundleID, seed);
}

QJsonObject BrowserProfile::toJson() const
{
    return QJsonObject{{KeyId, id}, {KeyName, name}, {KeyBrowserBundleID, browserBundleID}};
}

Expected<BrowserProfile, DecodeError> BrowserProfile::fromJson(const QJsonValue &value)
{
    JsonFields::ObjectReader reader(value, "Profile"_L1);
    BrowserProfile profile;
    profile.id = reader.requiredString(KeyId);
    profile.name = reader.requiredString(KeyName);
    profile.browserBundleID = reader.requiredString(KeyBrowserBundleID);
    if (reader.hasError())
        return reader.error();
    return profile;
}

size_t qHash(const BrowserProfile &profile, size_t seed)
{
    return qHashMulti(seed, profile.id, profile.name, profile.browserBundleID);
}
