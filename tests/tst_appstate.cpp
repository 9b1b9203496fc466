#include "App/AppState.h"
#include "App/AutomationBridge.h"
#include "TestSupport.h"

#include <QSignalSpy>
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
    // says where the mistake is, and writes nothing over the person's file,
    // until it is corrected.
    void aBrokenFileIsNeverWrittenOver()
    {
        const QString path = m_app->environment.configPath();
        writeFile(path, "{\n    \"rules_enabled\": tru\n}\n");
        AppState *state = &makeState();
        QVERIFY(state->rules().isEmpty() && state->fallbackBrowserId().isEmpty());
        QCOMPARE(m_app->notifications.value(0).value(0),
                 u"Quillvane cannot read its configuration"_s);
        QVERIFY2(m_app->notifications[0][1].contains(path + u":2:"_s),
                 qPrintable(m_app->notifications[0][1]));

        const qsizetype told = m_app->notifications.size();
        state->addRule(makeRule(u"new"_s, std::nullopt, u"epiphany"_s));
        QVERIFY(state->rules().isEmpty());
        QCOMPARE(m_app->notifications.size(), told + 1);
        QCOMPARE(m_app->notifications.last().value(0), u"Quillvane could not save a change"_s);
        QCOMPARE(readFile(path), QByteArray("{\n    \"rules_enabled\": tru\n}\n"));

        Config fixed;
        fixed.rules = {makeRule(u"mail"_s, std::nullopt, u"chromium"_s)};
        fixed.fallbackBrowser = u"chromium"_s;
        writeConfig(path, fixed);
        QSignalSpy rules(state, &AppState::configChanged);
        m_app->config->reload();
        QCOMPARE(rules.size(), 1);
        QCOMPARE(state->rules(), fixed.rules);
        state->addRule(makeRule(u"new"_s, std::nullopt, u"epiphany"_s));
        QCOMPARE(m_app->stored().rules.size(), 2);
    }

    // The rules and the cleaning switch are replaced; the fallback only when the
    // document names one; other switches stay.
    void importReplacesRulesOnly()
    {
        AppState *state = &makeState();
        state->addRule(makeRule(u"a"_s, std::nullopt, u"x"_s));
        state->toggle(&Config::urlExpansionEnabled);
        const QString fallback = state->fallbackBrowserId();
        ConfigManager::ExportData config;
        config.rules = {makeRule(QString(), u"b.org"_s, u"y"_s)};
        config.urlCleaningEnabled = false;
        state->applyImportedConfig(config);
        QCOMPARE(state->rules(), config.rules);
        QCOMPARE(state->fallbackBrowserId(), fallback);
        QVERIFY(!state->config().urlCleaningEnabled && state->config().urlExpansionEnabled);
        QCOMPARE(m_app->stored().rules, config.rules);
        config.rules.clear();
        config.fallbackBrowserId = u"chromium"_s;
        // Switches of handoffs this Quillvane does not know are left out.
        config.handoffs = QStringList{u"teleporter"_s, u"zoom"_s};
        state->applyImportedConfig(config);
        QVERIFY(state->rules().isEmpty());
        QCOMPARE(state->config().handoffs, QStringList{u"zoom"_s});
        QCOMPARE(m_app->stored().fallbackBrowser, u"chromium"_s);
    }

    // The switch asks the system, not a copy of its own, and a failure changes
    // nothing. The default-browser check compares ids exactly.
    void launchAtLoginAndTheDefaultBrowser()
    {
        m_app->entries.httpHandler = u"work.vorpa.Quillvane"_s;
        m_app->entries.httpsHandler = u"firefox-esr"_s;
        AppState *state = &makeState();
        // A failure to change launch at login changes nothing.
        m_app->autostart.failure = u"Read-only file system"_s;
        QTest::ignoreMessage(QtCriticalMsg, "Failed to toggle launch at login: <private>");
        state->toggleLaunchAtLogin();
        QVERIFY(!state->launchAtLogin() && !m_app->autostart.enabled);

        QVERIFY(!state->isSystemDefaultBrowser());
        m_app->entries.httpsHandler = u"WORK.VORPA.QUILLVANE"_s;
        QVERIFY(!state->checkIsDefaultBrowser());
        m_app->entries.httpsHandler = u"work.vorpa.Quillvane"_s;
        QSignalSpy isDefault(state, &AppState::isSystemDefaultBrowserChanged);
        state->refreshDefaultBrowserStatus();
        QVERIFY(state->isSystemDefaultBrowser());
        QCOMPARE(isDefault.size(), 1);
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
