#include "Platform/DesktopEntries.h"
#include "Platform/ProcessApps.h"
#include "Services/SourceAppResolver.h"
#include "TestSupport.h"

#include <QDir>
#include <QTest>

#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// Processes and their applications as the test declares them.
class FakeProcessApps final : public ProcessApps
{
public:
    Lookup lookup(qint64 pid) override
    {
        looked.append(pid);
        return lookups.value(pid, Lookup{});
    }
    std::optional<qint64> parentPid(qint64 pid) override
    {
        ++parentQueries;
        return parents.contains(pid) ? std::optional<qint64>(parents.value(pid)) : std::nullopt;
    }
    QList<qint64> processIds() override { return lookups.keys(); }
    bool isSessionBoundary(qint64 pid) override { return boundaries.contains(pid); }

    void app(qint64 pid, const QString &id, qint64 parent = 1)
    {
        lookups.insert(pid, Lookup{Lookup::Kind::Application, id, id.toUpper()});
        parents.insert(pid, parent);
    }
    void helper(qint64 pid, qint64 parent, Lookup::Kind kind = Lookup::Kind::NoApplication)
    {
        lookups.insert(pid, Lookup{kind, {}, {}});
        parents.insert(pid, parent);
    }

    QHash<qint64, Lookup> lookups;
    QHash<qint64, qint64> parents;
    QSet<qint64> boundaries;
    int parentQueries = 0;
    QList<qint64> looked;
};

class FakeActive final : public ActiveApplication
{
public:
    std::optional<qint64> activePid() override { return active; }
    QList<qint64> visibleWindowPids() override { return visible; }
    void startWatching() override {}

    std::optional<qint64> active;
    QList<qint64> visible;
};

QByteArray stat(qint64 pid, qint64 parent, quint64 start = 1234)
{
    // The command name may hold blanks and parentheses.
    return QByteArray::number(pid) + " (odd (name) x) S " + QByteArray::number(parent)
           + " 1 1 0 -1 4194560 100 0 0 0 0 0 0 0 20 0 1 0 " + QByteArray::number(start)
           + " 1000 100\n";
}

} // namespace

class TestResolver final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void strategiesInOrder();
    void burstLock();
    void parentChainLimits();
    void theWalkStopsAtTheSessionAndIsRemembered();
    void selfIsNeverTheSource();
    void tracking();
    void procParsing_data();
    void procParsing();
    void linuxLookupFromProc();

private:
    FakeProcessApps m_apps;
    FakeActive m_active;
    qint64 m_now = 0;
};

void TestResolver::init()
{
    m_apps = FakeProcessApps();
    m_active.active.reset();
    m_active.visible.clear();
    m_now = 10000;
}

void TestResolver::strategiesInOrder()
{
    SourceAppResolver resolver(m_apps, m_active, [this] { return m_now; });
    m_apps.app(100, u"org.example.Mail"_s);
    QCOMPARE(resolver.resolve(100)->bundleID, u"org.example.Mail"_s);

    // A helper without an application of its own is credited to its parent.
    m_apps.helper(101, 100);
    QCOMPARE(resolver.resolve(101)->bundleID, u"org.example.Mail"_s);

    // Nothing known: the frontmost window's application, then none.
    m_apps.helper(200, 1);
    m_active.visible = {300, 301};
    m_apps.helper(300, 1);
    m_apps.app(301, u"org.example.Editor"_s);
    QTest::ignoreMessage(QtInfoMsg,
                         "PID 200 unresolvable, falling back to frontmost app: <private>");
    QCOMPARE(resolver.resolve(200)->bundleID, u"org.example.Editor"_s);

    m_now += SourceAppResolver::BurstWindowMs;
    m_active.visible.clear();
    QVERIFY(!resolver.resolve(0));
}

void TestResolver::burstLock()
{
    SourceAppResolver resolver(m_apps, m_active, [this] { return m_now; });
    m_apps.app(10, u"org.example.Chat"_s);
    m_apps.app(11, u"org.example.Other"_s);
    m_apps.helper(50, 1);
    m_active.active = 10;
    resolver.startTracking();
    QCOMPARE(resolver.lastActiveApp()->bundleID, u"org.example.Chat"_s);

    QCOMPARE(resolver.resolve(50)->bundleID, u"org.example.Chat"_s);
    // The user switches applications; links within 1.5 s still go to the locked one.
    Q_EMIT m_active.activated(11);
    m_now += 700;
    QCOMPARE(resolver.resolve(50)->bundleID, u"org.example.Chat"_s);
    m_now += 799;
    QCOMPARE(resolver.resolve(50)->bundleID, u"org.example.Chat"_s);
    // Reuse does not extend the lock.
    m_now += 1;
    QCOMPARE(resolver.resolve(50)->bundleID, u"org.example.Other"_s);
    // An identifiable process is credited to itself even inside the window.
    QCOMPARE(resolver.resolve(10)->bundleID, u"org.example.Chat"_s);
}

