#include "Platform/CompositorFocus.h"
#include "Platform/ProcessApps.h"
#include "Services/OpenRequestSources.h"
#include "Services/RunningBrowsers.h"
#include "Services/SourceAppResolver.h"
#include "TestSupport.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSignalSpy>
#include <QScopeGuard>
#include <QTest>

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace {

using Kind = ProcessApps::Lookup::Kind;

// Processes and their applications as the test declares them.
class FakeProcessApps final : public ProcessApps
{
public:
    Lookup lookup(qint64 pid) override
    {
        looked.append(pid);
        return lookups.value(pid, Lookup{});
    }
    Lookup application(const QString &id) override
    {
        return installed.contains(id) ? Lookup{Kind::Application, id, id.toUpper()}
                                      : Lookup{Kind::NoApplication, {}, {}};
    }
    std::optional<qint64> parentPid(qint64 pid) override
    {
        ++parentQueries;
        return parents.contains(pid) ? std::optional<qint64>(parents.value(pid)) : std::nullopt;
    }
    QList<qint64> processIds() override { return lookups.keys(); }
    std::optional<quint64> startTime(qint64 pid) override
    {
        return lookups.contains(pid) ? std::optional(starts.value(pid)) : std::nullopt;
    }
    bool isSessionBoundary(qint64 pid) override { return boundaries.contains(pid); }

    void app(qint64 pid, const QString &id, qint64 parent = 1)
    {
        lookups.insert(pid, Lookup{Kind::Application, id, id.toUpper()});
        parents.insert(pid, parent);
    }
    void helper(qint64 pid, qint64 parent, Kind kind = Kind::NoApplication)
    {
        lookups.insert(pid, Lookup{kind, {}, {}});
        parents.insert(pid, parent);
    }

    QHash<qint64, Lookup> lookups;
    QHash<qint64, qint64> parents;
    QSet<qint64> boundaries;
    QSet<QString> installed;
    QHash<qint64, quint64> starts;
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

// Open requests as the test says the bus carried them.
class FakeOpenRequests final : public OpenRequestMonitor
{
public:
    QList<OpenRequest> takeRequests() override { return std::exchange(requests, {}); }
    std::optional<qint64> ownerPid(const QString &busName) override
    {
        return owners.contains(busName) ? std::optional<qint64>(owners.value(busName))
                                        : std::nullopt;
    }

    QList<OpenRequest> requests;
    QHash<QString, qint64> owners;
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
    void init()
    {
        m_apps = FakeProcessApps();
        m_active.active.reset();
        m_active.visible.clear();
        m_now = 10000;
        m_resolver =
            std::make_unique<SourceAppResolver>(m_apps, m_active, [this] { return m_now; });
    }

    void strategiesInOrder()
    {
        m_apps.app(100, u"org.example.Mail"_s);
        QCOMPARE(resolved(100), u"org.example.Mail"_s);
        // A helper without an application of its own is credited to its parent.
        m_apps.helper(101, 100);
        QCOMPARE(resolved(101), u"org.example.Mail"_s);
        // Nothing known: the frontmost window's application, then none.
        m_apps.helper(200, 1);
        m_active.visible = {300, 301};
        m_apps.helper(300, 1);
        m_apps.app(301, u"org.example.Editor"_s);
        QTest::ignoreMessage(QtInfoMsg,
                             "PID 200 unresolvable, falling back to frontmost app: <private>");
        QCOMPARE(resolved(200), u"org.example.Editor"_s);
        m_now += SourceAppResolver::BurstWindowMs;
        m_active.visible.clear();
        QVERIFY(!m_resolver->resolve(0));
    }

    // Hyprland's sockets as Hyprland serves them: events on one, each answered
    // by asking the other for the window; a socket of another user is not used.
    // The event socket is made a moment before it is listened on, as a
    // compositor that starts makes it: refused at first, then tried again.
    void hyprlandSockets()
    {
        TestEnvironment environment;
        const QString folder = environment.path() + u"/run/hypr/sig-1"_s;
        QVERIFY(QDir().mkpath(folder));
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(environment.path() + u"/run"_s));
        qputenv("HYPRLAND_INSTANCE_SIGNATURE", "sig-1");
        const auto restore = qScopeGuard([] { qunsetenv("HYPRLAND_INSTANCE_SIGNATURE"); });
        QLocalServer events, requests;
        const int early = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const QByteArray eventPath = QFile::encodeName(folder + u"/.socket2.sock"_s);
        std::memcpy(address.sun_path, eventPath.constData(), eventPath.size() + 1);
        QCOMPARE(::bind(early, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        QVERIFY(requests.listen(folder + u"/.socket.sock"_s));
        QByteArray window = R"({"address":"0x55aa","class":"Chat","title":"x","pid":4242})";
        connect(&requests, &QLocalServer::newConnection, this, [&] {
            QLocalSocket *asked = requests.nextPendingConnection();
            connect(asked, &QLocalSocket::readyRead, asked, [asked, &window] {
                if (asked->readAll() == "j/activewindow") {
                    asked->write(window);
                    asked->disconnectFromServer();
                }
            });
        });
        std::unique_ptr<ActiveApplication> focus = CompositorFocus::create();
        QVERIFY(focus && !focus->activeAppId());
        QSignalSpy activated(focus.get(), &ActiveApplication::activated);
        focus->startWatching();
        QVERIFY(::listen(early, 4) == 0 && events.listen(early));
        // What has the focus at the start, then each change.
        QTRY_COMPARE(activated.size(), 1);
        QCOMPARE(activated.takeFirst(), (QVariantList{qint64(4242), u"Chat"_s}));
        QTRY_VERIFY(events.hasPendingConnections());
        QLocalSocket *feed = events.nextPendingConnection();
        window = R"({"class":"tunes-window","pid":77})";
        feed->write("workspace>>2\nactivewindow>>tunes-window,Tunes\nactivewindowv2>>55ab\n");
        QTRY_COMPARE(activated.size(), 1);
        QCOMPARE(activated.takeFirst(), (QVariantList{qint64(77), u"tunes-window"_s}));
        QCOMPARE(*focus->activePid(), 77);

        QCOMPARE(CompositorFocus::refusal(folder + u"/none"_s), folder + u"/none is not there (yet)"_s);
        QVERIFY(CompositorFocus::refusal(folder).endsWith(u"is not a socket: not used"_s));
        if (::geteuid() == 0) {
            QCOMPARE(::chown(QFile::encodeName(folder + u"/.socket.sock"_s).constData(), 65534, 65534), 0);
            QVERIFY(CompositorFocus::refusal(folder + u"/.socket.sock"_s).endsWith(u"belongs to another user: not used"_s));
            feed->write("activewindow>>Chat,x\n");
            QVERIFY(!QTest::qWaitFor([&] { return !activated.isEmpty(); }, 300));
        }
    }

    // The last active application is tracked from the one in front at the start,
    // but Quillvane's own windows are not. Links within 1.5 s of one it was
    // credited with go to it too, whatever is in front; reuse does not extend the lock.
    void burstLock()
    {
        m_apps.app(10, u"org.example.Chat"_s);
        m_apps.app(11, u"org.example.Other"_s);
        m_apps.helper(12, 1, Kind::Self);
        m_apps.helper(50, 1);
        m_active.active = 10;
        m_resolver->startTracking();
        Q_EMIT m_active.activated(12);
        QCOMPARE(m_resolver->lastActiveApp()->desktopId, u"org.example.Chat"_s);
        QCOMPARE(resolved(50), u"org.example.Chat"_s);
        Q_EMIT m_active.activated(11);
        for (const auto &[later, expected] : {std::pair{700, u"org.example.Chat"_s},
                                              {799, u"org.example.Chat"_s},
                                              {1, u"org.example.Other"_s}}) {
            m_now += later;
            QCOMPARE(resolved(50), expected);
        }
        // An identifiable process is credited to itself even inside the window.
        QCOMPARE(resolved(10), u"org.example.Chat"_s);
    }

    // Ten ancestors at most, a cycle seen rather than walked, nothing above the
    // session's top; the next links of a script's burst, from siblings, reuse
    // what the walk found, for the burst only (the shell may have changed since).
    void theParentChain()
    {
        m_apps.helper(20, 21);
        m_apps.helper(21, 20);
        QVERIFY(!m_resolver->resolve(20));
        QVERIFY2(m_apps.parentQueries <= 3, qPrintable(QString::number(m_apps.parentQueries)));
        for (qint64 pid = 100; pid < 120; ++pid)
            m_apps.helper(pid, pid + 1);
        m_apps.app(111, u"too.far.away"_s);
        QVERIFY(!m_resolver->resolve(100));

        m_now += SourceAppResolver::ParentMemoryMs + 1;
        m_apps.app(203, u"org.example.Login"_s, 1); // another user's: never the sender
        m_apps.helper(202, 203);                    // the user's service manager
        m_apps.boundaries.insert(202);
        m_apps.helper(201, 202); // the script's shell
        m_apps.helper(200, 201); // xdg-open
        m_apps.helper(204, 201); // the next xdg-open of the script
        m_apps.looked.clear();
        QVERIFY(!m_resolver->resolve(200));
        QCOMPARE(m_apps.looked, (QList<qint64>{200, 201, 202}));
        m_apps.looked.clear();
        QVERIFY(!m_resolver->resolve(204));
        QCOMPARE(m_apps.looked, QList<qint64>{204});
        m_now += SourceAppResolver::ParentMemoryMs + 1;
        m_apps.app(201, u"org.example.Terminal"_s, 202);
        m_apps.looked.clear();
        QCOMPARE(resolved(204), u"org.example.Terminal"_s);
        QCOMPARE(m_apps.looked, (QList<qint64>{204, 201}));
        m_apps.looked.clear();
        QCOMPARE(resolved(200), u"org.example.Terminal"_s);
        QCOMPARE(m_apps.looked, QList<qint64>{200});
    }

    void selfIsNeverTheSource()
    {
        m_apps.app(40, u"org.example.Terminal"_s);
        m_apps.helper(41, 40, Kind::Self);
        QCOMPARE(resolved(41), u"org.example.Terminal"_s);
        m_apps.helper(42, 1, Kind::Terminated);
        m_apps.helper(43, 1, Kind::NoProcess);
        m_active.active = 41;
        QVERIFY(!m_resolver->resolve(42));
        QVERIFY(!m_resolver->resolve(43));
    }

    void linksHandedOnByBrokers()
    {
        FakeOpenRequests bus;
        OpenRequestSources sources(bus, m_apps, *m_resolver, [this] { return m_now; });
        const QString portal = u"org.freedesktop.portal.Desktop"_s;
        const QString snapd = u"io.snapcraft.Launcher"_s;
        bus.owners = {{portal, 50}, {snapd, 60}};
        m_apps.helper(50, 1);
        m_apps.helper(60, 1);
        // snapd's xdg-open, and what it runs.
        m_apps.helper(61, 60);
        m_apps.helper(62, 61);
        m_apps.app(70, u"org.example.Unsandboxed"_s);
        m_apps.installed = {u"com.example.Chat"_s, u"tunes_tunes"_s};
        const auto request = [this](const QString &link, qint64 pid, std::optional<QString> app,
                                    const QString &broker) {
            return OpenRequest{link, pid, std::move(app), broker, m_now};
        };
        const auto source = [&](const QString &link, qint64 sender) {
            return sources.sourceOf({link}, sender).value_or(SourceApp{}).desktopId;
        };

        // The sandbox read when the request was seen names the app, though the
        // process is gone; the same request answers once.
        bus.requests = {request(u"https://a.example/x"_s, 90, u"com.example.Chat"_s, portal)};
        QCOMPARE(source(u"https://a.example/x"_s, 50), u"com.example.Chat"_s);
        QCOMPARE(source(u"https://a.example/x"_s, 50), QString());
        // Only the broker the request went to, or what runs under it, hands it on;
        // another link, or another sender, leaves the request waiting.
        bus.requests = {request(u"https://b.example/"_s, 91, u"tunes_tunes"_s, snapd)};
        QCOMPARE(source(u"https://b.example/"_s, 50), QString());
        QCOMPARE(source(u"https://other.example/"_s, 62), QString());
        QCOMPARE(source(u"https://b.example/"_s, 62), u"tunes_tunes"_s);
        // Newest first; re-encoded by the broker still the same link; a sender
        // outside a sandbox is looked up as a process; one of no installed
        // application credits nobody.
        bus.requests = {request(u"https://c.example/a b"_s, 92, u"com.example.Chat"_s, portal),
                        request(u"https://c.example/a b"_s, 70, std::nullopt, portal),
                        request(u"https://d.example/"_s, 93, u"org.example.Removed"_s, portal)};
        QCOMPARE(source(u"https://c.example/a%20b"_s, 50), u"org.example.Unsandboxed"_s);
        QCOMPARE(source(u"https://c.example/a b"_s, 50), u"com.example.Chat"_s);
        QCOMPARE(source(u"https://d.example/"_s, 50), QString());
        // A request waits only so long for its link, and none waits for a broker that has gone.
        bus.requests = {request(u"https://e.example/"_s, 94, u"com.example.Chat"_s, portal),
                        request(u"https://f.example/"_s, 94, u"com.example.Chat"_s, snapd)};
        QCOMPARE(sources.sourceOf({}, 50), std::nullopt);
        m_now += OpenRequestSources::RememberMs + 1;
        QCOMPARE(source(u"https://e.example/"_s, 50), QString());
        bus.requests = {request(u"https://f.example/"_s, 94, u"com.example.Chat"_s, snapd)};
        bus.owners.remove(snapd);
        QCOMPARE(source(u"https://f.example/"_s, 62), QString());
    }

    void procParsing_data()
    {
        QTest::addColumn<QByteArray>("cgroup");
        QTest::addColumn<QStringList>("unitIds");
        QTest::addColumn<QString>("snap");
        // The AppArmor label that goes with it (a snap's names it too).
        QTest::addColumn<QByteArray>("label");
        QTest::newRow("GNOME") << QByteArray("0::/user.slice/user-1000.slice/user@1000.service/"
                                             "app.slice/app-gnome-org.gnome.Evolution-4242.scope\n")
                               << QStringList{u"org.gnome.Evolution"_s,
                                              u"gnome-org.gnome.Evolution"_s}
                               << QString() << QByteArray("unconfined\n");
        QTest::newRow("KDE, escaped dash")
            << QByteArray("0::/user.slice/app.slice/app-org.kde.dolphin\\x2dbeta-5c9e1a2b.scope\n")
            << QStringList{u"org.kde.dolphin-beta"_s} << QString() << QByteArray();
        QTest::newRow("service with instance")
            << QByteArray("0::/app.slice/app-gnome-firefox\\x2desr@autostart.service\n")
            << QStringList{u"firefox-esr"_s, u"gnome-firefox-esr"_s} << QString()
            << QByteArray("snap.tunes.hook.configure (enforce)");
        QTest::newRow("snap") << QByteArray("0::/user.slice/snap.firefox.firefox-7a2d.scope\n")
                              << QStringList() << u"firefox_firefox"_s
                              << QByteArray("snap.firefox.firefox (enforce)\n");
        QTest::newRow("terminal session")
            << QByteArray("0::/user.slice/user-1000.slice/session-3.scope\n") << QStringList()
            << QString() << QByteArray("/usr/bin/man (enforce)");
        QTest::newRow("empty part") << QByteArray("0::/app.slice/app-gnome--123.scope\n")
                                    << QStringList{u"gnome-"_s} << QString() << QByteArray("snap.");
    }

    void procParsing()
    {
        QFETCH(QByteArray, cgroup);
        QFETCH(QStringList, unitIds);
        QFETCH(QString, snap);
        QFETCH(QByteArray, label);
        QCOMPARE(ProcStat::unitAppIds(cgroup), unitIds);
        QCOMPARE(ProcStat::snapAppId(cgroup).value_or(QString()), snap);
        QCOMPARE(ProcStat::snapAppIdFromLabel(label).value_or(QString()), snap);
        QCOMPARE(ProcStat::parentPid(stat(7, 42)), 42);
        QCOMPARE(ProcStat::startTime(stat(7, 42, 999)), 999u);
        QCOMPARE(ProcStat::parentPid("7 (broken"), std::nullopt);
        QCOMPARE(
            ProcStat::environmentValue(QByteArrayLiteral("A=1\0GIO_LAUNCHED_DESKTOP_FILE_PID=7\0"),
                                       "GIO_LAUNCHED_DESKTOP_FILE_PID"),
            QByteArray("7"));
    }

    void linuxLookupFromProc()
    {
        // Sandboxed applications are found where Flatpak and Snap export them,
        // whether or not the session lists those folders.
        QCOMPARE(
            GioDesktopEntries::withSandboxExports("/usr/share:/var/lib/snapd/desktop/", "/h/.d"),
            "/usr/share:/var/lib/snapd/desktop/:/h/.d/flatpak/exports/share:"
            "/var/lib/flatpak/exports/share");
        QVERIFY(GioDesktopEntries::withSandboxExports({}, "/h").startsWith(
            "/usr/local/share:/usr/share:/h/flatpak"));

        // A /proc of the test's own making, read by the real lookup.
        QTemporaryDir proc;
        const QString root = proc.path();
        for (qint64 pid : {10, 11, 12, 13, 14, 18})
            writeFile(u"%1/%2/stat"_s.arg(root).arg(pid), stat(pid, 1));
        writeFile(root + u"/10/cgroup"_s, "0::/app.slice/app-gnome-org.example.Mail-99.scope\n");
        writeFile(root + u"/11/root/.flatpak-info"_s,
                  "[Application]\nname=org.mozilla.firefox\nruntime=x\n");
        writeFile(
            root + u"/12/environ"_s,
            QByteArrayLiteral("GIO_LAUNCHED_DESKTOP_FILE=/usr/share/applications/"
                              "org.example.Chat.desktop\0GIO_LAUNCHED_DESKTOP_FILE_PID=12\0"));
        writeFile(root + u"/13/environ"_s,
                  QByteArrayLiteral("GIO_LAUNCHED_DESKTOP_FILE=/x/org.example.Chat.desktop\0"
                                    "GIO_LAUNCHED_DESKTOP_FILE_PID=1\0"));
        writeFile(root + u"/14/cgroup"_s, "0::/app.slice/app-work.vorpa.Quillvane-1.scope\n");
        // A snap confined by AppArmor, in a cgroup that does not name it.
        writeFile(root + u"/18/attr/current"_s, "snap.tunes.tunes (enforce)\n");
        FakeDesktopEntries installed;
        for (const QString &id : {u"org.example.Mail"_s, u"org.mozilla.firefox"_s,
                                  u"org.example.Chat"_s, u"tunes_tunes"_s})
            installed.add(id, id.section(u'.', -1), false);

        LinuxProcessApps apps(installed, root);
        QCOMPARE(apps.lookup(10).desktopId, u"org.example.Mail"_s);
        QCOMPARE(apps.lookup(10).name, u"Mail"_s);
        QCOMPARE(apps.lookup(11).desktopId, u"org.mozilla.firefox"_s);
        QCOMPARE(apps.lookup(12).desktopId, u"org.example.Chat"_s);
        QCOMPARE(apps.lookup(18).desktopId, u"tunes_tunes"_s);
        QCOMPARE(apps.application(u"tunes_tunes"_s).name, u"tunes_tunes"_s);
        QCOMPARE(apps.application(u"org.example.Gone"_s).kind, Kind::NoApplication);
        // An inherited launch variable names the parent, not this process.
        QCOMPARE(apps.lookup(13).kind, Kind::NoApplication);
        QCOMPARE(apps.lookup(14).kind, Kind::Self);
        QCOMPARE(apps.lookup(99).kind, Kind::NoProcess);
        // GIO's launch record wins over everything the process says of itself.
        apps.recordLaunch(13, u"/usr/share/applications/org.mozilla.firefox.desktop"_s, 0);
        QCOMPARE(apps.lookup(13).desktopId, u"org.mozilla.firefox"_s);
        apps.recordLaunch(14, QString(), 10);
        QCOMPARE(apps.lookup(14).desktopId, u"org.example.Mail"_s);
        QCOMPARE(apps.parentPid(10), 1);

        // The session's top: init, the user's service manager, a login session's
        // leader and a process gone are; a shell leading its terminal's session is not.
        writeFile(root + u"/15/stat"_s, "15 (systemd) S 1 15 15 0 -1 4194560 100\n");
        writeFile(root + u"/16/stat"_s, "16 (sshd: me) S 2 16 16 0 -1 4194560 100\n");
        writeFile(root + u"/17/stat"_s, "17 (bash) S 2 17 17 34817 17 4194560 100\n");
        for (const auto &[pid, boundary] :
             {std::pair{10, false}, {15, true}, {16, true}, {17, false}, {1, true}, {99, true}})
            QCOMPARE(apps.isSessionBoundary(pid), boundary);
        if (::geteuid() == 0) {
            // Another user's (login, sshd, the display manager).
            QCOMPARE(::chown(QFile::encodeName(root + u"/10"_s).constData(), 65534, 65534), 0);
            QVERIFY(apps.isSessionBoundary(10));
        }
    }

    // Browsers by their first process, the newest first; each process is looked
    // up once, and again only where its id went to another process.
    void runningBrowsers()
    {
        RunningBrowsers running(m_apps);
        const auto start = [this](qint64 pid, const QString &id, quint64 started) {
            m_apps.app(pid, id);
            m_apps.starts.insert(pid, started);
        };
        start(10, u"firefox"_s, 100);
        start(11, u"chromium"_s, 200);
        start(12, u"firefox"_s, 300); // a later window or helper
        m_apps.helper(13, 1);
        const QStringList browsers{u"Firefox"_s, u"chromium"_s, u"epiphany"_s};
        QCOMPARE(running.running(browsers), (QStringList{u"chromium"_s, u"Firefox"_s}));
        start(14, u"epiphany"_s, 400);
        QCOMPARE(running.running(browsers),
                 (QStringList{u"epiphany"_s, u"chromium"_s, u"Firefox"_s}));
        // Firefox's first process ended and its id went to Chromium's new window.
        start(10, u"chromium"_s, 500);
        m_apps.lookups.remove(14);
        QCOMPARE(running.running(browsers), (QStringList{u"Firefox"_s, u"chromium"_s}));
    }

private:
    QString resolved(qint64 pid) { return m_resolver->resolve(pid).value_or(SourceApp{}).desktopId; }

    FakeProcessApps m_apps;
    FakeActive m_active;
    qint64 m_now = 0;
    std::unique_ptr<SourceAppResolver> m_resolver;
};

QTEST_GUILESS_MAIN(TestResolver)
#include "tst_resolver.moc"
