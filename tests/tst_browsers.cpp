#include "FakeDesktop.h"
#include "Services/BrowserDiscovery.h"
#include "Services/BrowserLauncher.h"
#include "Services/LaunchLedger.h"
#include "Services/ProfileLauncher.h"
#include "TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFutureWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QProcess>
#include <QTest>

#include <csignal>

using namespace Qt::Literals::StringLiterals;

namespace {
LaunchOptions withToken(const QString &token)
{
    LaunchOptions options;
    options.activationToken = token;
    return options;
}
} // namespace

namespace {

template<typename T> T waitFor(QFuture<T> future)
{
    if (!QTest::qWaitFor([&] { return future.isFinished(); }, 10000))
        qFatal("launch did not finish");
    return future.result();
}

} // namespace

class TestBrowsers final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void launchByIdIgnoringCase();
    void flatpakEntryGetsTheLinkBetweenItsMarkers();
    void systemLookupForUnlistedBrowsers();
    void launchFailures();
    void privateWindowsAndExtraArguments();
    void dbusActivatableEntriesAreActivated();
    void profileLaunchFailures();
    void doctorShowsTheDesktop();
    void theLedgerForgetsAfterItsWindow();

private:
    BrowserInfo browser(const QString &id) const;

    std::unique_ptr<FakeDesktop> m_desktop;
    LaunchPlatform m_platform{GioDesktopEntries::instance(), GioProcessLauncher::instance()};
    LaunchPlatform m_profilePlatform{GioDesktopEntries::instance(), GioProcessLauncher::instance()};
};

void TestBrowsers::initTestCase()
{
    m_desktop = std::make_unique<FakeDesktop>();
    FakeDesktop &desktop = *m_desktop;
    desktop.addBrowser(u"firefox-esr"_s, u"Firefox ESR"_s, u"Categories=Network;WebBrowser;\n"_s);
    desktop.addBrowser(u"chromium"_s, u"Chromium"_s);
    desktop.addBrowser(u"brave-browser"_s, u"Brave Browser"_s);
    desktop.addBrowser(u"arc"_s, u"arc"_s);
    desktop.addBrowser(u"google-chrome"_s, u"Google Chrome"_s);
    // A second entry of the same browser, whose id differs only in case, in a
    // directory that GIO reports later.
    desktop.addBrowser(u"Google-Chrome"_s, u"Google Chrome (copy)"_s, {}, {}, true);
    desktop.addBrowser(
        u"org.mozilla.firefox"_s, u"Firefox"_s, {},
        desktop.recorder(u"flatpak"_s)
            + u" run --branch=stable --arch=x86_64 --command=firefox --file-forwarding "
              "org.mozilla.firefox @@u %u @@"_s);
    desktop.addBrowser(u"work.vorpa.Quillvane"_s, u"Quillvane"_s);
    desktop.addBrowser(u"WORK.VORPA.QUILLVANE.old"_s, u"Quillvane old"_s);
    // Quillvane under other names: a link handed to them would come straight back.
    desktop.addBrowser(u"forwarder"_s, u"Forwarder"_s, {},
                       desktop.recorder(u"quillvane-open"_s) + u" %u"_s);
    desktop.addBrowser(u"quillvane-in-env"_s, u"Quillvane in env"_s, {},
                       u"env QT_SCALE_FACTOR=1 "_s + desktop.recorder(u"quillvane"_s) + u" %u"_s);
    desktop.addBrowser(u"org.gnome.Console"_s, u"Console"_s,
                       u"Categories=System;TerminalEmulator;\n"_s);
    desktop.addBrowser(u"NET.KOVIDGOYAL.KITTY"_s, u"kitty"_s);
    desktop.addBrowser(u"com.parallels.winapp"_s, u"Windows App"_s);
    desktop.addBrowser(u"com.parallelsx"_s, u"Not Parallels"_s);
    desktop.addBrowser(u"gone"_s, u"Gone"_s, u"TryExec=/nonexistent/gone\n"_s);
    desktop.addBrowser(u"nameless"_s, u"x"_s);
    // The key file reads "\\n" in a value as a line break.
    desktop.addBrowser(u"forger"_s, u"Forger\\n[2026-01-01T00:00:00Z] \x1b[2Jforged"_s);
    desktop.writeEntry(u"nameless"_s,
                       u"[Desktop Entry]\nType=Application\nExec=%1 %u\n"
                       "MimeType=x-scheme-handler/https;\n"_s.arg(desktop.recorder(u"nameless"_s)));
    desktop.addBrowser(u"activatable"_s, u"Activatable"_s, u"DBusActivatable=true\n"_s);
    // A program that exists but cannot start: its interpreter is missing.
    const QString broken = desktop.recorder(u"broken-program"_s);
    QFile script(broken);
    QVERIFY(script.open(QIODevice::WriteOnly));
    script.write("#!/nonexistent/interpreter\n");
    script.close();
    desktop.addBrowser(u"broken-exec"_s, u"Broken Exec"_s, {}, broken + u" %u"_s);
    desktop.addBrowser(u"chrome-with-icon"_s, u"Icon Browser"_s, u"Icon=web-browser\n"_s,
                       desktop.recorder(u"chrome-with-icon"_s) + u" --class=%c %i --from=%k %U"_s);
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
}

