#include "Storage/HistoryDatabase.h"

#include "Models/JsonFields.h"
#include "Platform/SystemLog.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcHistoryDatabase, "HistoryDatabase")

namespace {

// Column names are the forwarding record's member names, and values are stored
// as its JSON form has them (upper-case UUIDs, seconds since 2001-01-01 UTC), so
// that the file reads like the history it replaces.
constexpr const char *Schema = R"sql(
CREATE TABLE IF NOT EXISTS history (
    seq INTEGER PRIMARY KEY,
    id TEXT NOT NULL,
    timestamp REAL NOT NULL,
    originalURL TEXT NOT NULL,
    sourceAppBundleID TEXT,
    sourceAppName TEXT,
    targetBrowserBundleID TEXT NOT NULL,
    targetBrowserName TEXT NOT NULL,
    ruleMatched TEXT,
    decidedBy TEXT,
    decisionDescription TEXT,
    targetProfileID TEXT
);
CREATE TABLE IF NOT EXISTS forwardCount (
    day TEXT PRIMARY KEY,
    count INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS intakeJournal (
    id INTEGER PRIMARY KEY,
    kind INTEGER NOT NULL,
    receivedAt REAL NOT NULL,
    url TEXT NOT NULL,
    sourceAppBundleID TEXT,
    sourceAppName TEXT,
    activationToken TEXT,
    browser TEXT,
    counted INTEGER NOT NULL DEFAULT 0,
    owner TEXT,
    bootId TEXT,
    sinceBootMs INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE IF NOT EXISTS meta (
    key TEXT PRIMARY KEY,
    value TEXT
) WITHOUT ROWID;
PRAGMA user_version = 3;
)sql";

constexpr qint64 CurrentVersion = 3;

// Version 1 had no record of what decided, nor of the profile; version 2 did
// not say which process took a journal entry, nor when on the boot-time clock.
constexpr const char *Upgrades[] = {
    R"sql(
ALTER TABLE history ADD COLUMN decidedBy TEXT;
ALTER TABLE history ADD COLUMN decisionDescription TEXT;
ALTER TABLE history ADD COLUMN targetProfileID TEXT;
PRAGMA user_version = 2;
)sql",
    R"sql(
ALTER TABLE intakeJournal ADD COLUMN owner TEXT;
ALTER TABLE intakeJournal ADD COLUMN bootId TEXT;
ALTER TABLE intakeJournal ADD COLUMN sinceBootMs INTEGER NOT NULL DEFAULT 0;
PRAGMA user_version = 3;
)sql",
};

qint64 schemaVersion(Sqlite::Database &database)
{
    Sqlite::Statement version = database.statement("PRAGMA user_version");
    const qint64 number = version.step() ? version.integer(0) : 0;
    version.run();
    return number;
}

// Another Quillvane may be upgrading the same file: the version is read again
// under the write lock, and a failed step leaves the file as it was.
std::optional<Sqlite::Error> upgrade(Sqlite::Database &database)
{
    database.exec("BEGIN IMMEDIATE");
    for (qint64 version = schemaVersion(database); version >= 1 && version < CurrentVersion;
         ++version)
        database.exec(Upgrades[version - 1]);
    database.exec("COMMIT");
    std::optional<Sqlite::Error> failure = database.takeError();
    if (failure) {
        database.exec("ROLLBACK");
        database.takeError();
    }
    return failure;
}

QString stateHome()
{
    // Qt 6.4 does not know the state location yet.
    const QString configured = qEnvironmentVariable("XDG_STATE_HOME");
    if (QDir::isAbsolutePath(configured))
        return configured;
    return QDir::homePath() + u"/.local/state"_s;
}

// The folder of the file, made for this user alone when it is missing.
bool makeFolder(const QString &filePath)
{
    const QFileInfo info(filePath);
    const QDir folder = info.absoluteDir();
    if (folder.exists())
        return true;
    const QString parent = QFileInfo(folder.absolutePath()).absolutePath();
    if (!QDir().mkpath(parent))
        return false;
    return QDir(parent).mkdir(folder.dirName(),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)
           || folder.exists();
}

} // namespace

