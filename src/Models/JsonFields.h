#pragma once

#include "Models/Expected.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QUuid>

#include <optional>

// Why a stored or imported JSON document could not be read.
struct DecodeError
{
    QString description;
};

// The JSON conventions shared by rules, history and the configuration document:
// upper-case UUIDs, dates as seconds since 2001-01-01 00:00:00 UTC, optional members
// omitted when absent and read as absent when missing or null.
namespace JsonFields {

QString uuidText(const QUuid &uuid);
// Only the 36-character 8-4-4-4-12 form, in either case.
std::optional<QUuid> parseUuid(QStringView text);

double referenceSeconds(const QDateTime &instant);
std::optional<QDateTime> fromReferenceSeconds(double seconds);

Expected<QJsonArray, DecodeError> parseArray(QByteArrayView utf8);

// Reads the members of one JSON object; the first problem is kept and fails the
// whole document.
class ObjectReader final
{
public:
    // kind and index name the object in error messages ("Rule 3").
    ObjectReader(const QJsonValue &value, QLatin1StringView kind, qsizetype index = -1);

    QString requiredString(QLatin1StringView key);
    std::optional<QString> optionalString(QLatin1StringView key);
    // False when missing or null.
    bool optionalBool(QLatin1StringView key);
    QUuid requiredUuid(QLatin1StringView key);
    QDateTime requiredDate(QLatin1StringView key);

    bool hasError() const { return m_error.has_value(); }
    DecodeError error() const { return *m_error; }

private:
    void fail(QString description);

    QJsonObject m_object;
    QLatin1StringView m_kind;
    qsizetype m_index;
    std::optional<DecodeError> m_error;
};

// Decodes every element of an array with decodeOne. The first failure fails
// all, unless skipped is given: then each failing element is left out and its
// error appended there.
template<typename T, typename DecodeOne>
Expected<QList<T>, DecodeError> decodeArray(QByteArrayView utf8, DecodeOne decodeOne,
                                            QList<DecodeError> *skipped = nullptr)
{
    auto array = parseArray(utf8);
    if (!array)
        return array.error();
    QList<T> result;
    result.reserve(array->size());
    for (qsizetype i = 0; i < array->size(); ++i) {
        Expected<T, DecodeError> item = decodeOne(array->at(i), i);
        if (!item && skipped) {
            skipped->append(item.error());
            continue;
        }
        if (!item)
            return item.error();
        result.append(std::move(item).value());
    }
    return result;
}

} // namespace JsonFields
