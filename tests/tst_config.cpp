#include "Platform/Autostart.h"
#include "Services/ConfigManager.h"
#include "Services/LaunchAtLoginManager.h"
#include "Storage/SettingsKeys.h"
#include "TestSupport.h"

#include <QDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {
const QDateTime ExportTime(QDate(2025, 3, 1), QTime(9, 30, 0, 750), Qt::UTC);

// A valid document, with a change: a member's text replaced, or members added.
QByteArray document(const QByteArray &from = {}, const QByteArray &to = {})
{
    QByteArray json = "{\"version\":1,\"exportDate\":\"2025-03-01T09:30:00Z\",\"rules\":[],"
                      "\"urlCleaningEnabled\":true}";
    return from.isEmpty() ? json.insert(json.size() - 1, to) : json.replace(from, to);
}
} // namespace

class TestConfig final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_environment = std::make_unique<TestEnvironment>();
        m_settings = m_environment->settings();
    }

    void cleanup()
    {
        m_settings.reset();
        m_environment.reset();
    }

    void exportedDocument();
    // Every rule field, browser settings and "Ask" as the fallback come back as
    // they went, and the document encodes again byte for byte; a document without
    // the optional members leaves them out.
    void roundTripIsByteForByte()
    {
        RuleStore store(*m_settings);
        RoutingRule privateRule = makeRule(QString(), u"bank.example"_s, u"chromium"_s);
        privateRule.openInPrivateWindow = true;
        RoutingRule askingRule = makeRule(u"org.gnome.Evolution"_s, std::nullopt, QString());
        askingRule.askWhereToOpen = true;
        store.saveRules({makeRule(u"app"_s, u"https://example.com/a"_s, u"b"_s, u"Profile 1"_s),
                         makeRule(QString(), u"ünïcode \"quoted\" \\ back"_s, u"c"_s), privateRule,
                         askingRule});
        store.saveDefaultBrowserBundleID(u"firefox-esr"_s);
        const QByteArray plain = *ConfigManager::exportToJSON(store, ExportTime);
        QVERIFY(!plain.contains("browserPreferences") && !plain.contains("fallbackAsks")
                && !plain.contains("handoffs"));
        const auto plainImport = ConfigManager::importFromJSON(plain);
        QVERIFY(!plainImport->fallbackAsks && !plainImport->browserPreferences
                && !plainImport->handoffs);
        SettingsKeys::writeTexts(*m_settings, SettingsKeys::EnabledHandoffs,
                                 {u"zoom"_s, u"spotify"_s});

        m_settings->setValue(u"fallback_asks"_s, true);
        store.saveBrowserPreferences(
            {{u"chromium"_s, false, u"--class=\"Work Mail\""_s}, {u"epiphany"_s, true, {}}});
        const QByteArray json = *ConfigManager::exportToJSON(store, ExportTime);
        const auto imported = ConfigManager::importFromJSON(json);
        QCOMPARE(imported->rules, store.loadRules());
        QVERIFY(imported->rules[2].openInPrivateWindow && imported->rules[3].askWhereToOpen);
        QCOMPARE(imported->browserPreferences, store.loadBrowserPreferences());
        QVERIFY(imported->fallbackAsks);
        QCOMPARE(imported->handoffs, (QStringList{u"zoom"_s, u"spotify"_s}));
        QCOMPARE(imported->exportDate, QDateTime(QDate(2025, 3, 1), QTime(9, 30), Qt::UTC));
        QCOMPARE(ConfigManager::encode(*imported), json);
    }

    void importChecks_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("error");
        const QString decode = u"Failed to decode configuration: "_s;
        const auto version = [](const char *number) {
            return document("\"version\":1", "\"version\":" + QByteArray(number));
        };
        const QString unsupported =
            u"Unsupported config version: %1. This app supports version 1."_s;
        QTest::newRow("valid, extra member")
            << document({}, ",\"urlExpansionEnabled\":true") << QString();
        QTest::newRow("null fallback")
            << document({}, ",\"defaultBrowserBundleID\":null") << QString();
        QTest::newRow("newer") << version("2") << unsupported.arg(2);
        QTest::newRow("zero") << version("0") << unsupported.arg(0);
        QTest::newRow("negative") << version("-1") << unsupported.arg(-1);
        QTest::newRow("fractional version")
            << version("1.5") << decode + u"the member \"version\""_s;
        QTest::newRow("no cleaning switch") << document(",\"urlCleaningEnabled\":true", "")
                                            << decode + u"the member \"urlCleaningEnabled\""_s;
        QTest::newRow("fractional seconds")
            << document("09:30:00Z", "09:30:00.5Z") << decode + u"the member \"exportDate\""_s;
        QTest::newRow("bad rule")
            << document("\"rules\":[]", "\"rules\":[{\"id\":\"x\"}]")
            << decode + u"Rule 1 has a member \"id\" that is not a valid UUID."_s;
        QTest::newRow("browser settings not an array")
            << document({}, ",\"browserPreferences\":{}")
            << decode + u"the member \"browserPreferences\" is not an array."_s;
        QTest::newRow("browser arguments placing the link")
            << document({}, ",\"browserPreferences\":[{\"browserBundleID\":\"x\","
                            "\"extraArguments\":\"%u\"}]")
            << decode + u"the extra arguments for x: “%u” holds the field code %u"_s;
        QTest::newRow("private window not a boolean")
            << document(
                   "\"rules\":[]",
                   "\"rules\":[{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\","
                   "\"sourceAppBundleID\":\"\",\"sourceAppName\":\"\",\"targetBrowserBundleID\":"
                   "\"a\",\"targetBrowserName\":\"A\",\"urlPattern\":\"x\","
                   "\"openInPrivateWindow\":\"yes\"}]")
            << decode + u"Rule 1 has a member \"openInPrivateWindow\" that is not true or false"_s;
        QTest::newRow("handoffs not texts")
            << document({}, ",\"handoffs\":[\"zoom\",1]")
            << decode + u"the member \"handoffs\" is not an array of texts."_s;
        QTest::newRow("not JSON") << QByteArray("{\"version\"")
                                  << decode + u"the file is not valid JSON"_s;
        QTest::newRow("array") << QByteArray("[]")
                               << decode + u"the file does not hold a JSON object."_s;
    }

    void importChecks()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, error);
        if (!error.isEmpty())
            QTest::ignoreMessage(
                QtCriticalMsg,
                QRegularExpression(u"^(Failed to decode config JSON|Config version)"_s));
        const auto imported = ConfigManager::importFromJSON(json);
        QCOMPARE(imported ? QString() : imported.error().description().left(error.size()), error);
        QVERIFY(!imported || (!imported->defaultBrowserBundleID && imported->rules.isEmpty()));
    }

    void launchAtLogin()
    {
        XdgAutostart autostart(u"/opt/My Apps/quillvane"_s);
        const QString folder = m_environment->path() + u"/config/autostart"_s;
        const QString entry = folder + u"/work.vorpa.Quillvane.desktop"_s;
        QCOMPARE(XdgAutostart::entryPath(), entry);
        QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
        QTest::ignoreMessage(QtInfoMsg, "Registering launch at login");
        QTest::ignoreMessage(QtInfoMsg, "Successfully registered launch at login");
        QVERIFY(LaunchAtLoginManager::enable(autostart));
        QVERIFY(LaunchAtLoginManager::isEnabled(autostart));
        QVERIFY(readFile(entry).contains("\nExec=\"/opt/My Apps/quillvane\"\n"));
        // A desktop's own switch turns the entry off without removing it.
        writeFile(entry, readFile(entry) + "X-GNOME-Autostart-enabled=false\n");
        QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
        QTest::ignoreMessage(QtInfoMsg, "Unregistering launch at login");
        QTest::ignoreMessage(QtInfoMsg, "Successfully unregistered launch at login");
        QVERIFY(LaunchAtLoginManager::disable(autostart));
        QVERIFY(!QFile::exists(entry));

        // A folder that cannot be made (a file stands in its way) is an error the caller sees.
        QVERIFY(QDir(folder).removeRecursively());
        writeFile(folder, {});
        QTest::ignoreMessage(QtInfoMsg, "Registering launch at login");
        const auto enabled = LaunchAtLoginManager::enable(autostart);
        QVERIFY(!enabled && enabled.error().contains(u"autostart"_s));
        QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
    }

