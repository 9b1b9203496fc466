// Quillvane installed and really started: a session bus of the test's own
// (dbus-run-session) starts it on the first link, fake applications with
// desktop entries of their own open links the ways real ones do, and fake
// browsers record what they were given.
#include "App/LinkSocket.h"
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Storage/HistoryStore.h"
#include "TestSupport.h"

#include <QSettings>
#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QDBusConnectionInterface>
#include <QDBusPendingCall>
#include <QDir>
#include <QLocalSocket>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <signal.h>
#include <sys/socket.h>

using namespace Qt::Literals::StringLiterals;

namespace {
const QString AppId = u"work.vorpa.Quillvane"_s;
InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));
const QString Quillvane = g_installed.program(u"quillvane"_s);
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
        // A line per link of the bursts below would bury what a failure says.
        qputenv("QT_LOGGING_RULES", "work.vorpa.Quillvane.*.info=false");
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

        // The settings file of an earlier version, as it wrote it: the first start
        // moves the configuration into the new file and the history and today's
        // count into the history database, and keeps the old file aside.
        QSettings settings(legacyPath(), QSettings::IniFormat);
        settings.setValue(u"routing_rules"_s,
                          RoutingRule::listToJson(
                              {makeRule(u"fake-mail"_s, std::nullopt, u"mail-browser"_s),
                               makeRule(u"fake-chat"_s, std::nullopt, u"chat-browser"_s),
                               makeRule(QString(), u"burst.example"_s, u"burst-browser"_s)}));
        settings.setValue(u"default_browser_bundle_id"_s, u"fallback-browser"_s);
        settings.setValue(u"handoffs_enabled"_s, QByteArray(R"(["zoom"])"));
        settings.setValue(u"url_unwrapping_enabled"_s, false);
        settings.setValue(
            u"forwarding_history"_s,
            ForwardingRecord::listToJson(
                {makeRecord(u"https://earlier.example/2"_s, u"Mail"_s, u"Fallback"_s),
                 makeRecord(u"https://earlier.example/1"_s, std::nullopt, u"Fallback"_s)}));
        settings.setValue(u"today_forward_count"_s, 5);
        settings.setValue(u"today_date"_s, HistoryStore::dayString(QDateTime::currentDateTime()));
        settings.sync();
    }

    void cleanupTestCase()
    {
        if (m_desktop)
            QVERIFY(InstalledQuillvane::stop());
    }

    void firstLinkStartsQuillvane()
    {
        QVERIFY(!InstalledQuillvane::isRunning());
        QCOMPARE(g_installed.forward(u"https://example.com/first?utm_source=x"_s), 0);
        QCOMPARE(m_desktop->opened(u"fallback-browser"_s),
                 QStringList{u"https://example.com/first"_s});
        QVERIFY(InstalledQuillvane::instancePid() > 0);

        // The count and the history are on disk, with what the old settings file
        // held; the configuration is in its new file; the trail is in the runtime folder.
        QTRY_COMPARE(storedHistory().size(), 3);
        QCOMPARE(links(storedHistory()),
                 (QStringList{u"https://example.com/first?utm_source=x"_s,
                              u"https://earlier.example/2"_s, u"https://earlier.example/1"_s}));
        QCOMPARE(storedCount(), 6);
        QVERIFY(!QFileInfo::exists(legacyPath())
                && QFileInfo::exists(legacyPath() + u".migrated"_s));
        QCOMPARE(stored().rules.size(), 3);
        QVERIFY(stored().handoffs == QStringList{u"zoom"_s} && !stored().urlUnwrappingEnabled);
        QCOMPARE(InstalledQuillvane::journalEntries(*m_desktop), 0);
        QVERIFY(trail().contains("] Routing URL: https://example.com/first?utm_source=x\n"));
        QVERIFY(trail().contains(" ms after the request arrived, asked to start after "));
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
        QCOMPARE(InstalledQuillvane::run(shell, {u"-c"_s, command + u"; true"_s}).exitCode, 0);
        static const QRegularExpression sent(u"https://example.com/[a-z-]+"_s);
        QCOMPARE(m_desktop->opened(browser), QStringList{sent.match(command).captured()});
        QCOMPARE(m_desktop->activationToken(browser), token);
        QCOMPARE(InstalledQuillvane::instancePid(), instance);
    }

    // A caller that passes a socket of its own making and claims to be another
    // process (a mail client's) is not believed: the link is its own.
    void claimsNeedTheirProof()
    {
        QProcess mail;
        mail.start(m_desktop->root() + u"/bin/fake-mail"_s, {u"-c"_s, u"read line"_s});
        int pair[2];
        QVERIFY(mail.waitForStarted() && ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0);
        const QDBusUnixFileDescriptor proof(pair[0]); // made by this test, not by the mail client
        for (const QString &browser : {u"fallback-browser"_s, u"mail-browser"_s})
            m_desktop->forget(browser);
        QVERIFY(InstalledQuillvane::opens({u"https://example.com/claimed"_s},
                                          {{u"sender-pid"_s, uint(mail.processId())},
                                           {u"sender-socket"_s, QVariant::fromValue(proof)}}));
        QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s) && !m_desktop->ran(u"mail-browser"_s));
        mail.kill();
        mail.waitForFinished();
    }

    // quillvane-open's socket acts on a whole, well-formed request only, and
    // says why it refuses one (the forwarder prints it).
    void theSocketTakesWholeRequestsOnly()
    {
        const auto fields = [](const QByteArrayList &parts) -> QByteArray {
            return parts.join('\0') + QByteArray(2, '\0');
        };
        const auto ask = [](const QByteArray &request) -> QByteArray {
            QLocalSocket socket;
            socket.connectToServer(LinkSocket::path());
            if (!socket.waitForConnected(5000))
                return QByteArray("not connected");
            socket.write(request);
            QByteArray answer;
            while (socket.state() == QLocalSocket::ConnectedState && socket.waitForReadyRead(10000))
                answer += socket.readAll();
            return answer + socket.readAll();
        };
        m_desktop->forget(u"fallback-browser"_s);
        QVERIFY(ask(fields({"link=ftp://example.com/x"}))
                    .startsWith("1Quillvane refused these links: ftp://example.com/x"));
        QVERIFY(ask(fields({"link=https://example.com/a", "color=red"})).contains("\"color\""));
        QVERIFY(ask(QByteArray(LinkSocket::MaxRequest + 1, 'x')).startsWith("1"));
        QCOMPARE(ask(fields({"link=https://example.com/by-socket"})), "0");
        QCOMPARE(m_desktop->opened(u"fallback-browser"_s),
                 QStringList{u"https://example.com/by-socket"_s});
    }

    // Ended while links arrive, at any moment and however: every link whose
    // sender was told that Quillvane has it opens, after the next start if not
    // before, and at most the one being started at that moment opens twice.
    // (Clock steps between the two runs, and a second Quillvane that does not
    // write the history: tst_history's journal and oneWriter.)
    void acceptedLinksSurvive_data()
    {
        addRows({u"signal"_s, u"after"_s}, uR"(
killed at the first answer  | KILL | 0
killed after 40 opened      | KILL | 40
killed after 140 opened     | KILL | 140
terminal closed             | HUP  | 0
terminated                  | TERM | 40
)");
    }
    void acceptedLinksSurvive()
    {
        QFETCH(QString, signal);
        QFETCH(QString, after);
        const QString round = QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'-');
        forgetBursts();
        QVERIFY(InstalledQuillvane::stop());
        const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
        const QString busName = u"links-%1"_s.arg(round);
        QDBusConnection connection = QDBusConnection::connectToBus(address, busName);
        const auto disconnect = qScopeGuard([&] { QDBusConnection::disconnectFromBus(busName); });
        auto instance = startInstance(address);
        QVERIFY(waitForName(connection));

        // 20 requests of ten links, as fast as they go: the first hundred start
        // at once, the rest at the pace browsers start.
        QList<std::pair<QStringList, QDBusPendingCall>> calls;
        for (int i = 0; i < 20; ++i) {
            QStringList batch;
            for (int j = 0; j < 10; ++j)
                batch.append(u"https://burst.example/%1/%2"_s.arg(round).arg(i * 10 + j));
            QDBusMessage call = QDBusMessage::createMethodCall(
                AppId, u"/work/vorpa/Quillvane"_s, u"org.freedesktop.Application"_s, u"Open"_s);
            call << batch << QVariantMap();
            call.setAutoStartService(false);
            calls.append({batch, connection.asyncCall(call)});
        }
        QVERIFY(QTest::qWaitFor(
            [&] {
                return after == u"0" ? calls.first().second.isFinished()
                                     : burstLog().size() >= after.toInt();
            },
            30000));
        const int number = signal == u"HUP" ? SIGHUP : signal == u"TERM" ? SIGTERM : SIGKILL;
        QCOMPARE(::kill(pid_t(instance->processId()), number), 0);
        QVERIFY(instance->waitForFinished(20000));
        // Ending on a signal of the terminal or the session is a clean quit.
        if (number != SIGKILL)
            QVERIFY2(instance->exitStatus() == QProcess::NormalExit && instance->exitCode() == 0,
                     instance->readAllStandardError().constData());
        QSet<QString> missing;
        for (auto &[links, call] : calls) {
            call.waitForFinished();
            if (!call.isError())
                missing.unite(QSet<QString>(links.cbegin(), links.cend()));
        }
        const qsizetype accepted = missing.size();
        QVERIFY(accepted > 0);

        // The next start opens what the ended one accepted and did not open.
        instance = startInstance(address);
        const auto stillMissing = [&] {
            const QStringList opened = burstLog();
            missing.subtract(QSet<QString>(opened.cbegin(), opened.cend()));
            return missing.isEmpty();
        };
        (void)QTest::qWaitFor(stillMissing, 60000);
        QVERIFY2(missing.isEmpty(),
                 qPrintable(u"%1 of %2 accepted links never opened:\n%3"_s.arg(missing.size())
                                .arg(accepted)
                                .arg(missing.values().join(u'\n'))));
        QTRY_COMPARE_WITH_TIMEOUT(InstalledQuillvane::journalEntries(*m_desktop), 0, 20000);
        const QStringList opened = burstLog();
        const qsizetype twice = opened.size() - QSet<QString>(opened.cbegin(), opened.cend()).size();
        QVERIFY2(twice <= 1, qPrintable(u"%1 links opened twice"_s.arg(twice)));
        instance->terminate();
        QVERIFY(instance->waitForFinished(20000));
    }

    // The desktop's bus goes away (a crashed or restarted session bus): Quillvane
    // ends cleanly instead of running on deaf (the next bus starts it as any
    // bus does, on the next link).
    void sessionBusRestarts()
    {
        QVERIFY(InstalledQuillvane::stop());
        QProcess bus;
        const QString address = startBus(bus);
        const auto instance = startInstance(address);
        {
            QDBusConnection connection = QDBusConnection::connectToBus(address, u"first"_s);
            QVERIFY(waitForName(connection));
        }
        QDBusConnection::disconnectFromBus(u"first"_s);
        bus.terminate();
        QVERIFY(bus.waitForFinished(5000));
        QTRY_COMPARE_WITH_TIMEOUT(instance->state(), QProcess::NotRunning, 5000);
        QCOMPARE(instance->exitStatus(), QProcess::NormalExit);
        QCOMPARE(instance->exitCode(), 0);
    }

    void twoInstancesAtOnce()
    {
        QVERIFY(InstalledQuillvane::stop());
        forgetBursts();
        QProcess first;
        QProcess second;
        first.start(Quillvane, {u"https://burst.example/first"_s});
        second.start(Quillvane, {u"https://burst.example/second"_s});
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

private:
    // A session bus of its own (another login, a nested session): its address.
    QString startBus(QProcess &daemon) const
    {
        daemon.start(u"dbus-daemon"_s,
                     {u"--config-file="_s
                          + QStringLiteral(QUILLVANE_E2E_PREFIX)
                                .replace(u"-prefix"_s, u"-session.conf"_s),
                      u"--print-address=1"_s, u"--nofork"_s});
        if (!daemon.waitForReadyRead(10000))
            return {};
        return QString::fromUtf8(daemon.readLine()).trimmed();
    }
    // Quillvane started on that bus.
    std::unique_ptr<QProcess> startInstance(const QString &address) const
    {
        auto instance = std::make_unique<QProcess>();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, address);
        instance->setProcessEnvironment(environment);
        instance->start(Quillvane, {});
        return instance;
    }
    static bool waitForName(const QDBusConnection &connection)
    {
        return QTest::qWaitFor([&] { return connection.interface()->isServiceRegistered(AppId); },
                               20000);
    }

    QString burstLogPath() const { return m_desktop->root() + u"/burst.log"_s; }
    QStringList burstLog() const
    {
        return QString::fromUtf8(readFile(burstLogPath())).split(u'\n', Qt::SkipEmptyParts);
    }
    void forgetBursts() const { QFile::remove(burstLogPath()); }
    // What Quillvane has stored, read afresh each time.
    Config stored() const { return InstalledQuillvane::stored(*m_desktop); }
    QString legacyPath() const { return m_desktop->configHome() + u"/Quillvane/Quillvane.conf"_s; }
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
bus, claiming init     | fake-mail | gdbus call --session --dest work.vorpa.Quillvane --object-path /work/vorpa/Quillvane --method org.freedesktop.Application.Open "['https://example.com/false-claim']" "{'sender-pid': <uint32 1>}" | mail-browser |
)");
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
