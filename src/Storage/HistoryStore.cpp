#include "Storage/HistoryStore.h"

#include "Platform/SystemLog.h"
#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcHistoryStore, "HistoryStore")

namespace HistoryStore {

namespace {

void save(QSettings &settings, const QList<ForwardingRecord> &records)
{
    settings.setValue(SettingsKeys::ForwardingHistory.name, ForwardingRecord::listToJson(records));
    UserSettings::commit(settings);
}

} // namespace

QList<ForwardingRecord> loadHistory(const QSettings &settings)
{
    const auto data = SettingsKeys::read(settings, SettingsKeys::ForwardingHistory);
    if (!data)
        return {};
    auto records = ForwardingRecord::listFromJson(*data);
    if (!records) {
        qCCritical(lcHistoryStore).noquote() << u"Failed to decode history data: %1"_s.arg(records.error().description);
        return {};
    }
    return std::move(records).value();
}

void record(QSettings &settings, const ForwardingRecord &entry)
{
    QList<ForwardingRecord> records = loadHistory(settings);
    records.prepend(entry);
    if (records.size() > MaxRecords) {
        qCInfo(lcHistoryStore).noquote() << u"History exceeds %1 records, trimming oldest entries"_s.arg(MaxRecords);
        records.resize(MaxRecords);
    }
    save(settings, records);
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
