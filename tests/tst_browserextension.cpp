// Quillvane's extension in the real Firefox ESR and Chromium of the system,
// headless, with Quillvane installed and started on this test's session bus.
// A page served here clicks its links itself once the test says so; a URL rule
// sends localhost to a fake browser.
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Services/NativeMessaging.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

using namespace Qt::Literals::StringLiterals;

namespace {

InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));
const QString ExtensionBuild = QStringLiteral(QUILLVANE_BUILD_DIR) + u"/browser-extension"_s;

// Waits for the test's word ("/go" answers which link to click), clicks it,
// then keeps asking "/alive": only a page that was never left asks again.
// "/alive" may name a link to click next, or "tab": away opened in a new tab,
// and "/closed" asked once that tab has closed.
const QByteArray StartPage =
    "<!DOCTYPE html><html><body>"
    "<a id=\"away\" href=\"http://localhost:@PORT@/away?utm_source=test\">away</a>"
    "<a id=\"stay\" href=\"http://127.0.0.1:@PORT@/stay\">stay</a>"
    "<script>"
    "const pause = () => new Promise((done) => setTimeout(done, 50));"
    "async function word(path) {"
    "  try {"
    "    const answer = await fetch(path, {cache: 'no-store'});"
    "    return answer.ok ? await answer.text() : '';"
    "  } catch { return ''; }" // a stopped navigation stops the page's requests too
    "}"
    "(async () => {"
    "  let link, tabbed;"
    "  while (!(link = await word('/go'))) await pause();"
    "  document.getElementById(link).click();"
    "  for (;;) {"
    "    const next = await word('/alive');"
    "    if (next === 'tab' && !tabbed) {"
    "      tabbed = window.open(document.getElementById('away').href);"
    "      while (!tabbed?.closed) await pause();" // a blocked window never closes
    "      await word('/closed');"
    "    } else if (next && next !== 'tab') { document.getElementById(next).click(); return; }"
    "    await pause();"
    "  }"
    "})();"
    "</script></body></html>";

// A browser that ends with the test that started it.
struct Browser : QProcess
{
    ~Browser() override
    {
        kill();
        waitForFinished();
    }
};

} // namespace

