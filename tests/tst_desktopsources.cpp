// What today's desktops tell of a link's source application. Links from
// sandboxed applications reach Quillvane only through a broker: the real
// xdg-desktop-portal (started by the test's own session bus, under a virtual X
// server) for a Flatpak app made with bwrap, and a stand-in for snapd's session
// agent (which runs xdg-open, as snapd does) for a process in a snap's cgroup.
// Quillvane must credit the application, not the broker. Links that nothing
// else tells the source of come from the active window: on X11 the test plays
// the window manager; on Wayland, KWin reports it through the script Quillvane
// gives it.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Platform/X11Atoms.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

#include <xcb/xcb.h>

using namespace Qt::Literals::StringLiterals;

namespace {
InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));
const QString FakeSandbox = QStringLiteral(QUILLVANE_FAKE_SANDBOX);

// The cgroup v2 folder this process is in, from /proc and the mount table.
QString ownCgroup()
{
    QString path;
    for (const QByteArray &line : readFile(u"/proc/self/cgroup"_s).split('\n')) {
        if (line.startsWith("0::"))
            path = QString::fromUtf8(line.mid(3));
    }
    for (const QByteArray &line : readFile(u"/proc/self/mounts"_s).split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 2 && fields[2] == "cgroup2" && !path.isEmpty())
            return QString::fromUtf8(fields[1]) + (path == u"/" ? QString() : path);
    }
    return {};
}

// Waits for the program's first line of output (or its end) and says whether it was line.
bool waitForLine(QProcess &process, const QByteArray &line)
{
    return QTest::qWaitFor(
               [&] {
                   return process.state() == QProcess::NotRunning
                          || process.peek(line.size()).startsWith(line);
               },
               60000)
           && process.readLine().startsWith(line);
}

// KWin's scripting interface, as far as Quillvane uses it.
class FakeKWinScripting final : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.kwin.Scripting")

public Q_SLOTS:
    int loadScript(const QString &path, const QString &name)
    {
        scripts.insert(name, readFile(path));
        return int(scripts.size());
    }
    bool unloadScript(const QString &name) { return scripts.remove(name) > 0; }
    void start() { started = !scripts.isEmpty(); }

public:
    QHash<QString, QByteArray> scripts;
    bool started = false;
};

} // namespace

