#pragma once

#include "Models/ForwardingRecord.h"
#include "Storage/Sqlite.h"

#include <QDeadlineTimer>
#include <QList>
#include <QString>

#include <functional>
#include <memory>

// The file that holds what Quillvane writes per link: the forwarding history,
// today's count and the journal of links accepted but not yet opened
// ($XDG_STATE_HOME/Quillvane/history.sqlite3, WAL).
//
// Links must open whatever happens to this file, so nothing here stops one: a
// damaged file is moved aside and a new one started; a file that cannot be
// written (read-only folder, full disk, another process holding its lock) is
// reported once per outage while the history waits in memory for the next write
// that succeeds. Only one process writes the history: the Quillvane that
// claimed it; every Quillvane writes the intake journal.
class HistoryDatabase final
{
public:
    enum class Access
    {
        ReadOnly, // never made, changed or moved aside: for reading it from outside
        ReadWrite
    };

    // What could not be written yet, carried into the next write that succeeds.
    struct Unwritten
    {
        QList<ForwardingRecord> records; // newest first
        bool cleared = false;
        QString countDay;
        qint64 count = 0;
        QList<qint64> finishedJournalEntries;

        bool isEmpty() const;
    };

    // How long a write waits for another process's lock before it gives up, and
    // how long writes are then left alone before the file is tried again.
    static constexpr int BusyTimeoutMs = 40;
    static constexpr int BusyBackoffMs = 1000;

    // The history keeps the newest records, this many.
    static constexpr qsizetype MaxRecords = 500;

    static QString defaultPath();

    explicit HistoryDatabase(QString path = defaultPath(), Access access = Access::ReadWrite);
    ~HistoryDatabase();
    HistoryDatabase(const HistoryDatabase &) = delete;
    HistoryDatabase &operator=(const HistoryDatabase &) = delete;

    const QString &path() const { return m_path; }

    // Makes this process the file's one writer; false while another process is.
    // Writes before a successful claim wait in memory.
    bool claimWriter();
    bool isWriter() const { return m_writerLock >= 0; }

    // Runs work in one write transaction; false when it was not written (the
    // reason is logged, once per outage).
    bool write(const std::function<void(Sqlite::Database &)> &work);
    // The same for the intake journal, which every Quillvane writes, the file's
    // writer or not: a link is accepted only once it is on disk.
    bool writeJournal(const std::function<void(Sqlite::Database &)> &work);
    // Runs work against the file as it is; false when there is no readable file
    // (none yet counts as empty, not as a failure: work does not run then).
    bool read(const std::function<void(Sqlite::Database &)> &work);
    // A value Quillvane keeps about itself (when it last checked for updates);
    // empty when there is none or it cannot be read.
    QString metaValue(const char *key);
    bool setMetaValue(const char *key, const QString &value);
    // Why the last read or write failed, for commands that report it.
    QString lastFailure() const { return m_lastFailure; }

    Unwritten &unwritten() { return m_unwritten; }
    const Unwritten &unwritten() const { return m_unwritten; }

    // The statements shared by the stores of this file.
    static void insertRecord(Sqlite::Database &database, const ForwardingRecord &record);
    // Keeps the newest records; true when any had to go.
    static bool trimHistory(Sqlite::Database &database, qsizetype keep);
    // Adds to the count of the day, forgetting other days; the new count.
    static qint64 addToCount(Sqlite::Database &database, const QString &day, qint64 count);
    // Takes a link out of the intake journal: its route has ended.
    static void removeJournalEntry(Sqlite::Database &database, qint64 id);

private:
    enum class Opened
    {
        Ready,
        Missing, // read-only and there is no file yet
        Failed
    };

    Opened ensureOpen();
    std::unique_ptr<Sqlite::Database> connectForWriting();
    std::optional<Sqlite::Error> prepare(Sqlite::Database &database);
    // asWriter: what waits in memory for the history goes in too.
    bool transact(const std::function<void(Sqlite::Database &)> &work, bool asWriter);
    void flushHistory(Sqlite::Database &database);
    void moveAside(const Sqlite::Error &damage);
    void reportFailure(const QString &what);
    void reportRecovery();
    bool canTryWriting();

    QString m_path;
    Access m_access;
    std::unique_ptr<Sqlite::Database> m_database;
    int m_writerLock = -1;
    bool m_toldNotWriter = false;
    bool m_failing = false;
    bool m_renewConnection = false;
    QString m_lastFailure;
    QDeadlineTimer m_quietUntil;
    Unwritten m_unwritten;
};