private:
    std::unique_ptr<TestEnvironment> m_environment;
    std::unique_ptr<QSettings> m_settings;
};

void TestConfig::exportedDocument()
{
    RuleStore store(*m_settings);
    store.saveRules({RoutingRule{QUuid::fromString(u"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"_s),
                                 u"org.gnome.Evolution"_s, u"Evolution"_s, u"firefox"_s,
                                 u"Firefox"_s, u"*example.com/docs*"_s, std::nullopt}});
    QCOMPARE(*ConfigManager::exportToJSON(store, ExportTime), QByteArray(R"({
  "exportDate" : "2025-03-01T09:30:00Z",
  "rules" : [
    {
      "id" : "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
      "sourceAppBundleID" : "org.gnome.Evolution",
      "sourceAppName" : "Evolution",
      "targetBrowserBundleID" : "firefox",
      "targetBrowserName" : "Firefox",
      "urlPattern" : "*example.com\/docs*"
    }
  ],
  "urlCleaningEnabled" : true,
  "version" : 1
})"));
    store.saveDefaultBrowserBundleID(u"firefox"_s);
    m_settings->setValue(u"url_cleaning_enabled"_s, false);
    const ConfigManager::ExportData data = ConfigManager::exportConfig(store, ExportTime);
    QVERIFY(data.defaultBrowserBundleID == u"firefox" && !data.urlCleaningEnabled);
    QVERIFY(
        ConfigManager::encode(data).startsWith("{\n  \"defaultBrowserBundleID\" : \"firefox\",\n"));
}

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
