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
    std::optional<QString> sourceAppId;
    std::optional<QString> sourceAppName;
    QString targetBrowserId;
    QString targetBrowserName;
    std::optional<QString> ruleMatched;
    // What decided where the link went: the deciding rule's id (as its JSON
    // writes it), or DecidedByFallback / DecidedByPause; with the rule's
    // description as it read then, and the profile the link opened in. Records
    // of older versions have none of these.
    std::optional<QString> decidedBy;
    std::optional<QString> decisionDescription;
    std::optional<QString> targetProfileID;

    static constexpr QStringView DecidedByFallback = u"fallback";
    static constexpr QStringView DecidedByPause = u"paused";
    // No rule decided; the user chose in the window that asks.
    static constexpr QStringView DecidedByAsking = u"asked";
    // The fallback browser did not run; a browser that did opened the link.
    static constexpr QStringView DecidedByRunning = u"running";
    // Followed by the handoff's id: the link went to its service's app.
    static constexpr QStringView DecidedByHandoff = u"handoff:";

    // What the history shows as the decision: the deciding rule's
    // description (or the handoff's), "Fallback", "Asked", "Running browser",
    // "Rules paused", or for older records
    // the credited rule. Empty when there is nothing to show.
    QString decisionText() const;
    bool decidedByPause() const;

    void writeJson(JsonWriter &writer) const;
    static Expected<ForwardingRecord, DecodeError> fromJson(const QJsonValue &value,
                                                            qsizetype index = 0);

    static QByteArray listToJson(const QList<ForwardingRecord> &records);
    // skipped: as JsonFields::decodeArray (keep the readable records).
    static Expected<QList<ForwardingRecord>, DecodeError>
    listFromJson(QByteArrayView utf8, QList<DecodeError> *skipped = nullptr);

    friend bool operator==(const ForwardingRecord &, const ForwardingRecord &) = default;
};