bool HistoryDatabase::Unwritten::isEmpty() const
{
    return records.isEmpty() && !cleared && count == 0 && finishedJournalEntries.isEmpty();
}

QString HistoryDatabase::metaValue(const char *key)
{
    QString value;
    read([&](Sqlite::Database &sql) {
        Sqlite::Statement statement = sql.statement("SELECT value FROM meta WHERE key = ?");
        statement.bind(1, QString::fromLatin1(key));
        if (statement.step())
            value = statement.text(0);
        statement.run();
    });
    return value;
}

bool HistoryDatabase::setMetaValue(const char *key, const QString &value)
{
    return write([&](Sqlite::Database &sql) {
        sql.statement("INSERT OR REPLACE INTO meta (key, value) VALUES (?, ?)")
            .bind(1, QString::fromLatin1(key))
            .bind(2, value)
            .run();
    });
}

QString HistoryDatabase::defaultPath()
{
    return stateHome() + u"/Quillvane/history.sqlite3"_s;
}

HistoryDatabase::HistoryDatabase(QString path, Access access)
    : m_path(std::move(path))
    , m_access(access)
{}

HistoryDatabase::~HistoryDatabase()
{
    m_database.reset();
    if (m_writerLock >= 0)
        ::close(m_writerLock);
}

bool HistoryDatabase::claimWriter()
{
    if (isWriter())
        return true;
    if (m_access == Access::ReadOnly)
        return false;
    makeFolder(m_path);
    // A lock the kernel lets go of when its process ends, however it ends.
    int lock = ::open(QFile::encodeName(m_path + u".lock"_s).constData(),
                      O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    // Only a regular file locks: a FIFO or a device put there would take it.
    struct stat info = {};
    if (lock >= 0 && (::fstat(lock, &info) != 0 || !S_ISREG(info.st_mode))) {
        ::close(lock);
        lock = -1;
    }
    if (lock < 0) {
        // A folder nobody can write to: there is no other writer either, and
        // the writes themselves will say what is wrong.
        m_writerLock = -2;
        return true;
    }
    if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
        ::close(lock);
        return false;
    }
    m_writerLock = lock;
    m_toldNotWriter = false;
    return true;
}

HistoryDatabase::Opened HistoryDatabase::ensureOpen()
{
    if (m_database)
        return Opened::Ready;
    if (m_access == Access::ReadOnly) {
        if (!QFileInfo::exists(m_path))
            return Opened::Missing;
        Sqlite::Error error;
        m_database = Sqlite::Database::open(m_path, Sqlite::Database::Mode::ReadOnly, &error);
        if (!m_database) {
            m_lastFailure = error.message;
            return Opened::Failed;
        }
        m_database->setBusyTimeout(BusyTimeoutMs);
        m_database->addContainsFunction();
        return Opened::Ready;
    }

    m_database = connectForWriting();
    m_renewConnection = false;
    return m_database ? Opened::Ready : Opened::Failed;
}

std::unique_ptr<Sqlite::Database> HistoryDatabase::connectForWriting()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!makeFolder(m_path)) {
            m_lastFailure = u"its folder cannot be made"_s;
            return {};
        }
        Sqlite::Error error;
        auto database =
            Sqlite::Database::open(m_path, Sqlite::Database::Mode::ReadWriteCreate, &error);
        if (!database) {
            m_lastFailure = error.message;
            return {};
        }
        const std::optional<Sqlite::Error> problem = prepare(*database);
        if (!problem)
            return database;
        database.reset();
        m_lastFailure = problem->message;
        // Only the writer moves a damaged file aside: two processes doing it
        // at once could each take the other's new file for the damaged one.
        if (!problem->isDamage() || attempt > 0 || !isWriter())
            return {};
        moveAside(*problem);
    }
    return {};
}

