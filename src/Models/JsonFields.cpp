#include "Models/JsonFields.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <cmath>

using namespace Qt::Literals::StringLiterals;

namespace JsonFields {

namespace {
// 2001-01-01T00:00:00Z in seconds since the Unix epoch.
constexpr qint64 ReferenceDateOffset = 978307200;
// About ±31,000 years: far beyond any real record, well inside QDateTime's range.
constexpr double MaxReferenceSeconds = 1e12;

bool isHex(QChar c)
{
    const char16_t u = c.unicode();
    return (u >= u'0' && u <= u'9') || (u >= u'a' && u <= u'f') || (u >= u'A' && u <= u'F');
}
} // namespace

QString uuidText(const QUuid &uuid)
{
    // Written by hand: toString() followed by toUpper() costs more than the rest of
    // a history record's encoding.
    static constexpr char16_t hex[] = u"0123456789ABCDEF";
    const QByteArray bytes = uuid.toRfc4122();
    QString text(36, Qt::Uninitialized);
    char16_t *out = reinterpret_cast<char16_t *>(text.data());
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            *out++ = u'-';
        const auto byte = uchar(bytes[i]);
        *out++ = hex[byte >> 4];
        *out++ = hex[byte & 0xf];
    }
    return text;
}

std::optional<QUuid> parseUuid(QStringView text)
{
    if (text.size() != 36)
        return std::nullopt;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != u'-' : !isHex(text[i]))
            return std::nullopt;
    }
    return QUuid::fromString(text);
}

double referenceSeconds(const QDateTime &instant)
{
    return double(instant.toMSecsSinceEpoch()) / 1000.0 - double(ReferenceDateOffset);
}

std::optional<QDateTime> fromReferenceSeconds(double seconds)
{
    if (!std::isfinite(seconds) || std::fabs(seconds) > MaxReferenceSeconds)
        return std::nullopt;
    const auto msecs =
        static_cast<qint64>(std::llround((seconds + double(ReferenceDateOffset)) * 1000.0));
    return QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC);
}

Expected<QJsonArray, DecodeError> parseArray(QByteArrayView utf8)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(utf8.toByteArray(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return DecodeError{
            u"The data is not valid JSON (%1 at offset %2)."_s.arg(parseError.errorString())
                .arg(parseError.offset)};
    }
    if (!document.isArray())
        return DecodeError{u"The data is not a JSON array."_s};
    return document.array();
}

ObjectReader::ObjectReader(const QJsonValue &value, QLatin1StringView kind, qsizetype index)
    : m_kind(kind)
    , m_index(index)
{
    if (!value.isObject())
        fail(u"is not a JSON object"_s);
    else
        m_object = value.toObject();
}

void ObjectReader::fail(QString description)
{
    if (m_error)
        return;
    const QString context = m_index < 0 ? QString(m_kind) : u"%1 %2"_s.arg(m_kind).arg(m_index + 1);
    m_error = DecodeError{context + u' ' + description + u'.'};
}

QString ObjectReader::requiredString(QLatin1StringView key)
{
    const QJsonValue value = m_object.value(key);
    if (value.isUndefined())
        fail(u"has no member \"%1\""_s.arg(key));
    else if (!value.isString())
        fail(u"has a member \"%1\" that is not a string"_s.arg(key));
    return value.toString();
}

std::optional<QString> ObjectReader::optionalString(QLatin1StringView key)
{
    const QJsonValue value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return std::nullopt;
    if (!value.isString()) {
        fail(u"has a member \"%1\" that is not a string"_s.arg(key));
        return std::nullopt;
    }
    return value.toString();
}

bool ObjectReader::optionalBool(QLatin1StringView key)
{
    const QJsonValue value = m_object.value(key);
    if (value.isUndefined() || value.isNull())
        return false;
    if (!value.isBool()) {
        fail(u"has a member \"%1\" that is not true or false"_s.arg(key));
        return false;
    }
    return value.toBool();
}

QUuid ObjectReader::requiredUuid(QLatin1StringView key)
{
    const QString text = requiredString(key);
    if (hasError())
        return {};
    const auto uuid = parseUuid(text);
    if (!uuid)
        fail(u"has a member \"%1\" that is not a valid UUID"_s.arg(key));
    return uuid.value_or(QUuid());
}

QDateTime ObjectReader::requiredDate(QLatin1StringView key)
{
    const QJsonValue value = m_object.value(key);
    if (value.isUndefined()) {
        fail(u"has no member \"%1\""_s.arg(key));
        return {};
    }
    if (!value.isDouble()) {
        fail(u"has a member \"%1\" that is not a number"_s.arg(key));
        return {};
    }
    const auto date = fromReferenceSeconds(value.toDouble());
    if (!date)
        fail(u"has a member \"%1\" that is out of range"_s.arg(key));
    return date.value_or(QDateTime());
}

} // namespace JsonFields
