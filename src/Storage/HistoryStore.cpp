#include "Storage/HistoryStore.h"

#include "Models/JsonFields.h"
#include "Platform/SystemLog.h"

#include <QLocale>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcHistoryStore, "HistoryStore")

namespace HistoryStore {

namespace {

bool matches(const ForwardingRecord &record, const QString &filter)
{
    return filter.isEmpty() || record.originalURL.contains(filter, Qt::CaseInsensitive)
           || record.sourceAppName.value_or(QString()).contains(filter, Qt::CaseInsensitive)
           || record.targetBrowserName.contains(filter, Qt::CaseInsensitive);
}

// The records still waiting in memory that the filter lets through, newest first.
QList<ForwardingRecord> unwrittenMatching(const HistoryDatabase &database, const QString &filter,
                                          qsizetype limit)
{
    QList<ForwardingRecord> records;
    for (const ForwardingRecord &record : database.unwritten().records) {
        if (records.size() < limit && matches(record, filter))
            records.append(record);
    }
    return records;
}

double dayStart(QDate day)
{
    return JsonFields::referenceSeconds(day.startOfDay());
}

} // namespace

Expected<QList<ForwardingRecord>, QString> readHistory(HistoryDatabase &database,
                                                       const QString &filter, qsizetype limit)
{
    QList<ForwardingRecord> records = unwrittenMatching(database, filter, limit);
    if (database.unwritten().cleared || records.size() >= limit)
        return records;
    const bool read = database.read([&](Sqlite::Database &sql) {
        Sqlite::Statement rows = sql.statement(
            "SELECT id, timestamp, originalURL, sourceAppBundleID, sourceAppName, "
            "targetBrowserBundleID, targetBrowserName, ruleMatched, decidedBy, "
            "decisionDescription, targetProfileID FROM history "
            "WHERE ?1 = '' OR quillvane_contains(originalURL, ?1) "
            "OR quillvane_contains(sourceAppName, ?1) OR quillvane_contains(targetBrowserName, ?1) "
            "ORDER BY seq DESC LIMIT ?2");
        rows.bind(1, filter).bind(2, qint64(limit - records.size()));
        while (rows.step()) {
            // A row edited by hand into something else is left out, not shown wrong.
            const std::optional<QDateTime> when = JsonFields::fromReferenceSeconds(rows.real(1));
            if (!when)
                continue;
            records.append(ForwardingRecord{JsonFields::parseUuid(rows.text(0)).value_or(QUuid()),
                                            *when, rows.text(2), rows.optionalText(3),
                                            rows.optionalText(4), rows.text(5), rows.text(6),
                                            rows.optionalText(7), rows.optionalText(8),
                                            rows.optionalText(9), rows.optionalText(10)});
        }
    });
    if (!read)
        return database.lastFailure();
    return records;
}

QList<ForwardingRecord> loadHistory(HistoryDatabase &database, const QString &filter,
                                    qsizetype limit)
{
    auto records = readHistory(database, filter, limit);
    if (!records) {
        qCCritical(lcHistoryStore).noquote()
            << u"Failed to read the history: %1"_s.arg(records.error());
        return unwrittenMatching(database, filter, limit);
    }
    return std::move(records).value();
}

void record(HistoryDatabase &database, const ForwardingRecord &entry, qint64 journalEntry)
{
    bool trimmed = false;
    const bool written = database.write([&](Sqlite::Database &sql) {
        HistoryDatabase::insertRecord(sql, entry);
        if (journalEntry > 0)
            HistoryDatabase::removeJournalEntry(sql, journalEntry);
        trimmed = HistoryDatabase::trimHistory(sql, MaxRecords);
    });
    if (!written) {
        HistoryDatabase::Unwritten &unwritten = database.unwritten();
        unwritten.records.prepend(entry);
        trimmed = unwritten.records.size() > MaxRecords;
        if (trimmed)
            unwritten.records.resize(MaxRecords);
        // Another Quillvane writes the history, but the link has opened: its
        // entry goes now, so that nobody opens it again.
        const bool finished =
            journalEntry > 0 && !database.isWriter()
            && database.writeJournal([journalEntry](Sqlite::Database &sql) {
                   HistoryDatabase::removeJournalEntry(sql, journalEntry);
               });
        if (journalEntry > 0 && !finished)
            unwritten.finishedJournalEntries.append(journalEntry);
    }
    if (trimmed)
        qCInfo(lcHistoryStore).noquote()
            << u"History exceeds %1 records, trimming oldest entries"_s.arg(MaxRecords);
    qCDebug(lcHistoryStore).noquote()
        << u"Recorded forwarding: %1"_s.arg(SystemLog::priv(entry.originalURL));
}

void withdraw(HistoryDatabase &database, const QUuid &id)
{
    HistoryDatabase::Unwritten &unwritten = database.unwritten();
    if (unwritten.records.removeIf([&id](const ForwardingRecord &record) { return record.id == id; })
        > 0)
        return;
    // Should the file refuse this write, the record stays: the failure is
    // logged by the database, and the notification has told the user.
    const QString text = JsonFields::uuidText(id);
    database.write([&text](Sqlite::Database &sql) {
        sql.statement("DELETE FROM history WHERE id = ?").bind(1, text).run();
    });
}

void clearHistory(HistoryDatabase &database)
{
    const bool written =
        database.write([](Sqlite::Database &sql) { sql.exec("DELETE FROM history"); });
    if (!written) {
        HistoryDatabase::Unwritten &unwritten = database.unwritten();
        unwritten.records.clear();
        unwritten.cleared = true;
    }
    qCInfo(lcHistoryStore) << "Forwarding history cleared";
}

qsizetype todayCount(HistoryDatabase &database, QDate today)
{
    const double from = dayStart(today);
    const double to = dayStart(today.addDays(1));
    const HistoryDatabase::Unwritten &unwritten = database.unwritten();
    qsizetype count = std::count_if(unwritten.records.cbegin(), unwritten.records.cend(),
                                    [today](const ForwardingRecord &record) {
                                        return record.timestamp.toLocalTime().date() == today;
                                    });
    if (unwritten.cleared)
        return count;
    database.read([&](Sqlite::Database &sql) {
        Sqlite::Statement query =
            sql.statement("SELECT count(*) FROM history WHERE timestamp >= ? AND timestamp < ?");
        query.bind(1, from).bind(2, to);
        if (query.step())
            count += query.integer(0);
        query.run();
    });
    return count;
}

QString dayString(const QDateTime &instant)
{
    return QLocale::c().toString(instant.toLocalTime().date(), u"yyyy-MM-dd");
}

qint64 loadForwardCount(HistoryDatabase &database, const QString &day)
{
    const HistoryDatabase::Unwritten &unwritten = database.unwritten();
    qint64 count = unwritten.countDay == day ? unwritten.count : 0;
    database.read([&](Sqlite::Database &sql) {
        Sqlite::Statement query = sql.statement("SELECT count FROM forwardCount WHERE day = ?");
        query.bind(1, day);
        if (query.step())
            count += query.integer(0);
        query.run();
    });
    return count;
}

qint64 incrementForwardCount(HistoryDatabase &database, const QString &day, qint64 journalEntry)
{
    qint64 count = 0;
    const bool written = database.write([&](Sqlite::Database &sql) {
        count = HistoryDatabase::addToCount(sql, day, 1);
        if (journalEntry > 0)
            sql.statement("UPDATE intakeJournal SET counted = 1 WHERE id = ?")
                .bind(1, journalEntry)
                .run();
    });
    if (written)
        return count;
    countLater(database, day);
    return loadForwardCount(database, day);
}

void countLater(HistoryDatabase &database, const QString &day)
{
    // Counts of an earlier day that never reached the file no longer matter.
    HistoryDatabase::Unwritten &unwritten = database.unwritten();
    if (unwritten.countDay != day) {
        unwritten.countDay = day;
        unwritten.count = 0;
    }
    ++unwritten.count;
}

bool flush(HistoryDatabase &database)
{
    if (database.unwritten().isEmpty())
        return true;
    return database.write([](Sqlite::Database &) {});
}

} // namespace HistoryStore