BrowserInfo TestBrowsers::browser(const QString &id) const
{
    for (const BrowserInfo &info :
         BrowserDiscovery::discoverBrowsers(GioDesktopEntries::instance())) {
        if (info.bundleID == id)
            return info;
    }
    qFatal("no browser %s", qPrintable(id));
}

void TestBrowsers::launchByIdIgnoringCase()
{
    const QList<BrowserInfo> browsers =
        BrowserDiscovery::discoverBrowsers(GioDesktopEntries::instance());
    m_desktop->forget(u"chromium"_s);
    const auto outcome = waitFor(BrowserLauncher::open(link(u"https://e.com/"_s), u"CHROMIUM"_s,
                                                       browsers, m_platform, withToken(u"token-1"_s)));
    QVERIFY(outcome);
    QVERIFY(m_desktop->waitForRun(u"chromium"_s));
    QCOMPARE(m_desktop->arguments(u"chromium"_s), QStringList{u"https://e.com/"_s});
    QCOMPARE(m_desktop->activationToken(u"chromium"_s), u"token-1"_s);

    // Field codes of every kind, as GIO expands them.
    m_desktop->forget(u"chrome-with-icon"_s);
    QVERIFY(waitFor(BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"chrome-with-icon"_s),
                                          m_platform)));
    QVERIFY(m_desktop->waitForRun(u"chrome-with-icon"_s));
    QCOMPARE(
        m_desktop->arguments(u"chrome-with-icon"_s),
        (QStringList{u"--class=Icon Browser"_s, u"--icon"_s, u"web-browser"_s,
                     u"--from="_s + m_desktop->userApplications() + u"/chrome-with-icon.desktop"_s,
                     u"https://e.com/"_s}));
    QCOMPARE(m_desktop->activationToken(u"chrome-with-icon"_s), QString());
}

void TestBrowsers::flatpakEntryGetsTheLinkBetweenItsMarkers()
{
    m_desktop->forget(u"flatpak"_s);
    QVERIFY(waitFor(BrowserLauncher::open(link(u"https://e.com/"_s),
                                          browser(u"org.mozilla.firefox"_s), m_platform)));
    QVERIFY(m_desktop->waitForRun(u"flatpak"_s));
    QCOMPARE(m_desktop->arguments(u"flatpak"_s),
             (QStringList{u"run"_s, u"--branch=stable"_s, u"--arch=x86_64"_s,
                          u"--command=firefox"_s, u"--file-forwarding"_s, u"org.mozilla.firefox"_s,
                          u"@@u"_s, u"https://e.com/"_s, u"@@"_s}));

    // A profile launch drops the markers and puts the profile after the app id.
    m_desktop->forget(u"flatpak"_s);
    QVERIFY(
        waitFor(ProfileLauncher::open(link(u"https://e.com/"_s), browser(u"org.mozilla.firefox"_s),
                                      u"default-release"_s, m_profilePlatform)));
    QVERIFY(m_desktop->waitForRun(u"flatpak"_s));
    QCOMPARE(m_desktop->arguments(u"flatpak"_s),
             (QStringList{u"run"_s, u"--branch=stable"_s, u"--arch=x86_64"_s,
                          u"--command=firefox"_s, u"--file-forwarding"_s, u"org.mozilla.firefox"_s,
                          u"-P"_s, u"default-release"_s, u"https://e.com/"_s}));
}

