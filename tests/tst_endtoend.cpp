// Quillvane installed and really started: a session bus of the test's own
// (dbus-run-session) starts it on the first link, fake applications with
// desktop entries of their own open links the ways real ones do, and fake
// browsers record what they were given.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Storage/HistoryStore.h"
#include "Storage/SettingsKeys.h"
#include "Storage/Sqlite.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusPendingCall>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <signal.h>

// GCC says so with a macro, clang only through __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define QUILLVANE_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUILLVANE_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef QUILLVANE_ADDRESS_SANITIZER
#define QUILLVANE_ADDRESS_SANITIZER 0
#endif

using namespace Qt::Literals::StringLiterals;

namespace {
const QString AppId = u"work.vorpa.Quillvane"_s;
InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));

QString program(const QString &name)
{
    return g_installed.program(name);
}
// The exit status of the program run to its end (and what it said on standard error).
int run(const QString &command, const QStringList &arguments, QString *errors = nullptr)
{
    const auto result = InstalledQuillvane::run(command, arguments);
    if (errors)
        *errors = result.err;
    return result.exitCode;
}
bool opens(const QStringList &links)
{
    return InstalledQuillvane::opens(links);
}
QDBusPendingCall openLater(const QStringList &links, bool autoStart = true)
{
    QDBusMessage call = QDBusMessage::createMethodCall(AppId, u"/work/vorpa/Quillvane"_s,
                                                       u"org.freedesktop.Application"_s, u"Open"_s);
    call << links << QVariantMap();
    call.setAutoStartService(autoStart);
    return QDBusConnection::sessionBus().asyncCall(call);
}
qint64 residentKiB(qint64 pid)
{
    for (const QByteArray &line : readFile(u"/proc/%1/status"_s.arg(pid)).split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}
} // namespace

