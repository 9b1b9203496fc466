// The history database: the history, today's count and the intake journal in
// one SQLite file, what it does with a damaged or locked file, and how the
// history of the settings file moves into it.
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryMigration.h"
#include "Storage/HistoryStore.h"
#include "Storage/LinkJournal.h"
#include "Storage/Sqlite.h"
#include "TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QRandomGenerator>
#include <QSettings>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTest>

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

ForwardingRecord someRecord(const QString &url)
{
    return makeRecord(url, std::nullopt, u"Firefox"_s);
}

LinkJournal::Entry entry(const QString &url, const QDateTime &received)
{
    return {0,
            LinkJournal::Kind::Open,
            received,
            url,
            SourceApp{u"org.example.Mail"_s, u"Mail"_s},
            u"token"_s,
            QString(),
            false};
}

// What another process reading the file now would see.
QStringList linksOnDisk(const QString &path)
{
    HistoryDatabase reader(path, HistoryDatabase::Access::ReadOnly);
    const auto records = HistoryStore::readHistory(reader);
    return records ? links(*records) : QStringList{u"unreadable: "_s + records.error()};
}

QStringList damagedCopies(const QString &folder, const QString &pattern)
{
    return QDir(folder).entryList({pattern}, QDir::Files);
}

} // namespace