void TestBrowsers::systemLookupForUnlistedBrowsers()
{
    m_desktop->forget(u"brave-browser"_s);
    QTest::ignoreMessage(QtInfoMsg,
                         "Browser <private> not in provided list, attempting system lookup");
    QTest::ignoreMessage(QtInfoMsg, "Opening <private> with <private> (<private>)");
    QVERIFY(waitFor(
        BrowserLauncher::open(link(u"https://e.com/x"_s), u"brave-browser"_s, {}, m_platform)));
    QVERIFY(m_desktop->waitForRun(u"brave-browser"_s));
    QCOMPARE(m_desktop->arguments(u"brave-browser"_s), QStringList{u"https://e.com/x"_s});
}

void TestBrowsers::launchFailures()
{
    const QList<BrowserInfo> browsers =
        BrowserDiscovery::discoverBrowsers(GioDesktopEntries::instance());
    const auto notFound = waitFor(BrowserLauncher::open(
        link(u"https://e.com/"_s), u"no.such.browser"_s, browsers, m_platform));
    QVERIFY(!notFound);
    QCOMPARE(notFound.error().description(), u"No browser found with bundle ID: no.such.browser"_s);

    // An entry removed between discovery and launch: the list entry is not looked up again.
    const QString path = m_desktop->addBrowser(u"short-lived"_s, u"Short Lived"_s);
    const BrowserInfo shortLived{u"short-lived"_s, u"Short Lived"_s, QUrl::fromLocalFile(path)};
    QFile::remove(path);
    const auto notAvailable =
        waitFor(BrowserLauncher::open(link(u"https://e.com/"_s), shortLived, m_platform));
    QVERIFY(!notAvailable);
    QCOMPARE(notAvailable.error().description(),
             u"Browser \"Short Lived\" is not available at "_s + path);

    const auto failed = waitFor(
        BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"broken-exec"_s), m_platform));
    QVERIFY(!failed);
    QCOMPARE(failed.error().kind, BrowserLauncher::LaunchError::Kind::OpenFailed);
    QVERIFY2(failed.error().description().startsWith(u"Failed to open URL: "_s),
             qPrintable(failed.error().description()));

    // The folder to start in is missing, not the program.
    const QString homeless =
        m_desktop->addBrowser(u"homeless"_s, u"Homeless"_s, u"Path=/nonexistent/folder\n"_s);
    const auto noFolder = waitFor(BrowserLauncher::open(
        link(u"https://e.com/"_s),
        BrowserInfo{u"homeless"_s, u"Homeless"_s, QUrl::fromLocalFile(homeless)}, m_platform));
    QCOMPARE(noFolder.error().description(),
             u"Failed to open URL: The folder “/nonexistent/folder” that the desktop entry starts "
             "it in (Path=) does not exist."_s);
    QVERIFY(!m_desktop->ran(u"homeless"_s));

    // An entry that hands the link to a shell as its command: never started.
    const QString marker = m_desktop->root() + u"/ran-by-a-link"_s;
    const QString shelly = m_desktop->addBrowser(u"shelly"_s, u"Shelly"_s, {}, u"sh -c %u"_s);
    const auto shell = waitFor(BrowserLauncher::open(
        link(QString(u"https://e.com/;touch${IFS}"_s + marker)),
        BrowserInfo{u"shelly"_s, u"Shelly"_s, QUrl::fromLocalFile(shelly)}, m_platform));
    QVERIFY(!shell);
    QVERIFY2(shell.error().description().contains(u"Quillvane does not start "_s + shelly),
             qPrintable(shell.error().description()));
    QVERIFY(!QFile::exists(marker));
}

