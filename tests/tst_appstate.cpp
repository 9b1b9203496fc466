#include "App/AppState.h"
#include "App/AutomationBridge.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestAppState final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_app = std::make_unique<AppFixture>();
        setBrowsers({u"epiphany"_s, u"firefox-esr"_s, u"chromium"_s});
    }

    void cleanup() { m_app.reset(); }

    void startupChoosesAFallback_data()
    {
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("httpsHandler");
        QTest::addColumn<QString>("fallback");
        QTest::newRow("the desktop's handler")
            << QStringList{u"epiphany"_s, u"firefox-esr"_s} << u"epiphany"_s << u"epiphany"_s;
        QTest::newRow("Quillvane handles links")
            << QStringList{u"epiphany"_s, u"chromium"_s, u"firefox-esr"_s}
            << u"work.vorpa.Quillvane"_s << u"firefox-esr"_s;
        QTest::newRow("handler not a browser")
            << QStringList{u"epiphany"_s, u"chromium"_s} << u"org.gnome.Evince"_s << u"chromium"_s;
        QTest::newRow("no known browser")
            << QStringList{u"zen"_s, u"epiphany"_s} << QString() << u"epiphany"_s;
        QTest::newRow("no browser at all") << QStringList() << QString() << QString();
    }

    void startupChoosesAFallback()
    {
        QFETCH(QStringList, installed);
        QFETCH(QString, httpsHandler);
        QFETCH(QString, fallback);
        setBrowsers(installed);
        if (!httpsHandler.isEmpty())
            m_app->entries.httpsHandler = httpsHandler;
        AppState *state = &makeState();
        QCOMPARE(state->fallbackBrowserId(), fallback);
        QCOMPARE(m_app->stored().fallbackBrowser, fallback);
        // Without one, a script's link that no rule claims opens nowhere, and says so.
        if (fallback.isEmpty()) {
            const auto answer =
                AutomationBridge(*state).routeURL(link(u"https://e.com/"_s), std::nullopt).result();
            QCOMPARE(answer.value(), u"No routing rule matched and no default browser is set."_s);
        }
    }

    // A file that cannot be read at start: Quillvane routes with its defaults,
    // says where the mistake is, and writes nothing over the person's file, not
    // even the fallback it chose. (A broken edit while it runs: tst_configfile.)
    void aBrokenFileIsNeverWrittenOver()
    {
        const QString path = m_app->environment.configPath();
        writeFile(path, "{\n    \"rules_enabled\": tru\n}\n");
        AppState *state = &makeState();
        QVERIFY(state->rules().isEmpty());
        QCOMPARE(m_app->notifications.value(0).value(0),
                 u"Quillvane cannot read its configuration"_s);
        QVERIFY2(m_app->notifications[0][1].contains(path + u":2:"_s),
                 qPrintable(m_app->notifications[0][1]));
        state->addRule(makeRule(u"new"_s, std::nullopt, u"epiphany"_s));
        QVERIFY(state->rules().isEmpty());
        QCOMPARE(readFile(path), QByteArray("{\n    \"rules_enabled\": tru\n}\n"));
    }

    // The switch asks the system, not a copy of its own, and a failure changes
    // nothing. (The default-browser check: tst_registration, on a real desktop.)
    void launchAtLoginFailing()
    {
        AppState *state = &makeState();
        m_app->autostart.failure = u"Read-only file system"_s;
        QTest::ignoreMessage(QtCriticalMsg, "Failed to toggle launch at login: <private>");
        state->toggleLaunchAtLogin();
        QVERIFY(!state->launchAtLogin() && !m_app->autostart.enabled);
    }

private:
    AppState &makeState()
    {
        return m_app->start();
    }

    void setBrowsers(const QStringList &ids)
    {
        m_app->entries = FakeDesktopEntries();
        for (const QString &id : ids)
            m_app->entries.add(id);
    }

    std::unique_ptr<AppFixture> m_app;
};

QTEST_GUILESS_MAIN(TestAppState)
#include "tst_appstate.moc"