void TestResolver::parentChainLimits()
{
    SourceAppResolver resolver(m_apps, m_active, [this] { return m_now; });
    m_apps.helper(1, 0);
    m_apps.helper(20, 21);
    m_apps.helper(21, 20);
    m_apps.parentQueries = 0;
    QVERIFY(!resolver.resolve(20));
    // The cycle is seen, not walked until the limit.
    QVERIFY2(m_apps.parentQueries <= 3, qPrintable(QString::number(m_apps.parentQueries)));

    // Ten ancestors are looked at, no more.
    for (qint64 pid = 100; pid < 120; ++pid)
        m_apps.helper(pid, pid + 1);
    m_apps.app(111, u"too.far.away"_s);
    QVERIFY(!resolver.resolve(100));

    m_apps.helper(30, 1);
    QVERIFY(!resolver.resolve(30));
}

// A link from a script: nothing above the session's top is read, and the next
// links of the burst, from siblings, reuse what the walk found.
void TestResolver::theWalkStopsAtTheSessionAndIsRemembered()
{
    SourceAppResolver resolver(m_apps, m_active, [this] { return m_now; });
    m_apps.app(203, u"org.example.Login"_s, 1); // another user's: never the sender
    m_apps.helper(202, 203);                    // the user's service manager
    m_apps.boundaries.insert(202);
    m_apps.helper(201, 202); // the script's shell
    m_apps.helper(200, 201); // xdg-open
    m_apps.helper(204, 201); // the next xdg-open of the script
    QVERIFY(!resolver.resolve(200));
    QCOMPARE(m_apps.looked, (QList<qint64>{200, 201, 202}));

    m_apps.looked.clear();
    QVERIFY(!resolver.resolve(204));
    QCOMPARE(m_apps.looked, QList<qint64>{204});
    // The memory is for the burst only: the shell may have changed since.
    m_now += SourceAppResolver::ParentMemoryMs + 1;
    m_apps.app(201, u"org.example.Terminal"_s, 202);
    m_apps.looked.clear();
    QCOMPARE(resolver.resolve(204)->bundleID, u"org.example.Terminal"_s);
    QCOMPARE(m_apps.looked, (QList<qint64>{204, 201}));
    m_apps.looked.clear();
    QCOMPARE(resolver.resolve(200)->bundleID, u"org.example.Terminal"_s);
    QCOMPARE(m_apps.looked, QList<qint64>{200});
}

void TestResolver::selfIsNeverTheSource()
{
    SourceAppResolver resolver(m_apps, m_active, [this] { return m_now; });
    m_apps.app(40, u"org.example.Terminal"_s);
    m_apps.helper(41, 40, ProcessApps::Lookup::Kind::Self);
    QCOMPARE(resolver.resolve(41)->bundleID, u"org.example.Terminal"_s);

    m_apps.helper(42, 1, ProcessApps::Lookup::Kind::Terminated);
    m_apps.helper(43, 1, ProcessApps::Lookup::Kind::NoProcess);
    m_active.active = 41;
    QVERIFY(!resolver.resolve(42));
    QVERIFY(!resolver.resolve(43));
}

void TestResolver::tracking()
{
    SourceAppResolver resolver(m_apps, m_active, [this] { return m_now; });
    m_apps.app(10, u"org.example.Chat"_s);
    m_apps.helper(11, 1, ProcessApps::Lookup::Kind::Self);
    resolver.startTracking();
    QVERIFY(!resolver.lastActiveApp());
    Q_EMIT m_active.activated(10);
    // Quillvane's own settings window coming to the front changes nothing.
    Q_EMIT m_active.activated(11);
    QCOMPARE(resolver.lastActiveApp()->bundleID, u"org.example.Chat"_s);
}

void TestResolver::procParsing_data()
{
    QTest::addColumn<QByteArray>("cgroup");
    QTest::addColumn<QStringList>("unitIds");
    QTest::addColumn<QString>("snap");
    QTest::newRow("GNOME") << QByteArray("0::/user.slice/user-1000.slice/user@1000.service/"
                                         "app.slice/app-gnome-org.gnome.Evolution-4242.scope\n")
                           << QStringList{u"org.gnome.Evolution"_s, u"gnome-org.gnome.Evolution"_s}
                           << QString();
    QTest::newRow("KDE, escaped dash")
        << QByteArray("0::/user.slice/app.slice/app-org.kde.dolphin\\x2dbeta-5c9e1a2b.scope\n")
        << QStringList{u"org.kde.dolphin-beta"_s} << QString();
    QTest::newRow("service with instance")
        << QByteArray("0::/app.slice/app-gnome-firefox\\x2desr@autostart.service\n")
        << QStringList{u"firefox-esr"_s, u"gnome-firefox-esr"_s} << QString();
    QTest::newRow("snap") << QByteArray("0::/user.slice/snap.firefox.firefox-7a2d.scope\n")
                          << QStringList() << u"firefox_firefox"_s;
    QTest::newRow("terminal session")
        << QByteArray("0::/user.slice/user-1000.slice/session-3.scope\n") << QStringList()
        << QString();
    QTest::newRow("garbage") << QByteArray("\xff\x00::app-") << QStringList() << QString();
    QTest::newRow("empty part") << QByteArray("0::/app.slice/app-gnome--123.scope\n")
                                << QStringList{u"gnome-"_s} << QString();
}

