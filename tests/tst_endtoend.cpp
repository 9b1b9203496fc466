// Quillvane installed and really started: a session bus of the test's own
// (dbus-run-session) starts it on the first link, fake applications with
// desktop entries of their own open links the ways real ones do, and fake
// browsers record what they were given.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Storage/HistoryStore.h"
#include "Storage/RuleStore.h"
#include "Storage/UserSettings.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMetaType>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include <signal.h>

using namespace Qt::Literals::StringLiterals;

namespace {
const QString AppId = u"work.vorpa.Quillvane"_s;
InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));

QString program(const QString &name)
{
    return g_installed.program(name);
}
} // namespace

class TestEndToEnd final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void firstLinkStartsQuillvane();
    void sourceByParentChain();
    void sourceByGioLaunchEnvironment();
    void gioOpenWithQuillvaneAsDefault();
    void xdgOpenFromAChildProcess();
    void dbusOpenDirectly();
    void typedQuillvaneUrlIsForwarded();
    void otherSchemesAreRefused();
    void burstOfLinks();
    void twoInstancesAtOnce();

private:
    int run(const QString &command, const QStringList &arguments, QString *errors = nullptr);
    QString sourceApp(const QString &id);
    static qint64 instancePid() { return InstalledQuillvane::instancePid(); }
    static void stopInstance() { QVERIFY(InstalledQuillvane::stop()); }
    QStringList burstLog() const;

    std::unique_ptr<FakeDesktop> m_desktop;
};

void TestEndToEnd::initTestCase()
{
    if (!QDBusConnection::sessionBus().isConnected())
        QSKIP("needs a session bus: run under dbus-run-session");
    m_desktop = std::make_unique<FakeDesktop>();
    QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));

    m_desktop->addBrowser(u"fallback-browser"_s, u"Fallback"_s);
    m_desktop->addBrowser(u"mail-browser"_s, u"Mail Browser"_s);
    m_desktop->addBrowser(u"chat-browser"_s, u"Chat Browser"_s);
    // Appends every link it gets, for counting.
    const QString burst = m_desktop->root() + u"/bin/burst-recorder"_s;
    QFile script(burst);
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/bin/sh\nprintf '%s\\n' \"$1\" >> '" + QFile::encodeName(m_desktop->root())
                 + "/burst.log'\n");
    script.close();
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_desktop->addBrowser(u"burst-browser"_s, u"Burst"_s, {}, burst + u" %u"_s);
    sourceApp(u"fake-mail"_s);
    sourceApp(u"fake-chat"_s);

    auto settings = InstalledQuillvane::storedSettings(*m_desktop);
    RuleStore store(*settings);
    store.saveRules({makeRule(u"fake-mail"_s, std::nullopt, u"mail-browser"_s),
                     makeRule(u"fake-chat"_s, std::nullopt, u"chat-browser"_s),
                     makeRule(QString(), u"burst.example"_s, u"burst-browser"_s)});
    store.saveDefaultBrowserBundleID(u"fallback-browser"_s);
}

void TestEndToEnd::cleanupTestCase()
{
    if (m_desktop)
        stopInstance();
}