class TestEndToEnd final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (!QDBusConnection::sessionBus().isConnected())
            QSKIP("needs a session bus: run under dbus-run-session");
        m_desktop = std::make_unique<FakeDesktop>();
        QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));
        for (const auto &[id, name] : {std::pair{u"fallback-browser"_s, u"Fallback"_s},
                                       {u"mail-browser"_s, u"Mail Browser"_s},
                                       {u"chat-browser"_s, u"Chat Browser"_s}})
            m_desktop->addBrowser(id, name);
        // Appends every link it gets, for counting: a small program rather than a
        // script, so that a thousand starts cost the machine little.
        m_desktop->addBrowser(u"burst-browser"_s, u"Burst"_s, {},
                              QStringLiteral(QUILLVANE_BURST_RECORDER) + u' ' + burstLogPath()
                                  + u" %u"_s);
        for (const QString &id : {u"fake-mail"_s, u"fake-chat"_s})
            m_desktop->addApplication(id, id.toUpper());
        m_desktop->addApp(u"zoom-client"_s, u"Zoom Workplace"_s, u"x-scheme-handler/zoommtg;"_s);

        auto settings = InstalledQuillvane::settingsToSeed(*m_desktop);
        RuleStore store(*settings);
        store.saveRules({makeRule(u"fake-mail"_s, std::nullopt, u"mail-browser"_s),
                         makeRule(u"fake-chat"_s, std::nullopt, u"chat-browser"_s),
                         makeRule(QString(), u"burst.example"_s, u"burst-browser"_s)});
        store.saveDefaultBrowserBundleID(u"fallback-browser"_s);
        SettingsKeys::writeTexts(*settings, SettingsKeys::EnabledHandoffs, {u"zoom"_s});
        // The history and today's count as an earlier version kept them: the first
        // start moves them into the history database.
        settings->setValue(
            u"forwarding_history"_s,
            ForwardingRecord::listToJson(
                {makeRecord(u"https://earlier.example/2"_s, u"Mail"_s, u"Fallback"_s),
                 makeRecord(u"https://earlier.example/1"_s, std::nullopt, u"Fallback"_s)}));
        settings->setValue(u"today_forward_count"_s, 5);
        settings->setValue(u"today_date"_s, HistoryStore::dayString(QDateTime::currentDateTime()));
        settings->sync();
    }

    void cleanupTestCase()
    {
        if (m_desktop)
            QVERIFY(InstalledQuillvane::stop());
    }

    void firstLinkStartsQuillvane()
    {
        QVERIFY(!InstalledQuillvane::isRunning());
        QCOMPARE(run(program(u"quillvane-open"_s), {u"https://example.com/first?utm_source=x"_s}),
                 0);
        QCOMPARE(m_desktop->opened(u"fallback-browser"_s),
                 QStringList{u"https://example.com/first"_s});
        QVERIFY(InstalledQuillvane::instancePid() > 0);

        // The count and the history are on disk, with what the settings file held
        // before (which it holds no more); the trail is in the runtime folder.
        QTRY_COMPARE(storedHistory().size(), 3);
        QCOMPARE(links(storedHistory()),
                 (QStringList{u"https://example.com/first?utm_source=x"_s,
                              u"https://earlier.example/2"_s, u"https://earlier.example/1"_s}));
        QCOMPARE(storedCount(), 6);
        QCOMPARE(stored()->allKeys().filter(u"forward"_s), QStringList());
        QCOMPARE(RuleStore(*stored()).loadRules().size(), 3);
        QCOMPARE(InstalledQuillvane::journalEntries(*m_desktop), 0);
        QVERIFY(trail().contains("] Routing URL: https://example.com/first?utm_source=x\n"));
        // Not the default browser, and no display to ask on: nothing waits for an answer.
        QVERIFY(trail().contains("] No display — skipping default browser prompt\n"));
        // From now on the desktop hands links to Quillvane.
        writeFile(m_desktop->configHome() + u"/mimeapps.list"_s,
                  "[Default Applications]\nx-scheme-handler/https=work.vorpa.Quillvane.desktop\n"
                  "x-scheme-handler/http=work.vorpa.Quillvane.desktop\n");
    }

    // The ways applications hand over links; each reaches the running instance,
    // and the source's rule decides.
    void linksFromApplications_data();
    void linksFromApplications()
    {
        QFETCH(QString, app);
        QFETCH(QString, command);
        QFETCH(QString, browser);
        QFETCH(QString, token);
        const qint64 instance = InstalledQuillvane::instancePid();
        m_desktop->forget(browser);
        command.replace(u"$BIN"_s, g_installed.prefix() + u"/bin"_s)
            .replace(u"$APPS"_s, m_desktop->userApplications());
        const QString shell = app.isEmpty() ? u"/bin/sh"_s : m_desktop->root() + u"/bin/"_s + app;
        QCOMPARE(run(shell, {u"-c"_s, command + u"; true"_s}), 0);
        static const QRegularExpression sent(u"https://example.com/[a-z-]+"_s);
        QCOMPARE(m_desktop->opened(browser), QStringList{sent.match(command).captured()});
        QCOMPARE(m_desktop->activationToken(browser), token);
        QCOMPARE(InstalledQuillvane::instancePid(), instance);
    }

    // A meeting link goes to the meeting app the desktop has, rewritten for it
    // (explain says so beforehand). With "Prefer a browser that is already
    // running", a link no rule matches goes to the browser started last while
    // the fallback browser does not run (a process that GIO's launch
    // environment names is the browser's).
    void appsAndRunningBrowsers()
    {
        const QString meeting = u"https://acme.zoom.us/j/85012345678?pwd=x1"_s;
        const QString rewritten = u"zoommtg://zoom.us/join?confno=85012345678&pwd=x1"_s;
        QVERIFY(g_installed.quillvane({u"explain"_s, meeting})
                    .out.contains(u"Handoff:    Zoom → "_s + rewritten + u'\n'));
        QCOMPARE(run(program(u"quillvane-open"_s), {meeting}), 0);
        QCOMPARE(m_desktop->opened(u"zoom-client"_s), QStringList{rewritten});
        QTRY_COMPARE(storedHistory().value(0).targetBrowserName, u"Zoom Workplace"_s);
        QCOMPARE(*storedHistory().value(0).decidedBy + storedHistory().value(0).decisionText(),
                 u"handoff:zoomHandoff: Zoom"_s);

        std::vector<std::unique_ptr<QProcess>> running;
        const auto cleanup = qScopeGuard([&] {
            g_installed.quillvane({u"feature"_s, u"preferRunningBrowser"_s, u"off"_s});
            for (const auto &process : running) {
                process->kill();
                process->waitForFinished();
            }
        });
        const auto opensIn = [&](const QString &browser, const QString &link) {
            m_desktop->forget(browser);
            return run(program(u"quillvane-open"_s), {link}) == 0
                   && m_desktop->opened(browser) == QStringList{link};
        };
        const auto start = [&](const QString &browser) {
            running.push_back(std::make_unique<QProcess>());
            running.back()->start(u"/bin/sh"_s,
                                  {u"-c"_s, u"export GIO_LAUNCHED_DESKTOP_FILE='%1/%2.desktop' "
                                            "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; exec cat"_s.arg(
                                                m_desktop->userApplications(), browser)});
            return running.back()->waitForStarted();
        };
        QVERIFY(start(u"chat-browser"_s));
        QVERIFY(opensIn(u"fallback-browser"_s, u"https://nomatch.example/off"_s));
        QCOMPARE(g_installed.quillvane({u"feature"_s, u"preferRunningBrowser"_s, u"on"_s}).exitCode,
                 0);
        QVERIFY(opensIn(u"chat-browser"_s, u"https://nomatch.example/1"_s));
        QVERIFY(start(u"mail-browser"_s));
        QVERIFY(opensIn(u"mail-browser"_s, u"https://nomatch.example/2"_s));
        QTRY_COMPARE(storedHistory().value(0).decidedBy.value_or(QString()), u"running"_s);
        QVERIFY(start(u"fallback-browser"_s));
        QVERIFY(opensIn(u"fallback-browser"_s, u"https://nomatch.example/3"_s));
    }

    void otherSchemesAreRefused()
    {
        QString errors;
        QCOMPARE(run(program(u"quillvane-open"_s), {u"file:///etc/passwd"_s}, &errors), 1);
        QVERIFY2(errors.contains(u"file:///etc/passwd"_s), qPrintable(errors));
        QCOMPARE(run(program(u"quillvane"_s), {u"javascript:alert(1)"_s}, &errors), 2);
    }

    // A thousand links at once, through a forwarder each and straight over the
    // bus: every sender is answered, each link opens once, the count takes them
    // all, and memory stays put from one thousand to the next.
    void thousandLinksAtOnce()
    {
        const qint64 pid = InstalledQuillvane::instancePid();
        qint64 resident = 0;
        // Twice: the first burst brings the instance to its working size, so
        // that the second shows what links cost once they are gone.
        for (int round = 0; round < 2; ++round) {
            forgetBursts();
            const qint64 countBefore = storedCount();
            QElapsedTimer clock;
            clock.start();
            QList<QProcess *> senders;
            const auto freeSenders = qScopeGuard([&senders] { qDeleteAll(senders); });
            // 500 through the forwarder (no more than 25 at a time, for the
            // machine's sake), 500 over the bus in calls of ten.
            for (int i = 0; i < 500; ++i) {
                senders.append(new QProcess(this));
                senders.last()->start(
                    program(u"quillvane-open"_s),
                    {u"https://burst.example/forwarded/%1/%2"_s.arg(round).arg(i)});
                if (i % 10 == 0) {
                    QStringList batch;
                    for (int j = i; j < i + 10; ++j)
                        batch.append(u"https://burst.example/bus/%1/%2"_s.arg(round).arg(j));
                    openLater(batch);
                }
                if (i >= 25)
                    QVERIFY(QTest::qWaitFor(
                        [&] { return senders.at(i - 25)->state() == QProcess::NotRunning; },
                        30000));
            }
            for (QProcess *sender : std::as_const(senders)) {
                QVERIFY(sender->state() == QProcess::NotRunning || sender->waitForFinished(60000));
                QVERIFY2(sender->exitStatus() == QProcess::NormalExit && sender->exitCode() == 0,
                         sender->readAllStandardError().constData());
            }
            qInfo("Round %d: every sender answered after %lld ms", round,
                  static_cast<long long>(clock.elapsed()));
            // How fast is for the figures in docs/RELIABILITY.md, measured on a
            // quiet machine; here only that all arrive, and once (a link opened
            // twice would be there too once the journal is empty).
            (void)QTest::qWaitFor(
                [&] {
                    return burstLog().size() >= 1000
                           && InstalledQuillvane::journalEntries(*m_desktop) == 0;
                },
                60000);
            const QStringList links = burstLog();
            qInfo("Round %d: 1,000 links opened in %lld ms", round,
                  static_cast<long long>(clock.elapsed()));
            QCOMPARE(links.size(), 1000);
            QCOMPARE(QSet<QString>(links.cbegin(), links.cend()).size(), 1000);
            QTRY_COMPARE_WITH_TIMEOUT(storedCount(), countBefore + 1000, 20000);
            const qint64 before = std::exchange(resident, residentKiB(pid));
            qInfo("Round %d: resident memory %lld KiB", round, static_cast<long long>(resident));
            // AddressSanitizer keeps freed memory aside to catch late uses: nothing to measure.
            if (round == 1 && !QUILLVANE_ADDRESS_SANITIZER)
                QVERIFY2(resident <= before * 11 / 10,
                         qPrintable(u"%1 → %2 KiB"_s.arg(before).arg(resident)));
        }
    }

    // The history as the command line shows it, from the same database, whether
    // or not Quillvane runs.
    void historyCommand()
    {
        const QString link = u"https://burst.example/for-the-command"_s;
        QVERIFY(opens({link}));
        QTRY_COMPARE(storedHistory().value(0).originalURL, link);
        const auto result =
            g_installed.quillvane({u"history"_s, u"--json"_s, u"--limit"_s, u"2"_s});
        const auto records = ForwardingRecord::listFromJson(result.out.toUtf8());
        QVERIFY2(result.exitCode == 0 && records && records->size() == 2,
                 qPrintable(result.out + result.err));
        QCOMPARE(records->first().originalURL + records->first().targetBrowserName,
                 link + u"Burst");
        QVERIFY(records->first().decidedBy);

        QVERIFY(InstalledQuillvane::stop());
        const auto text = g_installed.quillvane({u"history"_s});
        const QStringList lines = text.out.split(u'\n', Qt::SkipEmptyParts);
        QCOMPARE(text.exitCode, 0);
        QCOMPARE(lines.size(), storedHistory().size());
        QVERIFY2(lines.first().contains(u" › Burst  "_s)
                     && lines.first().contains(u"  "_s + records->first().decisionText() + u"  "_s)
                     && lines.first().endsWith(u"  "_s + link),
                 qPrintable(lines.first()));
        QVERIFY(!InstalledQuillvane::isRunning());
    }

    // Deleted while Quillvane runs: the next change writes it again whole, so the
    // rules and the fallback survive.
    void settingsDeletedWhileRunning()
    {
        QVERIFY(opens({u"https://burst.example/starting"_s}));
        const QString path = m_desktop->configHome() + u"/Quillvane/Quillvane.conf"_s;
        QVERIFY(QFile::remove(path));
        // A link writes nothing there.
        QVERIFY(opens({u"https://burst.example/after-delete"_s}));
        QTRY_COMPARE(storedHistory().value(0).originalURL, u"https://burst.example/after-delete"_s);
        QVERIFY(!QFile::exists(path));

        QVERIFY(answered(
            InstalledQuillvane::automation(u"ToggleFeature"_s, {u"urlExpansion"_s, true})));
        QCOMPARE(RuleStore(*stored()).loadRules().size(), 3);
        QCOMPARE(stored()->value(u"default_browser_bundle_id"_s), u"fallback-browser"_s);
        QCOMPARE(stored()->value(u"url_expansion_enabled"_s).toBool(), true);
        InstalledQuillvane::automation(u"ToggleFeature"_s, {u"urlExpansion"_s, false});
    }

    // The history database cannot be written: the disk fills up while Quillvane
    // runs (a small tmpfs), or it starts on a read-only one (a read-only bind
    // mount). Links still open, the failure is logged, and once writing works
    // again the links routed meanwhile are in the history, written by the next
    // link or by quitting on SIGTERM (as at logout). (Another process's lock is
    // tst_history's, in-process.)
    void historyThatCannotBeWritten_data()
    {
        QTest::addColumn<bool>("fills");
        QTest::newRow("disk fills up") << true;
        QTest::newRow("read-only disk, then quit") << false;
    }

    void historyThatCannotBeWritten()
    {
        QFETCH(bool, fills);
        const QString folder = m_desktop->stateHome() + u"/Quillvane"_s;
        QVERIFY(opens({u"https://other.example/before-the-fault"_s}));
        QTRY_COMPARE(storedHistory().value(0).originalURL,
                     u"https://other.example/before-the-fault"_s);
        QVERIFY(InstalledQuillvane::stop());
        {
            // Everything in the database file, so that it fits a small disk (a
            // Quillvane that is stopped leaves its write-ahead log behind).
            Sqlite::Error error;
            const auto database = Sqlite::Database::open(
                folder + u"/history.sqlite3"_s, Sqlite::Database::Mode::ReadWriteCreate, &error);
            QVERIFY2(database, qPrintable(error.message));
            database->exec("PRAGMA wal_checkpoint(TRUNCATE)");
            QVERIFY(!database->error());
        }
        // The database with its write-ahead log, as files to carry between folders.
        const auto filesIn = [&folder] {
            QMap<QString, QByteArray> files;
            for (const QString &name : QDir(folder).entryList({u"history.sqlite3*"_s}, QDir::Files))
                files.insert(name, readFile(folder + u'/' + name));
            return files;
        };
        const auto putBack = [&folder](const QMap<QString, QByteArray> &files) {
            for (const QString &name : QDir(folder).entryList({u"history.sqlite3*"_s}, QDir::Files))
                QFile::remove(folder + u'/' + name);
            for (auto file = files.cbegin(); file != files.cend(); ++file)
                writeFile(folder + u'/' + file.key(), file.value());
        };
        const QMap<QString, QByteArray> onDisk = filesIn();
        QVERIFY(onDisk.value(u"history.sqlite3"_s).size() > 1024);
        const QString quoted = u"'"_s + folder + u"'"_s;
        const auto shell = [](const QString &command) {
            return QProcess::execute(u"sh"_s, {u"-c"_s, command + u" 2>/dev/null"_s}) == 0;
        };
        if (fills && !shell(u"mount -t tmpfs -o size=4m quillvane-test "_s + quoted))
            QSKIP("needs the permission to mount a tmpfs");
        if (!fills && !shell(u"mount --bind %1 %1 && mount -o remount,bind,ro %1"_s.arg(quoted)))
            QSKIP("needs the permission to make a read-only bind mount");
        if (fills)
            putBack(onDisk);
        QProcess instance;
        instance.setProcessChannelMode(QProcess::MergedChannels);
        // What the instance wrote there goes back to the real folder.
        const auto cleanup = qScopeGuard([&] {
            InstalledQuillvane::stop();
            instance.waitForFinished(5000);
            QFile::remove(folder + u"/filler"_s);
            const QMap<QString, QByteArray> written = filesIn();
            if (shell(u"umount "_s + quoted))
                putBack(written);
        });
        instance.start(program(u"quillvane"_s), {});
        QTRY_VERIFY_WITH_TIMEOUT(InstalledQuillvane::instancePid() == instance.processId(), 10000);
        QStringList expected{u"https://other.example/before-the-fault"_s};
        const auto route = [&](const QString &link) {
            expected.prepend(link);
            return opens({link});
        };
        if (fills) {
            // Written while there is room; then the disk is full to the last block.
            QVERIFY(route(u"https://other.example/before-the-fill"_s));
            QTRY_COMPARE(storedHistory().value(0).originalURL, expected[0]);
            shell(u"cat /dev/zero > %1/filler"_s.arg(quoted));
        }
        m_desktop->forget(u"fallback-browser"_s);
        for (int i = 0; i < 3; ++i)
            QVERIFY(route(u"https://other.example/cannot-write/%1"_s.arg(i)));
        QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
        QByteArray said;
        QTRY_VERIFY((said += instance.readAll()).contains("Could not write the history database"));

        QVERIFY(fills ? QFile::remove(folder + u"/filler"_s)
                      : shell(u"mount -o remount,bind,rw "_s + quoted));
        if (!fills) {
            QCOMPARE(::kill(pid_t(instance.processId()), SIGTERM), 0);
            QVERIFY(instance.waitForFinished(10000));
            QCOMPARE(instance.exitStatus(), QProcess::NormalExit);
            QCOMPARE(instance.exitCode(), 0);
        } else {
            QVERIFY(route(u"https://other.example/can-write"_s));
            QVERIFY2(
                QTest::qWaitFor([&] { return storedHistory().value(0).originalURL == expected[0]; },
                                20000),
                (said += instance.readAll()).constData());
            QTRY_VERIFY((said += instance.readAll()).contains("can be written again"));
        }
        QCOMPARE(links(storedHistory()).mid(0, expected.size()), expected);
        // Logged once. (Where the disk fills, a new connection may free the room
        // its old write-ahead log took, until the log fills it again.)
        if (!fills)
            QCOMPARE((said += instance.readAll()).count("Could not write the history database"), 1);
    }

    // Killed while links arrive, at any moment: every link whose sender was told
    // that Quillvane has it opens, after the next start if not before; at most the
    // one being started at the moment of the kill opens twice.
    void killedWhileLinksArrive()
    {
        for (int round = 0; round < 6; ++round) {
            forgetBursts();
            QVERIFY2(opens({u"https://burst.example/start/%1"_s.arg(round)}),
                     qPrintable(u"round %1"_s.arg(round)));
            const qint64 pid = InstalledQuillvane::instancePid();
            // 32 requests of ten links, as fast as they go; the bus does not start
            // Quillvane again for those still queued when it dies: the test does.
            QList<std::pair<QStringList, QDBusPendingCall>> calls;
            for (int i = 0; i < 32; ++i) {
                QStringList links;
                for (int j = 0; j < 10; ++j)
                    links.append(u"https://burst.example/kill/%1/%2"_s.arg(round).arg(i * 10 + j));
                calls.append({links, openLater(links, false)});
            }
            // Killed as soon as the first request is answered, then after more and
            // more links have opened: at different points of intake and launches.
            QVERIFY(QTest::qWaitFor(
                [&] {
                    return round == 0 ? calls.first().second.isFinished()
                                      : burstLog().size() >= 40 * round;
                },
                30000));
            QCOMPARE(::kill(pid_t(pid), SIGKILL), 0);
            QSet<QString> missing;
            for (auto &[links, call] : calls) {
                call.waitForFinished();
                if (!call.isError())
                    missing.unite(QSet<QString>(links.cbegin(), links.cend()));
            }
            const qsizetype accepted = missing.size();
            QTRY_VERIFY(!InstalledQuillvane::isRunning());

            // The next start routes what the killed one accepted and did not open.
            QVERIFY(opens({u"https://burst.example/restart/%1"_s.arg(round)}));
            const auto stillMissing = [&] {
                const QStringList opened = burstLog();
                missing.subtract(QSet<QString>(opened.cbegin(), opened.cend()));
                return missing.isEmpty();
            };
            (void)QTest::qWaitFor(stillMissing, 30000);
            QVERIFY2(missing.isEmpty(),
                     qPrintable(u"round %1: %2 of %3 accepted links never opened:\n%4"_s.arg(round)
                                    .arg(missing.size())
                                    .arg(accepted)
                                    .arg(missing.values().join(u'\n'))));
            QTRY_COMPARE(InstalledQuillvane::journalEntries(*m_desktop), 0);
            const QStringList opened = burstLog();
            const qsizetype twice =
                opened.size() - QSet<QString>(opened.cbegin(), opened.cend()).size();
            QVERIFY2(twice <= 1,
                     qPrintable(u"round %1: %2 links opened twice"_s.arg(round).arg(twice)));
            qInfo("Round %d: %lld of 320 links accepted before the kill, all opened, %lld twice",
                  round, static_cast<long long>(accepted), static_cast<long long>(twice));
        }
        // The kills did land while accepted links waited to be opened.
        // (The trail starts a new file at 4 MiB, keeping one older: this test's
        // lines are in the two.)
        const QByteArray replayed =
            "] Routing URL accepted before a restart: https://burst.example/kill/";
        QVERIFY(trail().count(replayed)
                    + readFile(m_desktop->root() + u"/run/Quillvane.log.old"_s).count(replayed)
                > 0);
    }

    // The desktop's bus goes away (a crashed or restarted session bus): Quillvane
    // ends cleanly instead of running on deaf (the next bus starts it as any
    // bus does, on the next link).
    void sessionBusRestarts()
    {
        QVERIFY(InstalledQuillvane::stop());
        QProcess bus;
        bus.start(
            u"dbus-daemon"_s,
            {u"--config-file="_s
                 + QStringLiteral(QUILLVANE_E2E_PREFIX).replace(u"-prefix"_s, u"-session.conf"_s),
             u"--print-address=1"_s, u"--nofork"_s});
        QVERIFY(bus.waitForReadyRead(10000));
        const QString address = QString::fromUtf8(bus.readLine()).trimmed();
        QProcess instance;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, address);
        instance.setProcessEnvironment(environment);
        instance.start(program(u"quillvane"_s), {});
        {
            QDBusConnection connection = QDBusConnection::connectToBus(address, u"first"_s);
            QTRY_VERIFY_WITH_TIMEOUT(connection.interface()->isServiceRegistered(AppId), 10000);
        }
        QDBusConnection::disconnectFromBus(u"first"_s);
        bus.terminate();
        QVERIFY(bus.waitForFinished(5000));
        QTRY_COMPARE_WITH_TIMEOUT(instance.state(), QProcess::NotRunning, 5000);
        QCOMPARE(instance.exitStatus(), QProcess::NormalExit);
        QCOMPARE(instance.exitCode(), 0);
    }

    void twoInstancesAtOnce()
    {
        QVERIFY(InstalledQuillvane::stop());
        forgetBursts();
        QProcess first;
        QProcess second;
        first.start(program(u"quillvane"_s), {u"https://burst.example/first"_s});
        second.start(program(u"quillvane"_s), {u"https://burst.example/second"_s});
        QTRY_COMPARE_WITH_TIMEOUT(burstLog().size(), 2, 20000);
        const QStringList links = burstLog();
        QCOMPARE(
            QSet<QString>(links.cbegin(), links.cend()),
            (QSet<QString>{u"https://burst.example/first"_s, u"https://burst.example/second"_s}));
        // One of them owns the name and keeps running; the other handed over its link.
        QTRY_VERIFY(first.state() == QProcess::NotRunning
                    || second.state() == QProcess::NotRunning);
        QProcess &instance = first.state() == QProcess::Running ? first : second;
        QCOMPARE((&instance == &first ? second : first).exitCode(), 0);
        QCOMPARE(InstalledQuillvane::instancePid(), instance.processId());
        QVERIFY(InstalledQuillvane::stop());
        QTRY_COMPARE(instance.state(), QProcess::NotRunning);
    }

    // Started from a terminal, Quillvane logs to standard error: the lines name
    // no link, host or browser unless asked to (the trail file does, by design),
    // but the cleaner's, which names the link's scheme, host and path and the
    // parameters it removed, and never its query or fragment.
    void systemLogKeepsLinksPrivate()
    {
        QVERIFY(InstalledQuillvane::stop());
        forgetBursts();
        QProcess instance;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(u"QUILLVANE_LOG_PRIVATE"_s);
        environment.remove(u"QT_LOGGING_RULES"_s);
        instance.setProcessEnvironment(environment);
        instance.start(program(u"quillvane"_s), {u"https://burst.example/secret-1"_s});
        QTRY_COMPARE_WITH_TIMEOUT(burstLog().size(), 1, 20000);
        m_desktop->forget(u"fallback-browser"_s);
        QCOMPARE(run(program(u"quillvane-open"_s), {u"https://secret.example/secret-2"_s}), 0);
        QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
        m_desktop->forget(u"fallback-browser"_s);
        QCOMPARE(run(program(u"quillvane-open"_s),
                     {u"https://tracked.example/reset?utm_source=mail&token=t0k3n#frag"_s}),
                 0);
        QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
        QVERIFY(InstalledQuillvane::stop());
        QTRY_COMPARE(instance.state(), QProcess::NotRunning);
        const QByteArray errors = instance.readAllStandardError();
        QVERIFY2(errors.contains("<private>") && !errors.contains("secret")
                     && !errors.contains("Fallback") && !errors.contains("burst.example")
                     && !errors.contains("t0k3n") && !errors.contains("frag")
                     && errors.contains("] info: Removed 1 tracking param(s) (utm_source): "
                                        "https://tracked.example/reset?…#… → "
                                        "https://tracked.example/reset?…#…\n"),
                 errors.constData());
    }