void TestResolver::procParsing()
{
    QFETCH(QByteArray, cgroup);
    QFETCH(QStringList, unitIds);
    QFETCH(QString, snap);
    QCOMPARE(ProcStat::unitAppIds(cgroup), unitIds);
    QCOMPARE(ProcStat::snapAppId(cgroup).value_or(QString()), snap);

    QCOMPARE(ProcStat::parentPid(stat(7, 42)), 42);
    QCOMPARE(ProcStat::startTime(stat(7, 42, 999)), 999u);
    QCOMPARE(ProcStat::parentPid("7 (broken"), std::nullopt);
    QCOMPARE(ProcStat::environmentValue(QByteArrayLiteral("A=1\0GIO_LAUNCHED_DESKTOP_FILE_PID=7\0"),
                                        "GIO_LAUNCHED_DESKTOP_FILE_PID"),
             QByteArray("7"));
}

void TestResolver::linuxLookupFromProc()
{
    // A /proc of the test's own making, read by the real lookup.
    QTemporaryDir proc;
    const QString root = proc.path();
    for (qint64 pid : {10, 11, 12, 13, 14})
        writeFile(u"%1/%2/stat"_s.arg(root).arg(pid), stat(pid, 1));
    writeFile(root + u"/10/cgroup"_s, "0::/app.slice/app-gnome-org.example.Mail-99.scope\n");
    writeFile(root + u"/11/root/.flatpak-info"_s,
              "[Application]\nname=org.mozilla.firefox\nruntime=x\n");
    const auto environment = [](const QByteArrayList &variables) -> QByteArray {
        return variables.join('\0') + '\0';
    };
    writeFile(
        root + u"/12/environ"_s,
        environment({"GIO_LAUNCHED_DESKTOP_FILE=/usr/share/applications/org.example.Chat.desktop",
                     "GIO_LAUNCHED_DESKTOP_FILE_PID=12"}));
    writeFile(root + u"/13/environ"_s,
              environment({"GIO_LAUNCHED_DESKTOP_FILE=/x/org.example.Chat.desktop",
                           "GIO_LAUNCHED_DESKTOP_FILE_PID=1"}));
    writeFile(root + u"/14/cgroup"_s, "0::/app.slice/app-work.vorpa.Quillvane-1.scope\n");

    FakeDesktopEntries installed;
    for (const QString &id :
         {u"org.example.Mail"_s, u"org.mozilla.firefox"_s, u"org.example.Chat"_s})
        installed.add(id, id.section(u'.', -1), false);

    LinuxProcessApps apps(installed, root);
    using Kind = ProcessApps::Lookup::Kind;
    QCOMPARE(apps.lookup(10).bundleID, u"org.example.Mail"_s);
    QCOMPARE(apps.lookup(10).name, u"Mail"_s);
    QCOMPARE(apps.lookup(11).bundleID, u"org.mozilla.firefox"_s);
    QCOMPARE(apps.lookup(12).bundleID, u"org.example.Chat"_s);
    // An inherited launch variable names the parent, not this process.
    QCOMPARE(apps.lookup(13).kind, Kind::NoApplication);
    QCOMPARE(apps.lookup(14).kind, Kind::Self);
    QCOMPARE(apps.lookup(99).kind, Kind::NoProcess);
    // GIO's launch record wins over everything the process says of itself.
    apps.recordLaunch(13, u"/usr/share/applications/org.mozilla.firefox.desktop"_s, 0);
    QCOMPARE(apps.lookup(13).bundleID, u"org.mozilla.firefox"_s);
    apps.recordLaunch(14, QString(), 10);
    QCOMPARE(apps.lookup(14).bundleID, u"org.example.Mail"_s);
    QCOMPARE(apps.parentPid(10), 1);

    // The session's top: init, the user's service manager, a process gone.
    writeFile(root + u"/15/stat"_s, "15 (systemd) S 1 15 15 0 -1 4194560 100\n");
    // A login session's leader, and a shell leading the session of its terminal.
    writeFile(root + u"/16/stat"_s, "16 (sshd: me) S 2 16 16 0 -1 4194560 100\n");
    writeFile(root + u"/17/stat"_s, "17 (bash) S 2 17 17 34817 17 4194560 100\n");
    QVERIFY(!apps.isSessionBoundary(10));
    QVERIFY(apps.isSessionBoundary(15));
    QVERIFY(apps.isSessionBoundary(16));
    QVERIFY(!apps.isSessionBoundary(17));
    QVERIFY(apps.isSessionBoundary(1));
    QVERIFY(apps.isSessionBoundary(99));
    if (::geteuid() == 0) {
        // Another user's (login, sshd, the display manager).
        QCOMPARE(::chown(QFile::encodeName(root + u"/10"_s).constData(), 65534, 65534), 0);
        QVERIFY(apps.isSessionBoundary(10));
    }
}

QTEST_GUILESS_MAIN(TestResolver)
#include "tst_resolver.moc"
