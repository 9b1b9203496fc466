#pragma once

#include "Models/Expected.h"
#include "Models/ForwardingRecord.h"
#include "Storage/HistoryDatabase.h"

#include <QDate>
#include <QDateTime>
#include <QList>

// The forwarding history, newest first and at most MaxRecords, and the count of
// links handed to the pipeline today, kept in the history database. What could
// not be written yet is part of every answer.
namespace HistoryStore {

inline constexpr qsizetype MaxRecords = HistoryDatabase::MaxRecords;

// The newest records (at most limit) whose link, source application name or
// browser name contains filter, ignoring case; all of them for an empty filter.
QList<ForwardingRecord> loadHistory(HistoryDatabase &database, const QString &filter = {},
                                    qsizetype limit = MaxRecords);
// The same, or why the file could not be read.
Expected<QList<ForwardingRecord>, QString>
readHistory(HistoryDatabase &database, const QString &filter = {}, qsizetype limit = MaxRecords);

// Adds one record in front, and ends the link's journal entry (when it has one)
// in the same transaction.
void record(HistoryDatabase &database, const ForwardingRecord &record, qint64 journalEntry = 0);
// Takes back the record with this id (its browser did not open the link after all).
void withdraw(HistoryDatabase &database, const QUuid &id);
void clearHistory(HistoryDatabase &database);
// Records whose time falls on the given local day (today unless told otherwise).
qsizetype todayCount(HistoryDatabase &database, QDate today = QDate::currentDate());

// "yyyy-MM-dd" of a local date, whatever the user's locale and calendar: the day
// today's forward count belongs to.
QString dayString(const QDateTime &instant);
// Links handed to the pipeline on the day; a count of another day reads as 0.
qint64 loadForwardCount(HistoryDatabase &database, const QString &day);
// One more link on the day: the new count. A journal entry is marked as
// counted with it, so that routing it again after a restart does not count it twice.
qint64 incrementForwardCount(HistoryDatabase &database, const QString &day,
                             qint64 journalEntry = 0);
// One more link on the day, written with the next write (the link's history
// record, after its browser has started).
void countLater(HistoryDatabase &database, const QString &day);

// Writes what waits in memory; true when nothing waits any more.
bool flush(HistoryDatabase &database);

} // namespace HistoryStore
