// Launching browsers from real desktop entries (GIO reads them from a desktop
// of the test's own; the browsers record how they were started), and what
// `quillvane doctor` reports of that desktop.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Services/BrowserCatalog.h"
#include "Services/BrowserLauncher.h"
#include "Services/LaunchLedger.h"
#include "Services/ProfileLauncher.h"
#include "TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

template<typename T> T finished(QFuture<T> future)
{
    if (!QTest::qWaitFor([&] { return future.isFinished(); }, 10000))
        qFatal("launch did not finish");
    return future.result();
}

LaunchOptions options(const QString &token, QStringList extra = {}, bool privateWindow = false)
{
    LaunchOptions options;
    options.activationToken = token;
    options.extraArguments = std::move(extra);
    options.privateWindow = privateWindow;
    return options;
}

} // namespace

class TestBrowsers final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_desktop = std::make_unique<FakeDesktop>();
        FakeDesktop &desktop = *m_desktop;
        for (const auto &[id, name] :
             {std::pair{u"chromium"_s, u"Chromium"_s},
              {u"brave-browser"_s, u"Brave Browser"_s},
              {u"arc"_s, u"arc"_s},
              {u"google-chrome"_s, u"Google Chrome"_s},
              // Not browsers to offer: Quillvane itself, terminals, a Parallels bridge.
              {u"work.vorpa.Quillvane"_s, u"Quillvane"_s},
              {u"NET.KOVIDGOYAL.KITTY"_s, u"kitty"_s},
              {u"com.parallels.winapp"_s, u"Windows App"_s},
              {u"com.parallelsx"_s, u"Not Parallels"_s},
              {u"nameless"_s, u"x"_s},
              // The key file reads "\\n" in a value as a line break.
              {u"forger"_s, u"Forger\\n[2026-01-01T00:00:00Z] \x1b[2Jforged"_s}})
            desktop.addBrowser(id, name);
        desktop.addBrowser(u"firefox-esr"_s, u"Firefox ESR"_s,
                           u"Categories=Network;WebBrowser;\n"_s);
        desktop.addBrowser(u"org.gnome.Console"_s, u"Console"_s,
                           u"Categories=System;TerminalEmulator;\n"_s);
        desktop.addBrowser(u"gone"_s, u"Gone"_s, u"TryExec=/nonexistent/gone\n"_s);
        desktop.addBrowser(u"activatable"_s, u"Activatable"_s, u"DBusActivatable=true\n"_s);
        // A second entry of the same browser, whose id differs only in case, in a
        // directory that GIO reports later.
        desktop.addBrowser(u"Google-Chrome"_s, u"Google Chrome (copy)"_s, {}, {}, true);
        desktop.addBrowser(u"org.mozilla.firefox"_s, u"Firefox"_s, {},
                           desktop.recorder(u"flatpak"_s)
                               + u" run --branch=stable --arch=x86_64 --command=firefox "
                                 "--file-forwarding org.mozilla.firefox @@u %u @@"_s);
        // Quillvane under other names: a link handed to them would come straight back.
        desktop.addBrowser(u"forwarder"_s, u"Forwarder"_s, {},
                           desktop.recorder(u"quillvane-open"_s) + u" %u"_s);
        desktop.addBrowser(u"quillvane-in-env"_s, u"Quillvane in env"_s, {},
                           u"env QT_SCALE_FACTOR=1 "_s + desktop.recorder(u"quillvane"_s)
                               + u" %u"_s);
        desktop.writeEntry(u"nameless"_s, u"[Desktop Entry]\nType=Application\nExec=%1 %u\n"
                                          "MimeType=x-scheme-handler/https;\n"_s.arg(
                                              desktop.recorder(u"nameless"_s)));
        // A program that exists but cannot start: its interpreter is missing.
        writeFile(desktop.recorder(u"broken-program"_s), "#!/nonexistent/interpreter\n");
        desktop.addBrowser(u"broken-exec"_s, u"Broken Exec"_s, {},
                           desktop.root() + u"/bin/broken-program %u"_s);
        desktop.addBrowser(u"homeless"_s, u"Homeless"_s, u"Path=/nonexistent/folder\n"_s);
        desktop.addBrowser(u"shelly"_s, u"Shelly"_s, {}, u"sh -c %u"_s);
        desktop.addBrowser(u"chrome-with-icon"_s, u"Icon Browser"_s, u"Icon=web-browser\n"_s,
                           desktop.recorder(u"chrome-with-icon"_s)
                               + u" --class=%c %i --from=%k %U"_s);
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
    }

    // By id whatever its case, with the activation token; field codes of every
    // kind as GIO expands them; a Flatpak entry gets the link between its markers;
    // the user's arguments and a private window before the link, and no guess
    // for a browser whose private window Quillvane does not know; a browser the
    // list does not hold is looked up.
    void launches()
    {
        const QList<BrowserInfo> browsers =
            BrowserCatalog::discover(GioDesktopEntries::instance());
        QVERIFY(finished(BrowserLauncher::open(link(u"https://e.com/"_s), u"CHROMIUM"_s, browsers,
                                               m_platform, options(u"token-1"_s))));
        QCOMPARE(m_desktop->opened(u"chromium"_s), QStringList{u"https://e.com/"_s});
        QCOMPARE(m_desktop->activationToken(u"chromium"_s), u"token-1"_s);

        QCOMPARE(openError(u"chrome-with-icon"_s), QString());
        QCOMPARE(m_desktop->opened(u"chrome-with-icon"_s),
                 (QStringList{u"--class=Icon Browser"_s, u"--icon"_s, u"web-browser"_s,
                              u"--from="_s + m_desktop->userApplications()
                                  + u"/chrome-with-icon.desktop"_s,
                              u"https://e.com/"_s}));
        QCOMPARE(m_desktop->activationToken(u"chrome-with-icon"_s), QString());

        QCOMPARE(openError(u"org.mozilla.firefox"_s), QString());
        QCOMPARE(m_desktop->opened(u"flatpak"_s).join(u' '),
                 u"run --branch=stable --arch=x86_64 --command=firefox --file-forwarding "
                 "org.mozilla.firefox @@u https://e.com/ @@"_s);

        m_desktop->forget(u"chromium"_s);
        const LaunchOptions privately = options({}, {u"--class=work"_s, u"two words"_s}, true);
        QVERIFY(finished(BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"chromium"_s),
                                               m_platform, privately)));
        QCOMPARE(m_desktop->opened(u"chromium"_s),
                 (QStringList{u"--class=work"_s, u"two words"_s, u"--incognito"_s,
                              u"https://e.com/"_s}));
        QVERIFY(finished(BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"arc"_s),
                                               m_platform, privately)));
        QCOMPARE(m_desktop->opened(u"arc"_s),
                 (QStringList{u"--class=work"_s, u"two words"_s, u"https://e.com/"_s}));

        QTest::ignoreMessage(QtInfoMsg,
                             "Browser <private> not in provided list, attempting system lookup");
        QTest::ignoreMessage(QtInfoMsg, "Opening <private> with <private> (<private>)");
        QVERIFY(finished(
            BrowserLauncher::open(link(u"https://e.com/x"_s), u"brave-browser"_s, {}, m_platform)));
        QCOMPARE(m_desktop->opened(u"brave-browser"_s), QStringList{u"https://e.com/x"_s});
    }

    // A profile's options come first, a private window's after them; a Flatpak
    // entry takes the profile after the app id, before its forwarding markers.
    void profileLaunches()
    {
        m_desktop->forget(u"firefox-esr"_s);
        QVERIFY(finished(ProfileLauncher::open(link(u"https://e.com/"_s), browser(u"firefox-esr"_s),
                                               u"work"_s, m_platform, options({}, {}, true))));
        QCOMPARE(m_desktop->opened(u"firefox-esr"_s),
                 (QStringList{u"-P"_s, u"work"_s, u"--private-window"_s, u"https://e.com/"_s}));
        m_desktop->forget(u"flatpak"_s);
        QVERIFY(finished(ProfileLauncher::open(link(u"https://e.com/"_s),
                                               browser(u"org.mozilla.firefox"_s),
                                               u"default-release"_s, m_platform)));
        QCOMPARE(m_desktop->opened(u"flatpak"_s).join(u' '),
                 u"run --branch=stable --arch=x86_64 --command=firefox --file-forwarding "
                 "org.mozilla.firefox -P default-release @@u https://e.com/ @@"_s);

        const auto profileError = [&](const BrowserInfo &target, ProcessLauncher &launcher) {
            const auto outcome = finished(
                ProfileLauncher::open(link(u"https://e.com/"_s), target, u"Default"_s,
                                      LaunchPlatform{GioDesktopEntries::instance(), launcher}));
            return outcome ? QString() : outcome.error().description();
        };
        QCOMPARE(profileError(browser(u"arc"_s), GioProcessLauncher::instance()),
                 u"Profile launch is not supported for browser: arc"_s);
        const QString entry = m_desktop->addBrowser(u"google-chrome-beta"_s, u"Chrome Beta"_s, {},
                                                    u"/nonexistent/google-chrome-beta %U"_s);
        QCOMPARE(
            profileError({u"google-chrome-beta"_s, u"Chrome Beta"_s, QUrl::fromLocalFile(entry)},
                         GioProcessLauncher::instance()),
            u"Browser executable not found at "_s + entry);
        RecordingLauncher refusing;
        refusing.failure = u"Permission denied"_s;
        QCOMPARE(profileError(browser(u"chromium"_s), refusing),
                 u"Failed to launch browser with profile: Permission denied"_s);
    }

    void launchFailures()
    {
        const auto notFound = finished(BrowserLauncher::open(
            link(u"https://e.com/"_s), u"no.such.browser"_s,
            BrowserCatalog::discover(GioDesktopEntries::instance()), m_platform));
        QCOMPARE(notFound.error().description(),
                 u"No browser found with bundle ID: no.such.browser"_s);
        // An entry removed between discovery and launch: the list entry is not looked up again.
        const QString path = m_desktop->addBrowser(u"short-lived"_s, u"Short Lived"_s);
        QFile::remove(path);
        const auto notAvailable = finished(BrowserLauncher::open(
            link(u"https://e.com/"_s),
            {u"short-lived"_s, u"Short Lived"_s, QUrl::fromLocalFile(path)}, m_platform));
        QCOMPARE(notAvailable.error().description(),
                 u"Browser \"Short Lived\" is not available at "_s + path);
        QVERIFY2(openError(u"broken-exec"_s).startsWith(u"Failed to open URL: "_s),
                 qPrintable(openError(u"broken-exec"_s)));
        // The folder to start in is missing, not the program.
        QCOMPARE(
            openError(u"homeless"_s),
            u"Failed to open URL: The folder “/nonexistent/folder” that the desktop entry starts "
            "it in (Path=) does not exist."_s);
        QVERIFY(!m_desktop->ran(u"homeless"_s));
        // An entry that hands the link to a shell as its command: never started.
        const QString marker = m_desktop->root() + u"/ran-by-a-link"_s;
        QVERIFY(openError(u"shelly"_s, u"https://e.com/;touch${IFS}"_s + marker)
                    .contains(u"Quillvane does not start "_s + m_desktop->userApplications()));
        QVERIFY(!QFile::exists(marker));
    }

    void dbusActivatableEntriesAreActivated()
    {
        RecordingLauncher launcher;
        const LaunchPlatform platform{GioDesktopEntries::instance(), launcher};
        QVERIFY(finished(BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"activatable"_s),
                                               platform, options(u"t"_s))));
        QVERIFY(launcher.spawned.isEmpty());
        QCOMPARE(launcher.activated,
                 (QList<QStringList>{{m_desktop->userApplications() + u"/activatable.desktop"_s,
                                      u"https://e.com/"_s, u"t"_s}}));
        launcher.failure = u"The name is not activatable"_s;
        QCOMPARE(finished(BrowserLauncher::open(link(u"https://e.com/"_s),
                                                browser(u"activatable"_s), platform))
                     .error()
                     .description(),
                 u"Failed to open URL: The name is not activatable"_s);
    }

    void doctorShowsTheDesktop();
    // A browser started by Quillvane may live for hours: only links handed out in
    // the last seconds may count as coming back.
    void theLedgerForgetsAfterItsWindow()
    {
        RecordingLauncher inner;
        qint64 now = 1000;
        LaunchLedger ledger(inner, [&now] { return now; });
        QVERIFY(ledger.spawn({u"/bin/b"_s, u"--new-window"_s, u"https://a.example/"_s}, {}, {}));
        QCOMPARE(inner.spawned.size(), 1);
        (void)ledger.activate(u"/apps/c.desktop"_s, u"https://c.example/"_s, {});
        QCOMPARE(ledger.recentlyHandedTo(u"https://a.example/"_s), u"/bin/b"_s);
        QCOMPARE(ledger.recentlyHandedTo(u"https://c.example/"_s), u"/apps/c.desktop"_s);
        QCOMPARE(ledger.recentlyHandedTo(u"/bin/b"_s), std::nullopt);
        QCOMPARE(ledger.recentlyHandedTo(u"https://other.example/"_s), std::nullopt);
        now += LaunchLedger::WindowMs + 1;
        QCOMPARE(ledger.recentlyHandedTo(u"https://a.example/"_s), std::nullopt);
        QVERIFY(ledger.spawn({u"/bin/b"_s, u"https://a.example/"_s}, {}, {}));
        QCOMPARE(ledger.recentlyHandedTo(u"https://a.example/"_s), u"/bin/b"_s);
    }

