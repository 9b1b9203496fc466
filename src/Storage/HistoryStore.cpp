#include "Storage/HistoryStore.h"

#include "Models/JsonWriter.h"
#include "Platform/SystemLog.h"
#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcHistoryStore, "HistoryStore")

namespace HistoryStore {

namespace {

// The history as last written or read: its records, the bytes they are stored as
// and where each record starts in those bytes (unknown after a plain decode).
// Every routed link reads the history it wrote a moment ago and adds one record
// at the front; keeping this lets it skip decoding and re-encoding 500 records,
// which would cost more than everything else in recording. Keyed by content, so
// a history changed by anyone else is decoded afresh. Main thread only.
struct EncodedHistory
{
    QByteArray bytes;
    QList<ForwardingRecord> records;
    QList<qsizetype> starts;
};

EncodedHistory &lastHistory()
{
    static EncodedHistory history{QByteArrayLiteral("[]"), {}, {}};
    return history;
}

EncodedHistory encoded(const QList<ForwardingRecord> &records)
{
    EncodedHistory history;
    JsonWriter writer;
    writer.beginArray();
    for (const ForwardingRecord &record : records) {
        history.starts.append(writer.size() + (history.starts.isEmpty() ? 0 : 1));
        record.writeJson(writer);
    }
    writer.endArray();
    history.bytes = writer.take();
    history.records = records;
    return history;
}

// The history with entry in front and at most MaxRecords records, built from the
// previous bytes without encoding them again.
EncodedHistory prepended(const EncodedHistory &previous, const ForwardingRecord &entry)
{
    const qsizetype keep = std::min(previous.records.size(), MaxRecords - 1);
    if (previous.starts.size() != previous.records.size()) {
        QList<ForwardingRecord> records = previous.records.first(keep);
        records.prepend(entry);
        return encoded(records);
    }
    JsonWriter writer;
    entry.writeJson(writer);
    EncodedHistory history;
    history.bytes.reserve(previous.bytes.size() + writer.size() + 2);
    history.bytes += '[';
    history.bytes += writer.take();
    history.starts.append(1);
    if (keep > 0) {
        const qsizetype from = previous.starts[0];
        const qsizetype to =
            keep < previous.records.size() ? previous.starts[keep] - 1 : previous.bytes.size() - 1;
        history.bytes += ',';
        const qsizetype shift = history.bytes.size() - from;
        history.bytes += QByteArrayView(previous.bytes).sliced(from, to - from);
        for (qsizetype i = 0; i < keep; ++i)
            history.starts.append(previous.starts[i] + shift);
    }
    history.bytes += ']';
    history.records = previous.records.first(keep);
    history.records.prepend(entry);
    return history;
}

// The stored history, decoded only when its bytes are not the ones last seen.
// Damaged data reads as empty, with the error line.
const EncodedHistory &current(const QSettings &settings)
{
    static const EncodedHistory empty{QByteArrayLiteral("[]"), {}, {}};
    const auto data = SettingsKeys::read(settings, SettingsKeys::ForwardingHistory);
    if (!data)
        return empty;
    EncodedHistory &last = lastHistory();
    if (last.bytes.isSharedWith(*data) || last.bytes == *data)
        return last;
    auto records = ForwardingRecord::listFromJson(*data);
    if (!records) {
        qCCritical(lcHistoryStore).noquote()
            << u"Failed to decode history data: %1"_s.arg(records.error().description);
        return empty;
    }
    last = EncodedHistory{*data, std::move(records).value(), {}};
    return last;
}

} // namespace

QList<ForwardingRecord> loadHistory(const QSettings &settings)
{
    return current(settings).records;
}

void record(QSettings &settings, const ForwardingRecord &entry)
{
    const EncodedHistory &previous = current(settings);
    if (previous.records.size() >= MaxRecords)
        qCInfo(lcHistoryStore).noquote()
            << u"History exceeds %1 records, trimming oldest entries"_s.arg(MaxRecords);
    EncodedHistory next = prepended(previous, entry);
    settings.setValue(SettingsKeys::ForwardingHistory.name, next.bytes);
    UserSettings::commit(settings);
    lastHistory() = std::move(next);
    qCDebug(lcHistoryStore).noquote() << u"Recorded forwarding: %1"_s.arg(entry.originalURL);
}

void clearHistory(QSettings &settings)
{
    settings.remove(SettingsKeys::ForwardingHistory.name);
    UserSettings::commit(settings);
    qCInfo(lcHistoryStore) << "Forwarding history cleared";
}

qsizetype todayCount(const QSettings &settings, QDate today)
{
    const QList<ForwardingRecord> records = loadHistory(settings);
    return std::count_if(records.cbegin(), records.cend(), [today](const ForwardingRecord &record) {
        return record.timestamp.toLocalTime().date() == today;
    });
}

} // namespace HistoryStore