// A source application: a copy of the shell under a name of its own, with a
// desktop entry that names it, so that its process maps to it.
QString TestEndToEnd::sourceApp(const QString &id)
{
    const QString binary = m_desktop->root() + u"/bin/"_s + id;
    QFile::remove(binary);
    QFile::copy(u"/bin/sh"_s, binary);
    QFile::setPermissions(binary, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    m_desktop->writeEntry(
        id, u"[Desktop Entry]\nType=Application\nName=%1\nExec=%2\n"_s.arg(id.toUpper(), binary));
    return binary;
}

int TestEndToEnd::run(const QString &command, const QStringList &arguments, QString *errors)
{
    const auto result = InstalledQuillvane::run(command, arguments);
    if (errors)
        *errors = result.err;
    return result.exitCode;
}

QStringList TestEndToEnd::burstLog() const
{
    QFile file(m_desktop->root() + u"/burst.log"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

void TestEndToEnd::firstLinkStartsQuillvane()
{
    QVERIFY(!QDBusConnection::sessionBus().interface()->isServiceRegistered(AppId));
    QCOMPARE(run(program(u"quillvane-open"_s), {u"https://example.com/first?utm_source=x"_s}), 0);
    QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
    QCOMPARE(m_desktop->arguments(u"fallback-browser"_s),
             QStringList{u"https://example.com/first"_s});
    QVERIFY(instancePid() > 0);

    // The count and the history are on disk; the trail is in the runtime folder.
    // Read afresh each time: an open settings object keeps what it read first.
    const auto stored = [this] { return InstalledQuillvane::storedSettings(*m_desktop); };
    QTRY_COMPARE(HistoryStore::loadHistory(*stored()).size(), 1);
    const auto settings = stored();
    QCOMPARE(settings->value(u"today_forward_count"_s).toInt(), 1);
    QFile trail(m_desktop->root() + u"/run/Quillvane.log"_s);
    QVERIFY(trail.open(QIODevice::ReadOnly));
    const QByteArray lines = trail.readAll();
    QVERIFY(lines.contains("] Routing URL: https://example.com/first?utm_source=x\n"));
    QVERIFY(lines.contains("[AppState] routeURL() — SUCCESS opened in Fallback\n"));
}

void TestEndToEnd::sourceByParentChain()
{
    // Like an application that runs xdg-open: the forwarder is its child.
    m_desktop->forget(u"mail-browser"_s);
    const QString command =
        program(u"quillvane-open"_s) + u" https://example.com/from-mail; true"_s;
    QCOMPARE(run(m_desktop->root() + u"/bin/fake-mail"_s, {u"-c"_s, command}), 0);
    QVERIFY(m_desktop->waitForRun(u"mail-browser"_s));
    QCOMPARE(m_desktop->arguments(u"mail-browser"_s),
             QStringList{u"https://example.com/from-mail"_s});
}

void TestEndToEnd::sourceByGioLaunchEnvironment()
{
    // A process that GIO started from fake-chat's entry, opening a link itself.
    m_desktop->forget(u"chat-browser"_s);
    const QString command = u"export GIO_LAUNCHED_DESKTOP_FILE='%1/fake-chat.desktop' "
                            u"GIO_LAUNCHED_DESKTOP_FILE_PID=$$; "
                            "exec %2 https://example.com/from-chat"_s.arg(
                                m_desktop->userApplications(), program(u"quillvane-open"_s));
    QCOMPARE(run(u"/bin/sh"_s, {u"-c"_s, command}), 0);
    QVERIFY(m_desktop->waitForRun(u"chat-browser"_s));
    QCOMPARE(m_desktop->arguments(u"chat-browser"_s),
             QStringList{u"https://example.com/from-chat"_s});
}

void TestEndToEnd::gioOpenWithQuillvaneAsDefault()
{
    if (QStandardPaths::findExecutable(u"gio"_s).isEmpty())
        QSKIP("gio (libglib2.0-bin) is not installed");
    QFile mimeapps(m_desktop->configHome() + u"/mimeapps.list"_s);
    QVERIFY(mimeapps.open(QIODevice::WriteOnly));
    mimeapps.write("[Default Applications]\nx-scheme-handler/https=work.vorpa.Quillvane.desktop\n"
                   "x-scheme-handler/http=work.vorpa.Quillvane.desktop\n");
    mimeapps.close();
    m_desktop->forget(u"mail-browser"_s);
    QCOMPARE(run(m_desktop->root() + u"/bin/fake-mail"_s,
                 {u"-c"_s, u"gio open https://example.com/via-gio; true"_s}),
             0);
    QVERIFY(m_desktop->waitForRun(u"mail-browser"_s));
    QCOMPARE(m_desktop->arguments(u"mail-browser"_s),
             QStringList{u"https://example.com/via-gio"_s});
}

void TestEndToEnd::xdgOpenFromAChildProcess()
{
    if (QStandardPaths::findExecutable(u"xdg-open"_s).isEmpty())
        QSKIP("xdg-open (xdg-utils) is not installed");
    // xdg-open outside a known desktop runs the handler's Exec line itself (only when it
    // believes a display is there).
    m_desktop->forget(u"chat-browser"_s);
    QCOMPARE(run(m_desktop->root() + u"/bin/fake-chat"_s,
                 {u"-c"_s, u"DISPLAY=:0 xdg-open https://example.com/via-xdg; true"_s}),
             0);
    QVERIFY(m_desktop->waitForRun(u"chat-browser"_s));
    QCOMPARE(m_desktop->arguments(u"chat-browser"_s),
             QStringList{u"https://example.com/via-xdg"_s});
}

void TestEndToEnd::dbusOpenDirectly()
{
    m_desktop->forget(u"mail-browser"_s);
    const QString call =
        u"gdbus call --session --dest work.vorpa.Quillvane --object-path /work/vorpa/Quillvane "
        "--method org.freedesktop.Application.Open \"['https://example.com/by-dbus']\" "
        "\"{'activation-token': <'token-42'>}\"; true"_s;
    QCOMPARE(run(m_desktop->root() + u"/bin/fake-mail"_s, {u"-c"_s, call}), 0);
    QVERIFY(m_desktop->waitForRun(u"mail-browser"_s));
    QCOMPARE(m_desktop->arguments(u"mail-browser"_s),
             QStringList{u"https://example.com/by-dbus"_s});
    QCOMPARE(m_desktop->activationToken(u"mail-browser"_s), u"token-42"_s);
}

void TestEndToEnd::typedQuillvaneUrlIsForwarded()
{
    const qint64 instance = instancePid();
    m_desktop->forget(u"mail-browser"_s);
    const QString command = program(u"quillvane"_s) + u" https://example.com/typed; true"_s;
    QCOMPARE(run(m_desktop->root() + u"/bin/fake-mail"_s, {u"-c"_s, command}), 0);
    QVERIFY(m_desktop->waitForRun(u"mail-browser"_s));
    QCOMPARE(m_desktop->arguments(u"mail-browser"_s), QStringList{u"https://example.com/typed"_s});
    QCOMPARE(instancePid(), instance);
}

void TestEndToEnd::otherSchemesAreRefused()
{
    QString errors;
    QCOMPARE(run(program(u"quillvane-open"_s), {u"file:///etc/passwd"_s}, &errors), 1);
    QVERIFY2(errors.contains(u"Quillvane refused these links: "_s), qPrintable(errors));
    QCOMPARE(run(program(u"quillvane"_s), {u"javascript:alert(1)"_s}, &errors), 2);
    QVERIFY2(errors.contains(u"Only http and https links can be routed"_s), qPrintable(errors));
}

void TestEndToEnd::burstOfLinks()
{
    QElapsedTimer clock;
    clock.start();
    QList<QProcess *> clients;
    for (int i = 0; i < 200; ++i) {
        auto *client = new QProcess(this);
        client->start(program(u"quillvane-open"_s), {u"https://burst.example/%1"_s.arg(i)});
        clients.append(client);
        if (clients.size() % 20 == 0)
            QTest::qWait(50);
    }
    for (QProcess *client : std::as_const(clients)) {
        if (client->state() != QProcess::NotRunning)
            QVERIFY(client->waitForFinished(30000));
        QCOMPARE(client->exitStatus(), QProcess::NormalExit);
        QCOMPARE(client->exitCode(), 0);
    }
    qDeleteAll(clients);
    QTRY_COMPARE_WITH_TIMEOUT(burstLog().size(), 200, 20000);
    qInfo("200 links from 200 forwarders routed and opened in %lld ms",
          static_cast<long long>(clock.elapsed()));
    QTest::qWait(300);
    const QStringList links = burstLog();
    QCOMPARE(QSet<QString>(links.cbegin(), links.cend()).size(), 200);
}

void TestEndToEnd::twoInstancesAtOnce()
{
    stopInstance();
    QFile::remove(m_desktop->root() + u"/burst.log"_s);
    QProcess first;
    QProcess second;
    first.start(program(u"quillvane"_s), {u"https://burst.example/first"_s});
    second.start(program(u"quillvane"_s), {u"https://burst.example/second"_s});
    QTRY_COMPARE_WITH_TIMEOUT(burstLog().size(), 2, 20000);
    const QStringList links = burstLog();
    QCOMPARE(QSet<QString>(links.cbegin(), links.cend()),
             (QSet<QString>{u"https://burst.example/first"_s, u"https://burst.example/second"_s}));
    // One of them owns the name and keeps running; the other handed over its link.
    QTRY_VERIFY(first.state() == QProcess::NotRunning || second.state() == QProcess::NotRunning);
    const bool firstIsInstance = first.state() == QProcess::Running;
    QProcess &client = firstIsInstance ? second : first;
    QCOMPARE(client.exitCode(), 0);
    QCOMPARE(instancePid(), (firstIsInstance ? first : second).processId());
    stopInstance();
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