class TestDesktopSources final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (!QDBusConnection::sessionBus().isConnected())
            QSKIP("needs a session bus: run under dbus-run-session");
        m_desktop = std::make_unique<FakeDesktop>();
        // The portal serves a GNOME desktop through its GTK backend; without a
        // system bus it does not wait on one (for its memory monitor) when it starts.
        qputenv("XDG_CURRENT_DESKTOP", "GNOME");
        qputenv("DBUS_SYSTEM_BUS_ADDRESS",
                QFile::encodeName(u"unix:path="_s + m_desktop->root() + u"/no-system-bus"_s));
        // Its backend needs the system's settings schemas, which the test's own
        // data folders do not hold, and no accessibility bus.
        qputenv("GSETTINGS_SCHEMA_DIR", "/usr/share/glib-2.0/schemas");
        qputenv("NO_AT_BRIDGE", "1");
        QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));
        writeFile(m_desktop->configHome() + u"/mimeapps.list"_s,
                  "[Default Applications]\nx-scheme-handler/https=work.vorpa.Quillvane.desktop\n"
                  "x-scheme-handler/http=work.vorpa.Quillvane.desktop\n");
        for (const auto &[id, name] : {std::pair{u"fallback-browser"_s, u"Fallback"_s},
                                       {u"chat-browser"_s, u"Chat Browser"_s},
                                       {u"music-browser"_s, u"Music Browser"_s}})
            m_desktop->addBrowser(id, name);
        // Where Flatpak exports an application's entry, which Quillvane reads
        // whether or not the session lists the folder; a snap's as snapd names it.
        // (GIO ignores an entry whose program is missing.)
        writeFile(m_desktop->root()
                      + u"/data/flatpak/exports/share/applications/"
                        "com.example.SandboxedChat.desktop"_s,
                  "[Desktop Entry]\nType=Application\nName=Sandboxed Chat\nIcon=chat\n"
                  "Exec=/bin/true com.example.SandboxedChat\n");
        m_desktop->writeEntry(
            u"tunes_tunes"_s,
            u"[Desktop Entry]\nType=Application\nName=Tunes\nExec=/bin/true tunes\n"_s);
        Config config;
        config.rules = {makeRule(u"com.example.SandboxedChat"_s, std::nullopt, u"chat-browser"_s),
                        makeRule(u"tunes_tunes"_s, std::nullopt, u"music-browser"_s)};
        config.fallbackBrowser = u"fallback-browser"_s;
        InstalledQuillvane::seed(*m_desktop, config);
        // Quillvane runs, as it does from login on: it watches from its start.
        QCOMPARE(g_installed.forward(u"https://example.com/first"_s), 0);
        QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
        m_desktop->forget(u"fallback-browser"_s);
    }

    void cleanupTestCase()
    {
        if (m_desktop)
            QVERIFY(InstalledQuillvane::stop());
    }

    void flatpakAppThroughThePortal()
    {
        QVERIFY2(!QStandardPaths::findExecutable(u"bwrap"_s).isEmpty()
                     && QFile::exists(u"/usr/libexec/xdg-desktop-portal"_s),
                 "needs bubblewrap and xdg-desktop-portal (the test command installs them)");
        if (QProcess::execute(u"bwrap"_s, {u"--dev-bind"_s, u"/"_s, u"/"_s, u"true"_s}) != 0)
            QSKIP("bwrap cannot make a sandbox on this machine (no namespaces for it)");
        // Up and answering before the app asks: the first start may take a while.
        QDBusMessage start =
            QDBusMessage::createMethodCall(u"org.freedesktop.DBus"_s, u"/org/freedesktop/DBus"_s,
                                           u"org.freedesktop.DBus"_s, u"StartServiceByName"_s);
        start << u"org.freedesktop.portal.Desktop"_s << 0u;
        const QDBusMessage started =
            QDBusConnection::sessionBus().call(start, QDBus::Block, 120000);
        QVERIFY2(started.type() == QDBusMessage::ReplyMessage, qPrintable(started.errorMessage()));

        // A sandbox that shares the host's folders and holds a /.flatpak-info
        // naming the application (binding the host's root whole would create that
        // file on the host).
        const QString info = m_desktop->root() + u"/flatpak-info"_s;
        writeFile(info, "[Application]\nname=com.example.SandboxedChat\n"
                        "runtime=runtime/org.freedesktop.Platform/x86_64/23.08\n\n"
                        "[Instance]\ninstance-id=1\n");
        QStringList sandbox;
        for (const QFileInfo &entry :
             QDir(u"/"_s).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)) {
            if (entry.isSymLink())
                sandbox << u"--symlink"_s << entry.symLinkTarget() << entry.absoluteFilePath();
            else if (entry.isDir())
                sandbox << u"--dev-bind"_s << entry.absoluteFilePath() << entry.absoluteFilePath();
        }
        const QString link = u"https://chat-link.example.net/room?utm_source=chat"_s;
        QProcess app;
        app.start(u"bwrap"_s, sandbox << u"--ro-bind"_s << info << u"/.flatpak-info"_s << u"--"_s
                                      << FakeSandbox << u"portal"_s << link);
        const auto close = qScopeGuard([&app] {
            app.closeWriteChannel();
            app.waitForFinished();
        });
        QVERIFY2(waitForLine(app, "asked"), app.readAllStandardError().constData());
        // The app rule applied, with the link cleaned on the way.
        QCOMPARE(m_desktop->opened(u"chat-browser"_s, 30000),
                 QStringList{u"https://chat-link.example.net/room"_s});
        QVERIFY(!m_desktop->ran(u"fallback-browser"_s));
        QTRY_COMPARE(latestRecord().originalURL, link);
        QCOMPARE(latestRecord().sourceAppId, u"com.example.SandboxedChat"_s);
        QVERIFY2(g_installed.quillvane({u"history"_s})
                     .out.section(u'\n', 0, 0)
                     .contains(u"Sandboxed Chat › Chat Browser"_s),
                 "the history names the app as its entry does");
        const QJsonObject ways = doctorWays();
        QCOMPARE(ways.value(u"portal-monitor"_s), true);
        QCOMPARE(ways.value(u"snap-monitor"_s), false);
        QCOMPARE(ways.value(u"x11-active-window"_s), true);
    }

    void snapAppThroughSnapd()
    {
        // A snap's processes live in a cgroup that names it.
        const QString parent = ownCgroup();
        const QString scope =
            parent + u"/snap.tunes.tunes-%1.scope"_s.arg(QCoreApplication::applicationPid());
        if (parent.isEmpty() || !QDir().mkpath(scope))
            QSKIP("cannot make a cgroup here, so no process can look like a snap's");
        const auto removeScope = qScopeGuard([&scope] { QDir().rmdir(scope); });
        QProcess snapd;
        snapd.start(FakeSandbox, {u"snapd"_s});
        const auto stopSnapd = qScopeGuard([&snapd] {
            snapd.kill();
            snapd.waitForFinished();
        });
        QVERIFY2(waitForLine(snapd, "ready"), snapd.readAllStandardError().constData());

        const QString link = u"https://music.example.org/album/42"_s;
        QProcess app;
        app.start(u"/bin/sh"_s,
                  {u"-c"_s, u"echo $$ > '%1/cgroup.procs' && exec '%2' snap '%3'"_s.arg(
                                scope, FakeSandbox, link)});
        const auto close = qScopeGuard([&app] {
            app.closeWriteChannel();
            app.waitForFinished();
        });
        QVERIFY2(waitForLine(app, "asked"), app.readAllStandardError().constData());
        QCOMPARE(m_desktop->opened(u"music-browser"_s, 30000), QStringList{link});
        QTRY_COMPARE(latestRecord().originalURL, link);
        QCOMPARE(latestRecord().sourceAppName, u"Tunes"_s);
        QCOMPARE(doctorWays().value(u"snap-monitor"_s), true);
    }

    // The window manager (the test) names the active window, and the window its
    // process: a link from a script, of no application, is the active one's.
    void x11ReportsTheActiveWindow()
    {
        QProcess tunes; // as GIO starts the Tunes entry
        tunes.start(u"/bin/sh"_s, {u"-c"_s, u"export GIO_LAUNCHED_DESKTOP_FILE='%1/tunes_tunes.desktop' "
                                            "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; exec cat"_s.arg(
                                                m_desktop->userApplications())});
        xcb_connection_t *x = xcb_connect(nullptr, nullptr);
        const auto end = qScopeGuard([&] {
            xcb_disconnect(x);
            tunes.kill();
            tunes.waitForFinished();
        });
        QVERIFY(tunes.waitForStarted() && !xcb_connection_has_error(x));
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(x)).data->root;
        const xcb_window_t window = xcb_generate_id(x);
        xcb_create_window(x, XCB_COPY_FROM_PARENT, window, root, 0, 0, 10, 10, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
        for (const auto &[on, name, type, value] :
             {std::tuple{window, "_NET_WM_PID", XCB_ATOM_CARDINAL, uint32_t(tunes.processId())},
              {root, "_NET_ACTIVE_WINDOW", XCB_ATOM_WINDOW, window}})
            xcb_change_property(x, XCB_PROP_MODE_REPLACE, on, internAtom(x, name), type, 32, 1, &value);
        // A round trip: the server has told Quillvane before the link is sent.
        free(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr));
        m_desktop->forget(u"music-browser"_s);
        QCOMPARE(g_installed.forward(u"https://example.com/x11"_s), 0);
        QVERIFY(m_desktop->waitForRun(u"music-browser"_s));
    }

    void kwinReportsTheActiveWindow()
    {
        // Quillvane again, now in a Wayland session with KWin on the bus.
        QVERIFY(InstalledQuillvane::stop());
        qputenv("DISPLAY", "");
        qputenv("WAYLAND_DISPLAY", "wayland-quillvane-test");
        qputenv("QT_QPA_PLATFORM", "offscreen");
        QVERIFY(InstalledQuillvane::shareEnvironment());
        FakeKWinScripting kwin;
        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.registerObject(u"/Scripting"_s, &kwin, QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(u"org.kde.KWin"_s));
        QCOMPARE(g_installed.forward(u"https://example.com/wayland"_s), 0);
        QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
        for (const QString &browser :
             {u"fallback-browser"_s, u"chat-browser"_s, u"music-browser"_s})
            m_desktop->forget(browser);
        QTRY_VERIFY(kwin.started);
        QCOMPARE(kwin.scripts.keys(), QStringList{u"quillvane-active-window"_s});
        QVERIFY(kwin.scripts.begin().value().contains("clientActivated"));

        // A link nothing else tells the source of comes from the application KWin
        // named last; what others claim (here a process of its own, with gdbus) does not count.
        QDBusMessage activated = QDBusMessage::createMethodCall(
            u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane/ActiveWindow"_s,
            u"work.vorpa.Quillvane.ActiveWindow"_s, u"WindowActivated"_s);
        activated << u"com.example.SandboxedChat"_s << u"0"_s;
        QCOMPARE(bus.call(activated).type(), QDBusMessage::ReplyMessage);
        const QString claim = u"call --session --dest work.vorpa.Quillvane --object-path "
                              "/work/vorpa/Quillvane/ActiveWindow --method "
                              "work.vorpa.Quillvane.ActiveWindow.WindowActivated tunes_tunes 0"_s;
        QCOMPARE(InstalledQuillvane::run(u"gdbus"_s, claim.split(u' ')).exitCode, 0);
        QCOMPARE(g_installed.forward(u"https://example.com/after-kwin"_s), 0);
        QVERIFY(m_desktop->waitForRun(u"chat-browser"_s));
        QVERIFY(!m_desktop->ran(u"music-browser"_s));
        const QJsonObject ways = doctorWays();
        QCOMPARE(ways.value(u"kwin-active-window"_s), true);
        QCOMPARE(ways.value(u"x11-active-window"_s), false);
    }

private:
    ForwardingRecord latestRecord() const
    {
        return InstalledQuillvane::storedHistory(*m_desktop).value(0);
    }

    // What `quillvane doctor` says of each way of finding the source, by its id.
    QJsonObject doctorWays() const
    {
        QJsonObject ways;
        const QJsonObject sources =
            QJsonDocument::fromJson(g_installed.quillvane({u"doctor"_s, u"--json"_s}).out.toUtf8())
                .object()[u"sourceApps"_s]
                .toObject();
        for (const QJsonValue &way : sources[u"ways"_s].toArray())
            ways.insert(way[u"id"_s].toString(), way[u"works"_s]);
        return ways;
    }

    std::unique_ptr<FakeDesktop> m_desktop;
};

QTEST_MAIN(TestDesktopSources)
#include "tst_desktopsources.moc"