std::optional<Sqlite::Error> HistoryDatabase::prepare(Sqlite::Database &database)
{
    database.setBusyTimeout(BusyTimeoutMs);
    database.addContainsFunction();
    database.exec("PRAGMA journal_mode = WAL");
    // Each commit reaches the operating system at once, so a Quillvane that is
    // killed loses nothing; only a power cut can take the last commits, as it
    // takes the browser windows they opened.
    database.exec("PRAGMA synchronous = NORMAL");
    // Made once: even a CREATE that finds its table would wait for another
    // process's write lock.
    const qint64 version = schemaVersion(database);
    if (version < 1)
        database.exec(Schema);
    else if (version < CurrentVersion) {
        if (auto failure = upgrade(database))
            return failure;
    }
    // A file that was cut short or overwritten in part reads as a database
    // until a damaged page is needed: look at every page once, now.
    Sqlite::Statement check = database.statement("PRAGMA quick_check");
    if (check.step() && check.text(0) != u"ok") {
        const QString finding = check.text(0).split(u'\n', Qt::SkipEmptyParts).join(u"; "_s);
        database.takeError();
        return Sqlite::Error{SQLITE_CORRUPT, finding};
    }
    return database.takeError();
}

void HistoryDatabase::moveAside(const Sqlite::Error &damage)
{
    m_database.reset();
    const QString aside = m_path + u".damaged-"_s
                          + QDateTime::currentDateTimeUtc().toString(u"yyyyMMdd'T'HHmmss'Z'"_s);
    if (!QFile::rename(m_path, aside))
        QFile::remove(m_path);
    QFile::rename(m_path + u"-wal"_s, aside + u"-wal"_s);
    QFile::remove(m_path + u"-wal"_s);
    QFile::remove(m_path + u"-shm"_s);
    qCWarning(lcHistoryDatabase).noquote()
        << u"The history database %1 is damaged (%2). It was moved aside as %3 and a new one is started; links keep opening."_s
               .arg(m_path, damage.message, aside);
}

bool HistoryDatabase::canTryWriting()
{
    if (m_access == Access::ReadOnly)
        return false;
    if (!claimWriter()) {
        if (!m_toldNotWriter) {
            qCWarning(lcHistoryDatabase).noquote()
                << u"Another Quillvane writes the history database %1; this one keeps its history in memory."_s
                       .arg(m_path);
            m_toldNotWriter = true;
        }
        return false;
    }
    return m_quietUntil.hasExpired();
}

bool HistoryDatabase::write(const std::function<void(Sqlite::Database &)> &work)
{
    if (!canTryWriting())
        return false;
    return transact(work, true);
}

bool HistoryDatabase::writeJournal(const std::function<void(Sqlite::Database &)> &work)
{
    if (m_access == Access::ReadOnly || !m_quietUntil.hasExpired())
        return false;
    return transact(work, claimWriter());
}

bool HistoryDatabase::transact(const std::function<void(Sqlite::Database &)> &work,
                               bool asWriter)
{
    std::optional<Sqlite::Error> error;
    for (int attempt = 0; attempt < 2; ++attempt) {
        // After a failed write (or with a connection made while the file could
        // only be read) a new connection tells whether the file can be written
        // now. The old one stays until then: on a full disk it can still read,
        // where a new one could not even make its shared-memory file.
        if (m_database && (m_renewConnection || m_database->isReadOnly())) {
            std::unique_ptr<Sqlite::Database> renewed = connectForWriting();
            if (!renewed) {
                reportFailure(m_lastFailure);
                return false;
            }
            m_database = std::move(renewed);
            m_renewConnection = false;
        }
        if (ensureOpen() != Opened::Ready) {
            reportFailure(m_lastFailure);
            return false;
        }
        if (m_database->isReadOnly()) {
            reportFailure(u"the file or its folder is read-only"_s);
            return false;
        }
        error = m_database->transaction([this, &work, asWriter] {
            Sqlite::Database &database = *m_database;
            for (const qint64 entry : std::as_const(m_unwritten.finishedJournalEntries))
                removeJournalEntry(database, entry);
            if (asWriter)
                flushHistory(database);
            work(database);
        });
        if (!error || !error->isDamage())
            break;
        moveAside(*error);
    }
    if (error) {
        // Another process holds the lock: leave it be for a while rather than
        // make every link wait for it. Anything else (a full disk, a file gone
        // read-only, an I/O error) is tried on a new connection next time.
        if (error->isBusy())
            m_quietUntil.setRemainingTime(BusyBackoffMs);
        else
            m_renewConnection = true;
        reportFailure(error->message);
        return false;
    }
    if (asWriter)
        m_unwritten = {};
    else
        m_unwritten.finishedJournalEntries.clear();
    reportRecovery();
    return true;
}