void TestBrowsers::privateWindowsAndExtraArguments()
{
    LaunchOptions options;
    options.extraArguments = {u"--class=work"_s, u"two words"_s};
    options.privateWindow = true;
    m_desktop->forget(u"chromium"_s);
    QVERIFY(waitFor(
        BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"chromium"_s), m_platform, options)));
    QVERIFY(m_desktop->waitForRun(u"chromium"_s));
    QCOMPARE(m_desktop->arguments(u"chromium"_s),
             (QStringList{u"--class=work"_s, u"two words"_s, u"--incognito"_s, u"https://e.com/"_s}));

    // With a profile, Firefox's own options come first.
    options.extraArguments.clear();
    m_desktop->forget(u"firefox-esr"_s);
    QVERIFY(waitFor(ProfileLauncher::open(link(u"https://e.com/"_s), browser(u"firefox-esr"_s),
                                          u"work"_s, m_profilePlatform, options)));
    QVERIFY(m_desktop->waitForRun(u"firefox-esr"_s));
    QCOMPARE(m_desktop->arguments(u"firefox-esr"_s),
             (QStringList{u"-P"_s, u"work"_s, u"--private-window"_s, u"https://e.com/"_s}));

    // A browser whose private window Quillvane does not know gets no guess.
    m_desktop->forget(u"arc"_s);
    QVERIFY(waitFor(
        BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"arc"_s), m_platform, options)));
    QVERIFY(m_desktop->waitForRun(u"arc"_s));
    QCOMPARE(m_desktop->arguments(u"arc"_s), QStringList{u"https://e.com/"_s});
}

void TestBrowsers::dbusActivatableEntriesAreActivated()
{
    RecordingLauncher launcher;
    const LaunchPlatform platform{GioDesktopEntries::instance(), launcher};
    QVERIFY(waitFor(BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"activatable"_s),
                                          platform, withToken(u"t"_s))));
    QVERIFY(launcher.spawned.isEmpty());
    QCOMPARE(launcher.activated,
             (QList<QStringList>{{m_desktop->userApplications() + u"/activatable.desktop"_s,
                                  u"https://e.com/"_s, u"t"_s}}));

    launcher.failure = u"The name is not activatable"_s;
    const auto failed = waitFor(
        BrowserLauncher::open(link(u"https://e.com/"_s), browser(u"activatable"_s), platform));
    QVERIFY(!failed);
    QCOMPARE(failed.error().description(), u"Failed to open URL: The name is not activatable"_s);
}

void TestBrowsers::profileLaunchFailures()
{
    const auto unsupported = waitFor(ProfileLauncher::open(
        link(u"https://e.com/"_s), browser(u"arc"_s), u"Default"_s, m_profilePlatform));
    QVERIFY(!unsupported);
    QCOMPARE(unsupported.error().description(),
             u"Profile launch is not supported for browser: arc"_s);

    const QString entry = m_desktop->addBrowser(u"google-chrome-beta"_s, u"Chrome Beta"_s, {},
                                                u"/nonexistent/google-chrome-beta %U"_s);
    const BrowserInfo beta{u"google-chrome-beta"_s, u"Chrome Beta"_s, QUrl::fromLocalFile(entry)};
    const auto missing = waitFor(
        ProfileLauncher::open(link(u"https://e.com/"_s), beta, u"Default"_s, m_profilePlatform));
    QVERIFY(!missing);
    QCOMPARE(missing.error().description(), u"Browser executable not found at "_s + entry);

    RecordingLauncher launcher;
    launcher.failure = u"Permission denied"_s;
    const auto failed = waitFor(
        ProfileLauncher::open(link(u"https://e.com/"_s), browser(u"chromium"_s), u"Default"_s,
                              LaunchPlatform{GioDesktopEntries::instance(), launcher}));
    QVERIFY(!failed);
    QCOMPARE(failed.error().description(),
             u"Failed to launch browser with profile: Permission denied"_s);
}