private:
    QString burstLogPath() const { return m_desktop->root() + u"/burst.log"_s; }
    QStringList burstLog() const
    {
        return QString::fromUtf8(readFile(burstLogPath())).split(u'\n', Qt::SkipEmptyParts);
    }
    void forgetBursts() const { QFile::remove(burstLogPath()); }
    // What Quillvane has stored, read afresh each time.
    std::unique_ptr<QSettings> stored() const
    {
        return InstalledQuillvane::storedSettings(*m_desktop);
    }
    QList<ForwardingRecord> storedHistory() const
    {
        return InstalledQuillvane::storedHistory(*m_desktop);
    }
    qint64 storedCount() const { return InstalledQuillvane::storedForwardCount(*m_desktop); }
    QByteArray trail() const { return readFile(m_desktop->root() + u"/run/Quillvane.log"_s); }

    std::unique_ptr<FakeDesktop> m_desktop;
};

// The table stands outside the class: moc reads a raw string as an ordinary one.
// $BIN: the installation's programs, $APPS: the entries; no app: the plain shell.
// Outside a known desktop xdg-open runs the handler's Exec line itself (only
// when it believes a display is there).
void TestEndToEnd::linksFromApplications_data()
{
    addRows({u"app"_s, u"command"_s, u"browser"_s, u"token"_s}, uR"(
forwarder as a child   | fake-mail | $BIN/quillvane-open https://example.com/from-mail | mail-browser |
GIO launch environment |           | export GIO_LAUNCHED_DESKTOP_FILE='$APPS/fake-chat.desktop' GIO_LAUNCHED_DESKTOP_FILE_PID=$$; exec $BIN/quillvane-open https://example.com/gio-env | chat-browser |
gio open               | fake-mail | gio open https://example.com/via-gio                 | mail-browser |
xdg-open               | fake-chat | DISPLAY=:0 xdg-open https://example.com/via-xdg      | chat-browser |
quillvane typed        | fake-mail | $BIN/quillvane https://example.com/typed             | mail-browser |
bus, with a token      | fake-mail | gdbus call --session --dest work.vorpa.Quillvane --object-path /work/vorpa/Quillvane --method org.freedesktop.Application.Open "['https://example.com/by-dbus']" "{'activation-token': <'token-42'>}" | mail-browser | token-42
)");
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