class TestBrowserExtension : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<FakeDesktop> m_desktop;
    std::unique_ptr<TestHttpServer> m_server;
    QString m_entries;

    QList<ForwardingRecord> storedHistory() const
    {
        return InstalledQuillvane::storedHistory(*m_desktop);
    }

    // The browser started as the desktop starts it: GIO's launch environment
    // names its entry, which is how Quillvane knows the host's parent.
    std::unique_ptr<Browser> startBrowser(const QString &id, const QStringList &arguments)
    {
        auto browser = std::make_unique<Browser>();
        browser->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        browser->setStandardOutputFile(QProcess::nullDevice());
        QStringList command{u"-c"_s, u"export GIO_LAUNCHED_DESKTOP_FILE=\"$0\" "
                                     "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; exec \"$@\""_s,
                            m_entries + u'/' + id + u".desktop"_s};
        browser->start(u"/bin/sh"_s, command + arguments);
        return browser;
    }

    // A profile of its own keeps its own extension storage; the host's
    // manifest is found in the user data folder that all profiles share.
    QStringList chromiumCommand(const QString &profile = u"Default"_s,
                                const QString &extension = ExtensionBuild + u"/chromium"_s) const
    {
        return {u"/usr/bin/chromium"_s, u"--headless"_s, u"--no-sandbox"_s, u"--disable-gpu"_s,
                u"--no-first-run"_s, u"--disable-background-networking"_s,
                u"--disable-component-update"_s, u"--disable-sync"_s,
                u"--disable-popup-blocking"_s,
                u"--user-data-dir="_s + m_desktop->configHome() + u"/chromium"_s,
                u"--profile-directory="_s + profile,
                u"--load-extension="_s + extension,
                u"--disable-features=DisableLoadExtensionCommandLineSwitch"_s};
    }
    std::unique_ptr<Browser> startChromium(const QStringList &command)
    {
        return startBrowser(u"chromium"_s,
                            command + QStringList{m_server->baseUrl() + u"/start"_s});
    }
    // Whether one of the extension's pages says that, as Chromium shows it
    // (asked again while the page was shown before the answer came).
    static bool pageSays(QStringList command, const QString &page, const QString &text)
    {
        command << u"--virtual-time-budget=5000"_s << u"--dump-dom"_s
                << u"chrome-extension://%1/%2"_s.arg(NativeMessaging::ChromiumExtensionId, page);
        const auto says = [&] {
            return InstalledQuillvane::run(command.first(), command.mid(1)).out.contains(text);
        };
        return QTest::qWaitFor(says, 60000);
    }

    // The page's clicks: away leaves (the tab stays and keeps asking, past
    // /away's late answer); away in a new tab leaves, and the tab closes; stay
    // loads here and Quillvane records nothing.
    void clicksOnThePage(const QString &browserId, bool holdsRequests)
    {
        // The extension has reached Quillvane through its host.
        QTRY_VERIFY_WITH_TIMEOUT(NativeMessaging::connections().contains(browserId), 60000);
        m_desktop->forget(u"other-browser"_s);
        const qsizetype before = storedHistory().size();
        m_server->serve(u"/go"_s, "away");
        QCOMPARE(m_desktop->opened(u"other-browser"_s, 30000),
                 QStringList{u"http://localhost:%1/away"_s.arg(m_server->port())});
        QTRY_COMPARE(storedHistory().size(), before + 1);
        QCOMPARE(storedHistory().value(0).sourceAppId.value_or(QString()), browserId);

        const int asked = m_server->requestCount(u"/alive"_s); // then 40 more, 50 ms apart at least
        QTRY_VERIFY_WITH_TIMEOUT(m_server->requestCount(u"/alive"_s) > asked + 40, 30000);
        QCOMPARE(m_server->requestCount(u"/start"_s), 1);

        // The same link in a tab of its own: it leaves, and the tab closes.
        m_desktop->forget(u"other-browser"_s);
        m_server->serve(u"/alive"_s, "tab");
        QCOMPARE(m_desktop->opened(u"other-browser"_s, 30000),
                 QStringList{u"http://localhost:%1/away"_s.arg(m_server->port())});
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(u"/closed"_s), 1, 30000);
        if (holdsRequests)
            QCOMPARE(m_server->requestCount(u"/away?utm_source=test"_s), 0);

        m_desktop->forget(u"other-browser"_s);
        m_server->serve(u"/alive"_s, "stay");
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(u"/stay"_s), 1, 30000);
        QVERIFY(!m_desktop->ran(u"other-browser"_s));
        QCOMPARE(storedHistory().size(), before + 2);
    }

    void resetPage()
    {
        m_server = std::make_unique<TestHttpServer>();
        m_server->serve(u"/start"_s, QByteArray(StartPage).replace(
                                         "@PORT@", QByteArray::number(m_server->port())));
        m_server->serve(u"/stay"_s, "<!DOCTYPE html><title>stayed</title>");
        // A second late: a page the extension did not stop would be replaced by it.
        m_server->on(u"/away?utm_source=test"_s,
                     TestHttpServer::Response{200, {}, false, "<title>left</title>", false, 1000});
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(),
                 "needs a session bus: CTest runs it under dbus-run-session");
        m_desktop = std::make_unique<FakeDesktop>();
        QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));
        m_desktop->addBrowser(u"fallback-browser"_s, u"Fallback"_s);
        m_desktop->addBrowser(u"other-browser"_s, u"Other"_s);
        m_desktop->addBrowser(u"chromium"_s, u"Chromium"_s, {}, u"/usr/bin/chromium %U"_s);
        m_desktop->addBrowser(u"firefox-esr"_s, u"Firefox ESR"_s, {}, u"/usr/bin/firefox-esr %u"_s);
        m_entries = m_desktop->userApplications();

        Config config;
        config.fallbackBrowser = u"fallback-browser"_s;
        config.rules = {makeRule(QString(), u"localhost"_s, u"other-browser"_s)};
        InstalledQuillvane::seed(*m_desktop, config);
        // Browsers used here before Quillvane starts: it registers its host for them.
        QVERIFY(QDir().mkpath(m_desktop->configHome() + u"/chromium"_s));
        QVERIFY(QDir().mkpath(m_desktop->home() + u"/.mozilla"_s));
        QVERIFY(InstalledQuillvane::opens({u"https://example.com/start"_s}));
        QCOMPARE(m_desktop->opened(u"fallback-browser"_s),
                 QStringList{u"https://example.com/start"_s});
        const QString manifest = u"/work.vorpa.quillvane.json"_s; // written once it has started
        QTRY_VERIFY(QFile::exists(m_desktop->home() + u"/.mozilla/native-messaging-hosts"_s
                                  + manifest)
                    && QFile::exists(m_desktop->configHome() + u"/chromium/NativeMessagingHosts"_s
                                     + manifest));
    }

    void cleanupTestCase()
    {
        if (m_desktop && InstalledQuillvane::isRunning())
            QVERIFY(InstalledQuillvane::stop());
    }

    void init() { resetPage(); }

    // Chromium lets the extension watch a navigation, not hold it: the
    // extension stops it once Quillvane says the link leaves.
    void chromium()
    {
        if (QStandardPaths::findExecutable(u"chromium"_s).isEmpty())
            QFAIL("chromium is not installed: the test command installs it");
        const auto browser = startChromium(chromiumCommand());
        clicksOnThePage(u"chromium"_s, false);
    }

    // Firefox holds the request until Quillvane answers: the page that leaves
    // is never asked for.
    void firefox()
    {
        if (QStandardPaths::findExecutable(u"firefox-esr"_s).isEmpty())
            QFAIL("firefox-esr is not installed: the test command installs it");
        QTemporaryDir profile;
        QVERIFY(QDir().mkpath(profile.path() + u"/extensions"_s));
        QVERIFY(QFile::copy(ExtensionBuild + u"/quillvane.xpi"_s,
                            profile.path() + u"/extensions/quillvane@vorpa.work.xpi"_s));
        QFile prefs(profile.path() + u"/user.js"_s);
        QVERIFY(prefs.open(QIODevice::WriteOnly));
        for (const char *pref :
             {"xpinstall.signatures.required\", false", "extensions.autoDisableScopes\", 0",
              "browser.shell.checkDefaultBrowser\", false",
              "datareporting.policy.dataSubmissionEnabled\", false",
              "browser.aboutwelcome.enabled\", false", "app.update.enabled\", false",
              "network.captive-portal-service.enabled\", false",
              "extensions.update.enabled\", false", "dom.disable_open_during_load\", false"})
            prefs.write("user_pref(\"" + QByteArray(pref) + ");\n");
        prefs.close();
        const auto browser =
            startBrowser(u"firefox-esr"_s, {u"/usr/bin/firefox-esr"_s, u"--headless"_s,
                                            u"--no-remote"_s, u"--profile"_s, profile.path(),
                                            m_server->baseUrl() + u"/start"_s});
        clicksOnThePage(u"firefox-esr"_s, true);
    }

    // The extension's own switch turned off (by a page of a copy, which has the
    // same id and so the same storage): the link a rule sends away loads here.
    void switchedOff()
    {
        QTemporaryDir copy;
        const QString unpacked = ExtensionBuild + u"/chromium"_s;
        QCOMPARE(QProcess::execute(u"cp"_s, {u"-RT"_s, unpacked, copy.path()}), 0);
        writeFile(copy.filePath(u"off.html"_s), "<script src=\"off.js\"></script>");
        writeFile(copy.filePath(u"off.js"_s),
                  "chrome.storage.local.set({leave: false}).then(() => document.title = 'off');");
        const QStringList command = chromiumCommand(u"Switched"_s, copy.path());
        QVERIFY(pageSays(command, u"off.html"_s, u"<title>off</title>"_s));

        // Late as before, so that a link the extension sent away never lands.
        m_server->on(u"/away?utm_source=test"_s,
                     {200, {}, false, "<script>fetch('/landed')</script>", false, 1000});
        m_desktop->forget(u"other-browser"_s);
        const qsizetype before = storedHistory().size();
        const QDateTime started = QDateTime::currentDateTimeUtc();
        const auto browser = startChromium(command);
        // Its extension connected: Quillvane would answer long before /away does.
        QTRY_VERIFY_WITH_TIMEOUT(NativeMessaging::connections().value(u"chromium"_s) > started,
                                 60000);
        m_server->serve(u"/go"_s, "away");
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(u"/landed"_s), 1, 60000);
        QVERIFY(!m_desktop->ran(u"other-browser"_s));
        QCOMPARE(storedHistory().size(), before);
    }

    // doctor: the host registered for both browsers, both extensions connected;
    // the options page says that Quillvane runs.
    void doctorListsThem()
    {
        QVERIFY(pageSays(chromiumCommand(), u"options.html"_s, u"Quillvane is running"_s));
        const auto doctor = InstalledQuillvane::run(g_installed.program(u"quillvane"_s),
                                                    {u"doctor"_s, u"--json"_s});
        const QJsonObject extension = QJsonDocument::fromJson(doctor.out.toUtf8())
                                          .object()[u"browserExtension"_s]
                                          .toObject();
        QStringList registered;
        for (const QJsonValue &host : extension[u"hosts"_s].toArray()) {
            if (host[u"registered"_s].toBool())
                registered.append(host[u"browser"_s].toString());
        }
        QCOMPARE(registered, (QStringList{u"Firefox"_s, u"Chromium"_s}));
        QCOMPARE(extension[u"connected"_s].toObject().keys(),
                 (QStringList{u"chromium"_s, u"firefox-esr"_s}));
    }

    // Without Quillvane the options page says so, the link the rule would send
    // away loads where it was clicked, and checking it does not start Quillvane.
    void withoutQuillvane()
    {
        QVERIFY(InstalledQuillvane::stop());
        QVERIFY(pageSays(chromiumCommand(), u"options.html"_s,
                         u"Quillvane is not running: links stay in this browser"_s));
        m_server->serve(u"/away?utm_source=test"_s, "<!DOCTYPE html><title>loaded</title>");
        m_desktop->forget(u"other-browser"_s);
        const auto browser = startChromium(chromiumCommand());
        m_server->serve(u"/go"_s, "away");
        QTRY_COMPARE_WITH_TIMEOUT(m_server->requestCount(u"/away?utm_source=test"_s), 1, 60000);
        QVERIFY(!InstalledQuillvane::isRunning());
        QVERIFY(!m_desktop->ran(u"other-browser"_s));
    }
};

QTEST_GUILESS_MAIN(TestBrowserExtension)
#include "tst_browserextension.moc"