void TestBrowsers::doctorShowsTheDesktop()
{
    QFile mimeapps(m_desktop->configHome() + u"/mimeapps.list"_s);
    QVERIFY(mimeapps.open(QIODevice::WriteOnly));
    mimeapps.write("[Default Applications]\nx-scheme-handler/https=firefox-esr.desktop\n"
                   "x-scheme-handler/http=work.vorpa.Quillvane.desktop\n");
    mimeapps.close();
    QDir().mkpath(m_desktop->configHome() + u"/google-chrome"_s);
    QFile localState(m_desktop->configHome() + u"/google-chrome/Local State"_s);
    QVERIFY(localState.open(QIODevice::WriteOnly));
    localState.write(R"({"profile":{"info_cache":{"Default":{"name":"Me"}}}})");
    localState.close();

    QProcess doctor;
    doctor.start(QStringLiteral(QUILLVANE_EXECUTABLE), {u"doctor"_s, u"--json"_s});
    QVERIFY(doctor.waitForFinished(10000));
    QCOMPARE(doctor.exitCode(), 0);
    const QJsonObject report = QJsonDocument::fromJson(doctor.readAllStandardOutput()).object();
    const QJsonObject handlers = report.value(u"defaultBrowser"_s).toObject();
    QCOMPARE(handlers.value(u"https"_s).toString(), u"firefox-esr"_s);
    QCOMPARE(handlers.value(u"http"_s).toString(), u"work.vorpa.Quillvane"_s);
    QCOMPARE(handlers.value(u"isQuillvane"_s).toBool(), false);

    QHash<QString, QJsonObject> browsers;
    for (const QJsonValue &value : report.value(u"browsers"_s).toArray())
        browsers.insert(value.toObject().value(u"id"_s).toString(), value.toObject());
    QCOMPARE(browsers.size(),
             BrowserDiscovery::refreshBrowsers(GioDesktopEntries::instance()).size());
    const QJsonObject chrome = browsers.value(u"google-chrome"_s);
    QCOMPARE(chrome.value(u"desktopEntry"_s).toString(),
             m_desktop->userApplications() + u"/google-chrome.desktop"_s);
    QCOMPARE(chrome.value(u"profiles"_s).toArray(),
             (QJsonArray{QJsonObject{{u"id"_s, u"Default"_s}, {u"name"_s, u"Me"_s}}}));
    QVERIFY(browsers.value(u"arc"_s).value(u"profiles"_s).isNull());
    QCOMPARE(report.value(u"settingsFile"_s).toObject().value(u"path"_s).toString(),
             m_desktop->configHome() + u"/Quillvane/Quillvane.conf"_s);
    QCOMPARE(report.value(u"launchAtLogin"_s).toObject().value(u"enabled"_s).toBool(), false);
    // Reading never writes: no settings file appears.
    QVERIFY(!QFile::exists(m_desktop->configHome() + u"/Quillvane/Quillvane.conf"_s));

    doctor.start(QStringLiteral(QUILLVANE_EXECUTABLE), {u"doctor"_s});
    QVERIFY(doctor.waitForFinished(10000));
    const QString text = QString::fromUtf8(doctor.readAllStandardOutput());
    QVERIFY2(text.contains(u"  https handler:  firefox-esr\n"_s), qPrintable(text));
    QVERIFY(text.contains(u"  Google Chrome [google-chrome]\n"_s));
    QVERIFY(text.contains(u"      Me (Default)"_s));
}

// A browser started by Quillvane may live for hours: only links handed out in
// the last seconds may count as coming back.
void TestBrowsers::theLedgerForgetsAfterItsWindow()
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

QTEST_GUILESS_MAIN(TestBrowsers)
#include "tst_browsers.moc"