void HistoryDatabase::flushHistory(Sqlite::Database &database)
{
    if (m_unwritten.cleared)
        database.exec("DELETE FROM history");
    for (auto record = m_unwritten.records.crbegin(); record != m_unwritten.records.crend();
         ++record)
        insertRecord(database, *record);
    if (!m_unwritten.records.isEmpty())
        trimHistory(database, MaxRecords);
    if (m_unwritten.count > 0)
        addToCount(database, m_unwritten.countDay, m_unwritten.count);
}

bool HistoryDatabase::read(const std::function<void(Sqlite::Database &)> &work)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        const Opened opened = ensureOpen();
        if (opened == Opened::Missing)
            return true;
        if (opened == Opened::Failed)
            return false;
        work(*m_database);
        const std::optional<Sqlite::Error> error = m_database->takeError();
        if (!error)
            return true;
        m_lastFailure = error->message;
        // Only the writer moves a damaged file aside; a reader reports it.
        if (!error->isDamage() || m_access == Access::ReadOnly || !isWriter() || attempt > 0)
            return false;
        moveAside(*error);
    }
    return false;
}

void HistoryDatabase::reportFailure(const QString &what)
{
    m_lastFailure = what;
    if (m_failing)
        return;
    m_failing = true;
    qCCritical(lcHistoryDatabase).noquote()
        << u"Could not write the history database %1: %2. Links keep opening; their history is kept in memory until it can be written."_s
               .arg(m_path, what);
}

void HistoryDatabase::reportRecovery()
{
    if (!m_failing)
        return;
    m_failing = false;
    qCInfo(lcHistoryDatabase).noquote()
        << u"The history database %1 can be written again."_s.arg(m_path);
}

void HistoryDatabase::insertRecord(Sqlite::Database &database, const ForwardingRecord &record)
{
    database
        .statement("INSERT INTO history (id, timestamp, originalURL, sourceAppBundleID, "
                   "sourceAppName, targetBrowserBundleID, targetBrowserName, ruleMatched, "
                   "decidedBy, decisionDescription, targetProfileID) "
                   "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
        .bind(1, JsonFields::uuidText(record.id))
        .bind(2, JsonFields::referenceSeconds(record.timestamp))
        .bind(3, record.originalURL)
        .bind(4, record.sourceAppId)
        .bind(5, record.sourceAppName)
        .bind(6, record.targetBrowserId)
        .bind(7, record.targetBrowserName)
        .bind(8, record.ruleMatched)
        .bind(9, record.decidedBy)
        .bind(10, record.decisionDescription)
        .bind(11, record.targetProfileID)
        .run();
}

bool HistoryDatabase::trimHistory(Sqlite::Database &database, qsizetype keep)
{
    database
        .statement("DELETE FROM history WHERE seq <= "
                   "(SELECT seq FROM history ORDER BY seq DESC LIMIT 1 OFFSET ?)")
        .bind(1, qint64(keep))
        .run();
    return !database.error() && database.changes() > 0;
}

qint64 HistoryDatabase::addToCount(Sqlite::Database &database, const QString &day, qint64 count)
{
    database.statement("DELETE FROM forwardCount WHERE day <> ?").bind(1, day).run();
    Sqlite::Statement add =
        database.statement("INSERT INTO forwardCount (day, count) VALUES (?1, ?2) "
                           "ON CONFLICT (day) DO UPDATE SET count = count + ?2 RETURNING count");
    add.bind(1, day).bind(2, count);
    const qint64 total = add.step() ? add.integer(0) : 0;
    add.run();
    return total;
}

void HistoryDatabase::removeJournalEntry(Sqlite::Database &database, qint64 id)
{
    database.statement("DELETE FROM intakeJournal WHERE id = ?").bind(1, id).run();
}