class TestHistory final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_environment = std::make_unique<TestEnvironment>();
        m_path = m_environment->historyPath();
        m_database = m_environment->history();
    }

    void cleanup()
    {
        m_database.reset();
        m_environment.reset();
    }

    void recordsNewestFirstAndTrimmed()
    {
        // Nothing is made by reading from outside.
        QVERIFY(linksOnDisk(m_path).isEmpty());
        QVERIFY(!QFile::exists(m_path));

        record(u"https://first.example/\"quoted\""_s);
        ForwardingRecord full =
            makeRecord(u"https://second.example/ü"_s, u"Mail"_s, u"Web"_s, u"Mail → Web"_s);
        full.decidedBy = u"3F2504E0-4F89-41D3-9A0C-0305E82C3301"_s;
        full.decisionDescription = u"a.example → Web"_s;
        full.targetProfileID = u"Profile 1"_s;
        HistoryStore::record(*m_database, full);
        QCOMPARE(linksOnDisk(m_path), (QStringList{u"https://second.example/ü"_s,
                                                   u"https://first.example/\"quoted\""_s}));
        QCOMPARE(HistoryStore::loadHistory(*m_database).first(), full);
        QCOMPARE(QFileInfo(QFileInfo(m_path).path()).permissions(),
                 QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadUser
                     | QFile::WriteUser | QFile::ExeUser);

        for (int i = 2; i < HistoryStore::MaxRecords; ++i)
            record(u"https://e.com/%1"_s.arg(i));
        QCOMPARE(HistoryStore::loadHistory(*m_database).size(), 500);
        for (int i = 0; i < 3; ++i)
            record(u"https://more.example/%1"_s.arg(i));
        const QStringList stored = linksOnDisk(m_path);
        QCOMPARE(stored.size(), 500);
        QCOMPARE(stored.mid(3, 1) + stored.mid(499),
                 (QStringList{u"https://e.com/499"_s, u"https://e.com/3"_s}));
        QCOMPARE(links(HistoryStore::loadHistory(*m_database, {}, 2)),
                 (QStringList{u"https://more.example/2"_s, u"https://more.example/1"_s}));

        // A browser that failed right after its start: its record is taken back,
        // on disk or still waiting in memory.
        HistoryStore::withdraw(*m_database, HistoryStore::loadHistory(*m_database).first().id);
        QCOMPARE(linksOnDisk(m_path).value(0), u"https://more.example/1"_s);
        m_database->unwritten().records.prepend(someRecord(u"https://waiting.example/"_s));
        HistoryStore::withdraw(*m_database, m_database->unwritten().records.first().id);
        QVERIFY(m_database->unwritten().records.isEmpty());

        HistoryStore::clearHistory(*m_database);
        QVERIFY(linksOnDisk(m_path).isEmpty());
    }

    // A history written by the first version keeps its records, which name no
    // decision; new ones do.
    void aFileOfTheFirstVersionIsUpgraded()
    {
        m_database.reset();
        QVERIFY(QDir().mkpath(QFileInfo(m_path).path()));
        {
            Sqlite::Error error;
            const auto old =
                Sqlite::Database::open(m_path, Sqlite::Database::Mode::ReadWriteCreate, &error);
            QVERIFY2(old, qPrintable(error.message));
            old->exec("CREATE TABLE history (seq INTEGER PRIMARY KEY, id TEXT NOT NULL, timestamp "
                      "REAL NOT NULL, originalURL TEXT NOT NULL, sourceAppBundleID TEXT, "
                      "sourceAppName TEXT, targetBrowserBundleID TEXT NOT NULL, targetBrowserName "
                      "TEXT NOT NULL, ruleMatched TEXT);"
                      "CREATE TABLE forwardCount (day TEXT PRIMARY KEY, count INTEGER NOT NULL);"
                      "CREATE TABLE intakeJournal (id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, "
                      "receivedAt REAL NOT NULL, url TEXT NOT NULL, sourceAppBundleID TEXT, "
                      "sourceAppName TEXT, activationToken TEXT, browser TEXT, counted INTEGER NOT "
                      "NULL DEFAULT 0);"
                      "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT);"
                      "INSERT INTO history (id, timestamp, originalURL, targetBrowserBundleID, "
                      "targetBrowserName, ruleMatched) VALUES "
                      "('3F2504E0-4F89-41D3-9A0C-0305E82C3301', 700000000, 'https://old.example/', "
                      "'firefox', 'Firefox', '⏸ Rules paused');"
                      "PRAGMA user_version = 1;");
            QVERIFY(!old->error());
        }
        m_database = m_environment->history();
        ForwardingRecord paused = someRecord(u"https://new.example/"_s);
        paused.decidedBy = u"paused"_s;
        HistoryStore::record(*m_database, paused);
        const QList<ForwardingRecord> read = HistoryStore::loadHistory(*m_database);
        QCOMPARE(links(read), (QStringList{u"https://new.example/"_s, u"https://old.example/"_s}));
        QCOMPARE(read.value(0).decidedBy, u"paused"_s);
        QVERIFY(!read.value(1).decidedBy && read.value(1).decidedByPause());
        QCOMPARE(read.value(1).decisionText(), u"Rules paused"_s);
    }

    // Entries keep what the link came with, leave when counted and recorded,
    // and an earlier run's are opened again only while recent: measured on
    // the boot-time clock, whatever the wall clock did in between.
    void journal_data()
    {
        addRows({u"boot"_s, u"wall"_s, u"opened"_s}, uR"(
fresh                                 | 30   | 30    | yes
wall clock set back 5 s               | 10   | 5     | yes
wall clock set forward 70 s (NTP)     | 10   | 80    | yes
old                                   | 61   | 61    | no
old, wall clock set back an hour      | 61   | -3539 | no
after a restart, soon                 | r20  | 40    | yes
after a restart, wall clock behind    | r20  | -5    | no
after a restart, long since booting   | r120 | 130   | no
)");
    }
    void journal()
    {
        QFETCH(QString, boot);
        QFETCH(QString, wall);
        QFETCH(QString, opened);
        const Lifetime::Instant start{QDateTime::currentDateTimeUtc(), u"boot-1"_s, 3600000};
        Lifetime::Instant now = start;
        QSet<QString> running{u"killed"_s, u"alive"_s};
        const auto writer = [&](const QString &owner) {
            return LinkJournal::Writer{owner, [&now] { return now; },
                                       [&running](const QString &o) { return running.contains(o); }};
        };
        QList<LinkJournal::Entry> entries{entry(u"https://a.example/"_s, {}),
                                          entry(u"https://b.example/"_s, {}),
                                          entry(u"https://c.example/"_s, {})};
        entries[2].kind = LinkJournal::Kind::Route;
        entries[2].browser = u"firefox"_s;
        entries[2].source.reset();
        LinkJournal::accept(*m_database, entries, writer(u"killed"_s));
        QList<LinkJournal::Entry> others{entry(u"https://other.example/"_s, {})};
        LinkJournal::accept(*m_database, others, writer(u"alive"_s));
        // Counting marks an entry; opening it removes it, in the same transaction.
        HistoryStore::incrementForwardCount(*m_database, u"2026-03-05"_s, entries[1].id);
        HistoryStore::record(*m_database, someRecord(u"https://a.example/"_s), entries[0].id);
        running.remove(u"killed"_s);

        const bool restarted = boot.startsWith(u'r');
        now.bootId = restarted ? u"boot-2"_s : start.bootId;
        now.sinceBootMs =
            restarted ? boot.mid(1).toLongLong() * 1000 : start.sinceBootMs + boot.toLongLong() * 1000;
        now.wall = start.wall.addSecs(wall.toLongLong());
        if (opened == u"no")
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^Dropped 2 link\\(s\\)"_s));
        else
            QTest::ignoreMessage(QtInfoMsg, QRegularExpression(u"^Opening 2 link\\(s\\)"_s));
        const QList<LinkJournal::Entry> left =
            LinkJournal::unfinished(*m_database, writer(u"next"_s));
        // The entry of a Quillvane that still runs is its own, and stays.
        QCOMPARE(journalEntries(m_path), opened == u"no" ? 1 : 3);
        QCOMPARE(left.size(), opened == u"no" ? 0 : 2);
        if (left.isEmpty())
            return;
        entries[1].counted = true;
        for (int i = 0; i < 2; ++i) {
            const LinkJournal::Entry &read = left[i], &written = entries[i + 1];
            QCOMPARE(std::tie(read.id, read.kind, read.url, read.source, read.activationToken,
                              read.browser, read.counted),
                     std::tie(written.id, written.kind, written.url, written.source,
                              written.activationToken, written.browser, written.counted));
        }
        // Taken over: while it runs, the next Quillvane to start leaves them to it.
        running.insert(u"next"_s);
        QVERIFY(LinkJournal::unfinished(*m_database, writer(u"third"_s)).isEmpty());
    }

    // A Quillvane that keeps working on its entries keeps them young: killed a
    // minute and a half after they arrived, 40 s after it last marked them.
    void journalKeptFresh()
    {
        Lifetime::Instant now{QDateTime::currentDateTimeUtc(), u"boot"_s, 1000};
        bool runs = true;
        const LinkJournal::Writer first{u"first"_s, [&now] { return now; },
                                        [&runs](const QString &) { return runs; }};
        QList<LinkJournal::Entry> entries{entry(u"https://waiting.example/"_s, {})};
        LinkJournal::accept(*m_database, entries, first);
        now.sinceBootMs += 50000;
        QCOMPARE(LinkJournal::keepFresh(*m_database, first), 1);
        now.sinceBootMs += 40000;
        runs = false;
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(u"^Opening 1 link"_s));
        QCOMPARE(LinkJournal::unfinished(*m_database, {u"second"_s, first.now, first.runs}).size(),
                 1);
        QCOMPARE(LinkJournal::keepFresh(*m_database, first), 0);
    }

    void migrationFromTheSettingsFile()
    {
        QSettings settings(m_environment->legacyPath(), QSettings::IniFormat);
        const QList<ForwardingRecord> old{someRecord(u"https://newest.example/"_s),
                                          someRecord(u"https://older.example/"_s),
                                          someRecord(u"https://oldest.example/"_s)};
        const QString today = HistoryStore::dayString(QDateTime::currentDateTime());
        const auto seed = [&](const QByteArray &history) {
            settings.setValue(u"forwarding_history"_s, history);
            settings.setValue(u"today_forward_count"_s, 7);
            settings.setValue(u"today_date"_s, today);
            settings.sync();
        };
        QVERIFY(!HistoryMigration::take(settings));
        // A start that ended after the database took them and before the old file
        // was moved aside: nothing is taken twice.
        for (int start = 0; start < 2; ++start) {
            seed(ForwardingRecord::listToJson(old));
            QVERIFY(HistoryMigration::run(*HistoryMigration::take(settings), *m_database));
        }
        QCOMPARE(linksOnDisk(m_path), links(old));
        QCOMPARE(HistoryStore::loadForwardCount(*m_database, today), 7);

        // One record that cannot be read: the others move, and the run says that
        // something stays behind in the old file (which is kept).
        QByteArray damaged = ForwardingRecord::listToJson(
            {someRecord(u"https://kept.example/1"_s), someRecord(u"https://lost.example/"_s),
             someRecord(u"https://kept.example/2"_s)});
        seed(damaged.replace("\"originalURL\":\"https://lost.example/\",", ""));
        QTest::ignoreMessage(
            QtCriticalMsg,
            QRegularExpression(u"^Some of the history in the old settings file could not "
                               "be read .* it stays there"_s));
        QVERIFY(!HistoryMigration::run(*HistoryMigration::take(settings), *m_database));
        QCOMPARE(linksOnDisk(m_path).mid(0, 2),
                 (QStringList{u"https://kept.example/1"_s, u"https://kept.example/2"_s}));
    }

    // The file, a companion or the writer's lock is something else than a
    // regular file (a link to /dev/null or to another file, a FIFO): nothing is
    // written through it or created beside its target, nothing waits on it, and
    // links keep their history in memory.
    void filesThatAreNotRegular_data()
    {
        addRows({u"file"_s, u"kind"_s}, uR"(
the file, a link to another file | history.sqlite3      | link
the write-ahead log, a FIFO      | history.sqlite3-wal  | fifo
the shared memory, a link        | history.sqlite3-shm  | link
)");
    }
    void filesThatAreNotRegular()
    {
        QFETCH(QString, file);
        QFETCH(QString, kind);
        m_database.reset();
        QDir(QFileInfo(m_path).path()).removeRecursively();
        const QString folder = QFileInfo(m_path).path();
        const QString target = m_environment->path() + u"/elsewhere/target"_s;
        writeFile(target, "untouched");
        QVERIFY(QDir().mkpath(folder));
        const QByteArray path = QFile::encodeName(folder + u'/' + file);
        QCOMPARE(kind == u"fifo" ? ::mkfifo(path.constData(), 0600)
                                 : ::symlink(QFile::encodeName(target).constData(), path.constData()),
                 0);
        QCOMPARE(::mkfifo(QFile::encodeName(m_path + u".lock"_s).constData(), 0600), 0);
        m_database = std::make_unique<HistoryDatabase>(m_path);
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression(u"^Could not write the history database .* is not "
                                                "a regular file\\."_s));
        record(u"https://kept.example/"_s);
        QCOMPARE(links(HistoryStore::loadHistory(*m_database)), QStringList{u"https://kept.example/"_s});
        QCOMPARE(readFile(target), QByteArray("untouched"));
        QCOMPARE(QDir(QFileInfo(target).path()).entryList(QDir::Files | QDir::System),
                 QStringList{u"target"_s});
    }

    void damagedFileIsMovedAside_data()
    {
        QTest::addColumn<QString>("damage");
        for (const char *damage : {"random bytes", "cut in half", "pages overwritten"})
            QTest::newRow(damage) << QString::fromLatin1(damage);
    }

    void damagedFileIsMovedAside()
    {
        QFETCH(QString, damage);
        for (int i = 0; i < 300; ++i)
            record(u"https://e.com/%1"_s.arg(i));
        m_database.reset();
        QFile file(m_path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        const qint64 size = file.size();
        QVERIFY(size > 16384);
        if (damage == u"random bytes") {
            QByteArray noise(size, Qt::Uninitialized);
            for (char &byte : noise)
                byte = char(QRandomGenerator::global()->bounded(256));
            file.write(noise);
        } else if (damage == u"cut in half") {
            file.resize(size / 2);
        } else {
            file.seek(size / 2);
            file.write(QByteArray(8192, '\x5a'));
        }
        file.close();

        m_database = m_environment->history();
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(u"^The history database .* is damaged \\(.*\\)\\. It was "
                               "moved aside as .*history\\.sqlite3\\.damaged-"
                               "\\d{8}T\\d{6}Z and a new one is started"_s));
        record(u"https://after.example/"_s);
        QCOMPARE(linksOnDisk(m_path), QStringList{u"https://after.example/"_s});
        QVERIFY(!damagedCopies(QFileInfo(m_path).path(), u"history.sqlite3.damaged-*"_s).isEmpty());
    }

    // Statements are kept by their text: a buffer used again for another text
    // gets its own statement, and the same text fetched while it is in use
    // again does not reset the one being stepped through.
    void statementsByText()
    {
        Sqlite::Error error;
        const auto database = Sqlite::Database::open(
            QFileInfo(m_path).path() + u"/statements.sqlite3"_s,
            Sqlite::Database::Mode::ReadWriteCreate, &error);
        QVERIFY(database);
        database->exec("CREATE TABLE t (n INTEGER); INSERT INTO t VALUES (1), (2)");
        char sql[64] = "SELECT n FROM t ORDER BY n";
        Sqlite::Statement outer = database->statement(sql);
        QVector<qint64> pairs;
        while (outer.step() && pairs.size() < 10) {
            Sqlite::Statement inner = database->statement(sql);
            while (inner.step())
                pairs.append(outer.integer(0) * 10 + inner.integer(0));
        }
        QCOMPARE(pairs, (QVector<qint64>{11, 12, 21, 22}));
        std::strcpy(sql, "SELECT count(*) FROM t");
        Sqlite::Statement count = database->statement(sql);
        QVERIFY(count.step());
        QCOMPARE(count.integer(0), 2);
        QVERIFY(!database->error());
    }

    // Another process holds the write lock (the sqlite3 shell in a transaction): a
    // write gives up after a moment, later writes do not wait at all for a while,
    // the failure is logged once, readers see what waits in memory, and it is
    // written once the lock is gone. (A full disk is the end-to-end test's.)
    void lockedByAnotherProcess()
    {
        record(u"https://before.example/"_s);
        QProcess shell;
        shell.setProcessChannelMode(QProcess::MergedChannels);
        shell.start(u"sqlite3"_s, {m_path});
        const auto end = qScopeGuard([&shell] {
            shell.closeWriteChannel();
            shell.waitForFinished(5000);
        });
        shell.write("BEGIN IMMEDIATE;\nDELETE FROM history;\nSELECT 'holding the lock';\n");
        QByteArray said;
        QTRY_VERIFY_WITH_TIMEOUT((said += shell.readAll()).contains("holding the lock"), 10000);

        QTest::ignoreMessage(
            QtCriticalMsg, QRegularExpression(u"^Could not write the history database .*locked"_s));
        record(u"https://locked.example/1"_s);
        record(u"https://locked.example/2"_s);
        const QString day = HistoryStore::dayString(QDateTime::currentDateTime());
        QCOMPARE(HistoryStore::incrementForwardCount(*m_database, day), 1);
        QCOMPARE(HistoryStore::incrementForwardCount(*m_database, day), 2);
        QCOMPARE(links(HistoryStore::loadHistory(*m_database)),
                 (QStringList{u"https://locked.example/2"_s, u"https://locked.example/1"_s,
                              u"https://before.example/"_s}));
        QCOMPARE(links(HistoryStore::loadHistory(*m_database, u"LOCKED"_s, 1)),
                 QStringList{u"https://locked.example/2"_s});
        QCOMPARE(HistoryStore::todayCount(*m_database), 3);

        shell.write("ROLLBACK;\n.quit\n");
        QVERIFY(shell.waitForFinished(10000));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(u"can be written again"_s));
        QTRY_VERIFY_WITH_TIMEOUT(HistoryStore::flush(*m_database), 10000);
        QCOMPARE(linksOnDisk(m_path).size(), 3);
        HistoryDatabase reader(m_path, HistoryDatabase::Access::ReadOnly);
        QCOMPARE(HistoryStore::loadForwardCount(reader, day), 2);
    }

    // The disk fills up while the database is open (a small tmpfs), or it is
    // opened on a read-only one (a read-only bind mount): records wait in
    // memory, the failure is logged, and once writing works again a new
    // connection writes what waited.
    void aDiskThatCannotBeWritten_data()
    {
        QTest::addColumn<bool>("fills");
        QTest::newRow("disk fills up") << true;
        QTest::newRow("read-only disk") << false;
    }
    void aDiskThatCannotBeWritten()
    {
        QFETCH(bool, fills);
        const QString folder = QFileInfo(m_path).path();
        const QString quoted = u"'"_s + folder + u"'"_s;
        const auto shell = [](const QString &command) {
            return QProcess::execute(u"sh"_s, {u"-c"_s, command + u" 2>/dev/null"_s}) == 0;
        };
        m_database.reset();
        QVERIFY(QDir().mkpath(folder));
        if (fills && !shell(u"mount -t tmpfs -o size=2m quillvane-test "_s + quoted))
            QSKIP("needs the permission to mount a tmpfs");
        if (!fills && !shell(u"mount --bind %1 %1"_s.arg(quoted)))
            QSKIP("needs the permission to make a read-only bind mount");
        const auto unmount = qScopeGuard([&] {
            m_database.reset();
            shell(u"umount "_s + quoted);
        });
        m_database = m_environment->history();
        record(u"https://before.example/"_s);
        if (fills) {
            QVERIFY(!shell(u"cat /dev/zero > %1/filler"_s.arg(quoted))); // ends when full
        } else {
            // A mount turns read-only only while nothing is open on it for writing.
            m_database.reset();
            QVERIFY(shell(u"mount -o remount,bind,ro "_s + quoted));
            m_database = m_environment->history();
        }
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression(u"^Could not write the history database"_s));
        QStringList expected{u"https://before.example/"_s};
        for (int i = 0; i < 3; ++i) {
            expected.prepend(u"https://meanwhile.example/%1"_s.arg(i));
            record(expected.first());
        }
        // What waits is shown (a read-only disk may hide what the file holds).
        QCOMPARE(links(HistoryStore::loadHistory(*m_database)).mid(0, 3), expected.mid(0, 3));

        QVERIFY(fills ? QFile::remove(folder + u"/filler"_s)
                      : shell(u"mount -o remount,bind,rw "_s + quoted));
        QTest::ignoreMessage(QtInfoMsg, QRegularExpression(u"can be written again"_s));
        QVERIFY(HistoryStore::flush(*m_database));
        QCOMPARE(linksOnDisk(m_path), expected);
    }

    void oneWriter()
    {
        record(u"https://first.example/"_s);
        auto second = std::make_unique<HistoryDatabase>(m_path);
        QVERIFY(!second->claimWriter());
        QTest::ignoreMessage(
            QtWarningMsg, QRegularExpression(u"^Another Quillvane writes the history database"_s));
        HistoryStore::record(*second, someRecord(u"https://second.example/"_s));
        HistoryStore::record(*second, someRecord(u"https://second.example/again"_s));
        QCOMPARE(linksOnDisk(m_path), QStringList{u"https://first.example/"_s});
        // It reads the file, and its own records in front.
        QCOMPARE(HistoryStore::loadHistory(*second).size(), 3);
        // The journal it writes all the same: what it accepts is on disk at once,
        // and leaves once its link has opened.
        QList<LinkJournal::Entry> accepted{entry(u"https://second.example/3"_s, {})};
        LinkJournal::accept(*second, accepted, {});
        QCOMPARE(journalEntries(m_path), 1);
        HistoryStore::record(*second, someRecord(u"https://second.example/3"_s), accepted[0].id);
        QCOMPARE(journalEntries(m_path), 0);
        // Once the first is gone, the second writes, what it held first.
        m_database.reset();
        QVERIFY(HistoryStore::flush(*second));
        QCOMPARE(linksOnDisk(m_path),
                 (QStringList{u"https://second.example/3"_s, u"https://second.example/again"_s,
                              u"https://second.example/"_s, u"https://first.example/"_s}));
    }

private:
    void record(const QString &url) { HistoryStore::record(*m_database, someRecord(url)); }

    std::unique_ptr<TestEnvironment> m_environment;
    std::unique_ptr<HistoryDatabase> m_database;
    QString m_path;
};

QTEST_GUILESS_MAIN(TestHistory)
#include "tst_history.moc"
