#pragma once

#include "Models/Expected.h"
#include "Models/JsonFields.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

class JsonWriter;

// One link that Quillvane opened: when, what, from where, to which browser and
// under which rule.
struct ForwardingRecord
{
    QUuid id;
    QDateTime timestamp;
    QString originalURL;
    std::optional<QString> sourceAppBundleID;
    std::optional<QString> sourceAppName;
    QString targetBrowserBundleID;
    QString targetBrowserName;
    std::optional<QString> ruleMatched;

    void writeJson(JsonWriter &writer) const;
    static Expected<ForwardingRecord, DecodeError> fromJson(const QJsonValue &value,
                                                            qsizetype index = 0);

    static QByteArray listToJson(const QList<ForwardingRecord> &records);
    // skipped: as JsonFields::decodeArray (keep the readable records).
    static Expected<QList<ForwardingRecord>, DecodeError>
    listFromJson(QByteArrayView utf8, QList<DecodeError> *skipped = nullptr);
};