private:
    BrowserInfo browser(const QString &id) const
    {
        for (const BrowserInfo &info :
             BrowserCatalog::discover(GioDesktopEntries::instance())) {
            if (info.desktopId == id)
                return info;
        }
        qFatal("no browser %s", qPrintable(id));
    }

    QString openError(const QString &id, const QString &url = u"https://e.com/"_s)
    {
        const auto outcome = finished(BrowserLauncher::open(link(url), browser(id), m_platform));
        return outcome ? QString() : outcome.error().description();
    }

    std::unique_ptr<FakeDesktop> m_desktop;
    LaunchPlatform m_platform{GioDesktopEntries::instance(), GioProcessLauncher::instance()};
};

void TestBrowsers::doctorShowsTheDesktop()
{
    const auto doctor =
        InstalledQuillvane::run(QStringLiteral(QUILLVANE_EXECUTABLE), {u"doctor"_s, u"--json"_s});
    QCOMPARE(doctor.exitCode, 0);
    const QJsonObject report = QJsonDocument::fromJson(doctor.out.toUtf8()).object();
    QHash<QString, QJsonObject> browsers;
    for (const QJsonValue &value : report[u"browsers"_s].toArray())
        browsers.insert(value[u"id"_s].toString(), value.toObject());
    // Not offered: Quillvane under any name, terminals, a second entry of one
    // browser, another vendor's bridge; a look-alike of that vendor is.
    for (const QString &id : {u"work.vorpa.Quillvane"_s, u"forwarder"_s, u"quillvane-in-env"_s, u"org.gnome.Console"_s,
                              u"NET.KOVIDGOYAL.KITTY"_s, u"Google-Chrome"_s, u"com.parallels.winapp"_s})
        QVERIFY2(!browsers.contains(id), qPrintable(id));
    QVERIFY(browsers.contains(u"com.parallelsx"_s) && browsers.contains(u"google-chrome"_s));
    // Names are read with their control characters written out.
    QCOMPARE(browsers.value(u"forger"_s)[u"name"_s].toString(),
             u"Forger\\x0A[2026-01-01T00:00:00Z] \\x1B[2Jforged"_s);
    // Reading never writes: no settings file appears.
    QVERIFY(!QFile::exists(m_desktop->configHome() + u"/Quillvane/Quillvane.conf"_s));
}

QTEST_GUILESS_MAIN(TestBrowsers)
#include "tst_browsers.moc"
