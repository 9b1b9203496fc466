#include "Services/ConfigManager.h"

#include "Platform/SystemLog.h"
#include "Services/ConfigDocument.h"
#include "Services/Handoffs.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcConfigManager, "ConfigManager")

namespace ConfigManager {

namespace {

void appendString(QByteArray &out, const QString &text)
{
    // Compact JSON of one string, with slashes escaped as the document wants.
    const QByteArray quoted = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    out += quoted.sliced(1, quoted.size() - 2).replace("/", "\\/");
}

void appendValue(QByteArray &out, const QJsonValue &value, int indent)
{
    const QByteArray inner(indent + 2, ' ');
    switch (value.type()) {
    case QJsonValue::Object: {
        const QJsonObject object = value.toObject();
        if (object.isEmpty()) {
            out += "{}";
            return;
        }
        QStringList keys = object.keys();
        std::sort(keys.begin(), keys.end(),
                  [](const QString &a, const QString &b) { return a.toUtf8() < b.toUtf8(); });
        out += "{\n";
        for (qsizetype i = 0; i < keys.size(); ++i) {
            out += inner;
            appendString(out, keys[i]);
            out += " : ";
            appendValue(out, object.value(keys[i]), indent + 2);
            out += i + 1 < keys.size() ? ",\n" : "\n";
        }
        out += QByteArray(indent, ' ') + '}';
        return;
    }
    case QJsonValue::Array: {
        const QJsonArray array = value.toArray();
        if (array.isEmpty()) {
            out += "[]";
            return;
        }
        out += "[\n";
        for (qsizetype i = 0; i < array.size(); ++i) {
            out += inner;
            appendValue(out, array.at(i), indent + 2);
            out += i + 1 < array.size() ? ",\n" : "\n";
        }
        out += QByteArray(indent, ' ') + ']';
        return;
    }
    case QJsonValue::String:
        appendString(out, value.toString());
        return;
    case QJsonValue::Double: {
        const double number = value.toDouble();
        out += number == std::trunc(number) && std::fabs(number) < 9e15
                   ? QByteArray::number(qint64(number))
                   : QByteArray::number(number, 'g', 17);
        return;
    }
    case QJsonValue::Bool:
        out += value.toBool() ? "true" : "false";
        return;
    default:
        out += "null";
    }
}

// RFC 3339 internet date-time without fractional seconds.
std::optional<QDateTime> parseExportDate(const QString &text)
{
    static const QRegularExpression format(
        uR"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(Z|[+-]\d\d:\d\d)$)"_s);
    if (!format.match(text).hasMatch())
        return std::nullopt;
    const QDateTime date = QDateTime::fromString(text, Qt::ISODate);
    if (!date.isValid())
        return std::nullopt;
    return date.toUTC();
}

ConfigError decodingFailed(const QString &why)
{
    qCCritical(lcConfigManager).noquote() << u"Failed to decode config JSON: %1"_s.arg(why);
    return ConfigError{ConfigError::Kind::DecodingFailed, 0, why};
}

} // namespace

QString ConfigError::description() const
{
    switch (kind) {
    case Kind::UnsupportedVersion:
        return u"Unsupported config version: %1. This app supports version %2."_s.arg(version).arg(
            SupportedVersion);
    case Kind::EncodingFailed:
        return u"Failed to encode configuration: %1"_s.arg(underlying);
    case Kind::DecodingFailed:
        return u"Failed to decode configuration: %1"_s.arg(underlying);
    }
    return {};
}

ExportData exportConfig(const Config &config, const QDateTime &now)
{
    ExportData data;
    data.rules = config.rules;
    qCInfo(lcConfigManager).noquote() << u"Exporting config: %1 rule(s), default=%2"_s.arg(
        QString::number(data.rules.size()), SystemLog::priv(config.fallbackBrowser));
    data.exportDate = QDateTime::fromSecsSinceEpoch(now.toSecsSinceEpoch(), Qt::UTC);
    if (!config.fallbackBrowser.isEmpty())
        data.fallbackBrowserId = config.fallbackBrowser;
    data.urlCleaningEnabled = config.urlCleaningEnabled;
    data.fallbackAsks = config.fallbackAsks;
    if (!config.handoffs.isEmpty())
        data.handoffs = config.handoffs;
    if (!config.browserPreferences.isEmpty())
        data.browserPreferences = config.browserPreferences;
    return data;
}

void apply(const ExportData &data, Config &config)
{
    config.rules = data.rules;
    // A document from before browser settings existed leaves them alone.
    if (data.browserPreferences)
        config.browserPreferences = *data.browserPreferences;
    if (data.fallbackBrowserId) {
        config.fallbackBrowser = *data.fallbackBrowserId;
        config.fallbackAsks = false;
    }
    if (data.fallbackAsks)
        config.fallbackAsks = true;
    if (data.handoffs)
        config.handoffs = Handoffs::known(*data.handoffs);
    config.urlCleaningEnabled = data.urlCleaningEnabled;
}

QStringList describeChanges(const Config &before, const Config &after)
{
    QStringList lines;
    const auto onOff = [](bool on) { return on ? u"on"_s : u"off"_s; };
    const auto ruleLine = [](QStringView mark, const RoutingRule &rule) {
        QString line = u"  %1 %2"_s.arg(mark, rule.description());
        if (rule.targetProfileID)
            line += u"  [profile: %1]"_s.arg(*rule.targetProfileID);
        if (rule.openInPrivateWindow)
            line += u"  [private window]"_s;
        return line;
    };
    for (const RoutingRule &rule : before.rules) {
        if (!after.rules.contains(rule))
            lines.append(ruleLine(u"-", rule));
    }
    for (const RoutingRule &rule : after.rules) {
        if (!before.rules.contains(rule))
            lines.append(ruleLine(u"+", rule));
    }
    if (before.fallbackBrowser != after.fallbackBrowser)
        lines.append(u"  Fallback browser: %1 → %2"_s.arg(
            before.fallbackBrowser.isEmpty() ? u"none"_s : before.fallbackBrowser,
            after.fallbackBrowser.isEmpty() ? u"none"_s : after.fallbackBrowser));
    if (before.fallbackAsks != after.fallbackAsks)
        lines.append(u"  Ask Every Time: %1 → %2"_s.arg(onOff(before.fallbackAsks),
                                                         onOff(after.fallbackAsks)));
    if (before.urlCleaningEnabled != after.urlCleaningEnabled)
        lines.append(u"  URL Cleaning: %1 → %2"_s.arg(onOff(before.urlCleaningEnabled),
                                                       onOff(after.urlCleaningEnabled)));
    if (before.handoffs != after.handoffs)
        lines.append(u"  Handoffs: %1 → %2"_s.arg(
            before.handoffs.isEmpty() ? u"none"_s : before.handoffs.join(u", "_s),
            after.handoffs.isEmpty() ? u"none"_s : after.handoffs.join(u", "_s)));
    if (lines.isEmpty() && before.browserPreferences == after.browserPreferences)
        return lines;
    // How browsers will start, whether it changes or not: arguments and
    // profiles are where an imported file could do harm.
    QStringList launches;
    for (const BrowserPreference &preference : after.browserPreferences) {
        if (!preference.extraArguments.isEmpty())
            launches.append(u"  %1 starts with: %2"_s.arg(preference.browserId,
                                                         preference.extraArguments));
    }
    for (const RoutingRule &rule : after.rules) {
        if (rule.targetProfileID)
            launches.append(u"  %1 opens in profile %2"_s.arg(rule.description(),
                                                             *rule.targetProfileID));
    }
    if (!launches.isEmpty())
        lines += QStringList{u"How browsers will start:"_s} + launches;
    return lines;
}

QByteArray encode(const ExportData &data)
{
    // The rules in their one JSON form, as the settings store keeps them.
    const QJsonArray rules = QJsonDocument::fromJson(RoutingRule::listToJson(data.rules)).array();
    QJsonObject document{
        {u"version"_s, data.version},
        {u"exportDate"_s, data.exportDate.toUTC().toString(Qt::ISODate)},
        {u"rules"_s, rules},
        {u"urlCleaningEnabled"_s, data.urlCleaningEnabled},
    };
    if (data.fallbackBrowserId)
        document.insert(u"defaultBrowserBundleID"_s, *data.fallbackBrowserId);
    if (data.fallbackAsks)
        document.insert(u"fallbackAsks"_s, true);
    if (data.handoffs)
        document.insert(u"handoffs"_s, QJsonArray::fromStringList(*data.handoffs));
    if (data.browserPreferences)
        document.insert(u"browserPreferences"_s,
                        QJsonDocument::fromJson(
                            BrowserPreference::listToJson(*data.browserPreferences))
                            .array());
    QByteArray out;
    appendValue(out, document, 0);
    return out;
}

ExportData withoutLaunchSettings(ExportData data)
{
    data.browserPreferences.reset();
    for (RoutingRule &rule : data.rules) {
        rule.targetProfileID.reset();
        rule.openInPrivateWindow = false;
    }
    return data;
}

Expected<QByteArray, ConfigError> exportToJSON(const Config &config, const QDateTime &now)
{
    const QByteArray bytes = encode(exportConfig(config, now));
    qCInfo(lcConfigManager).noquote() << u"Encoded config to JSON (%1 bytes)"_s.arg(bytes.size());
    return bytes;
}

Expected<ExportData, ConfigError> importFromFile(const QString &path)
{
    QFile file(path);
    // Only a regular file: a FIFO would wait for a writer, a device never ends.
    const QFileInfo info(path);
    if (info.exists() && !info.isFile())
        return decodingFailed(u"%1 is not a regular file."_s.arg(path));
    if (info.size() > MaxDocumentBytes)
        return decodingFailed(
            u"the file is %1 bytes long; a configuration may have at most %2 bytes."_s.arg(
                QString::number(info.size()), QString::number(MaxDocumentBytes)));
    if (!file.open(QIODevice::ReadOnly))
        return decodingFailed(u"could not read %1: %2"_s.arg(path, file.errorString()));
    const QByteArray bytes = file.read(MaxDocumentBytes + 1);
    if (file.error() != QFileDevice::NoError)
        return decodingFailed(u"could not read %1: %2"_s.arg(path, file.errorString()));
    return importFromJSON(bytes);
}

Expected<ExportData, ConfigError> importFromJSON(QByteArrayView bytes)
{
    if (bytes.size() > MaxDocumentBytes)
        return decodingFailed(
            u"the file is longer than %1 bytes, more than a configuration may have."_s.arg(
                MaxDocumentBytes));
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes.toByteArray(), &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return decodingFailed(
            u"the file is not valid JSON (%1 at offset %2)."_s.arg(parseError.errorString())
                .arg(parseError.offset));
    if (!document.isObject())
        return decodingFailed(u"the file does not hold a JSON object."_s);
    const QJsonObject object = document.object();

    const QJsonValue version = object.value(u"version"_s);
    if (!version.isDouble() || version.toDouble() != std::trunc(version.toDouble())
        || std::fabs(version.toDouble()) > 9e15)
        return decodingFailed(u"the member \"version\" is missing or not an integer."_s);
    const QJsonValue exportDate = object.value(u"exportDate"_s);
    const auto date = exportDate.isString() ? parseExportDate(exportDate.toString()) : std::nullopt;
    if (!date)
        return decodingFailed(
            u"the member \"exportDate\" is missing or not an ISO 8601 date-time."_s);
    const QJsonValue fallback = object.value(u"defaultBrowserBundleID"_s);
    if (!fallback.isUndefined() && !fallback.isNull() && !fallback.isString())
        return decodingFailed(u"the member \"defaultBrowserBundleID\" is not a string."_s);
    const QJsonValue cleaning = object.value(u"urlCleaningEnabled"_s);
    if (!cleaning.isBool())
        return decodingFailed(
            u"the member \"urlCleaningEnabled\" is missing or not true or false."_s);
    ExportData data;
    auto rules = ConfigDocument::rulesFrom(object.value(u"rules"_s), u"rules"_s);
    if (!rules)
        return decodingFailed(rules.error());
    data.rules = std::move(rules).value();
    const QJsonValue asks = object.value(u"fallbackAsks"_s);
    if (!asks.isUndefined() && !asks.isNull() && !asks.isBool())
        return decodingFailed(u"the member \"fallbackAsks\" is not true or false."_s);
    data.fallbackAsks = asks.toBool(false);
    const QJsonValue handoffs = object.value(u"handoffs"_s);
    if (!handoffs.isUndefined() && !handoffs.isNull()) {
        const QJsonArray ids = handoffs.toArray();
        if (!handoffs.isArray() || std::any_of(ids.begin(), ids.end(), [](const QJsonValue &id) {
                return !id.isString();
            }))
            return decodingFailed(u"the member \"handoffs\" is not an array of texts."_s);
        data.handoffs = handoffs.toVariant().toStringList();
    }
    const QJsonValue preferences = object.value(u"browserPreferences"_s);
    if (!preferences.isUndefined() && !preferences.isNull()) {
        auto list = ConfigDocument::preferencesFrom(preferences, u"browserPreferences"_s);
        if (!list)
            return decodingFailed(list.error());
        data.browserPreferences = std::move(list).value();
    }
    data.version = qint64(version.toDouble());
    data.exportDate = *date;
    if (fallback.isString())
        data.fallbackBrowserId = fallback.toString();
    data.urlCleaningEnabled = cleaning.toBool();

    if (data.version < SupportedVersion) {
        qCCritical(lcConfigManager).noquote()
            << u"Config version %1 is invalid (< 1)"_s.arg(data.version);
        return ConfigError{ConfigError::Kind::UnsupportedVersion, data.version, {}};
    }
    if (data.version > SupportedVersion) {
        qCCritical(lcConfigManager).noquote()
            << u"Config version %1 is newer than supported version %2"_s.arg(data.version)
                   .arg(SupportedVersion);
        return ConfigError{ConfigError::Kind::UnsupportedVersion, data.version, {}};
    }
    qCInfo(lcConfigManager).noquote() << u"Imported config: version=%1, %2 rule(s)"_s.arg(
        QString::number(data.version), QString::number(data.rules.size()));
    return data;
}

} // namespace ConfigManager
