#include "Platform/Autostart.h"
#include "Services/ConfigManager.h"
#include "Services/LaunchAtLoginManager.h"
#include "Storage/RuleStore.h"
#include "TestSupport.h"

#include <QDir>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {
const QDateTime ExportTime(QDate(2025, 3, 1), QTime(9, 30, 0, 750), Qt::UTC);

QByteArray document(const QByteArray &members)
{
    return "{\"version\":1,\"exportDate\":\"2025-03-01T09:30:00Z\",\"rules\":[],"
           "\"urlCleaningEnabled\":true"
           + members + "}";
}
} // namespace

class TestConfig final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void exportedDocument();
    void roundTripIsByteForByte();
    void importChecks_data();
    void importChecks();
    void launchAtLogin();

private:
    std::unique_ptr<TestEnvironment> m_environment;
    std::unique_ptr<QSettings> m_settings;
};

void TestConfig::init()
{
    m_environment = std::make_unique<TestEnvironment>();
    m_settings = m_environment->settings();
}

void TestConfig::cleanup()
{
    m_settings.reset();
    m_environment.reset();
}

void TestConfig::exportedDocument()
{
    RuleStore store(*m_settings);
    QUuid id = QUuid::fromString(u"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"_s);
    store.saveRules({RoutingRule{id, u"org.gnome.Evolution"_s, u"Evolution"_s, u"firefox"_s,
                                 u"Firefox"_s, u"*example.com/docs*"_s, std::nullopt}});
    QByteArray json = *ConfigManager::exportToJSON(store, ExportTime);
    QCOMPARE(json, QByteArray(R"({
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
    QCOMPARE(data.defaultBrowserBundleID, u"firefox"_s);
    QVERIFY(!data.urlCleaningEnabled);
    QVERIFY(
        ConfigManager::encode(data).startsWith("{\n  \"defaultBrowserBundleID\" : \"firefox\",\n"));
}

void TestConfig::roundTripIsByteForByte()
{
    RuleStore store(*m_settings);
    RoutingRule privateRule = makeRule(QString(), u"bank.example"_s, u"chromium"_s);
    privateRule.openInPrivateWindow = true;
    RoutingRule askingRule = makeRule(u"org.gnome.Evolution"_s, std::nullopt, QString());
    askingRule.askWhereToOpen = true;
    store.saveRules({makeRule(u"app"_s, u"https://example.com/a"_s, u"b"_s, u"Profile 1"_s),
                     makeRule(QString(), u"ünïcode \"quoted\" \\ back"_s, u"c"_s),
                     privateRule, askingRule});
    store.saveDefaultBrowserBundleID(u"firefox-esr"_s);
    const QByteArray plain = *ConfigManager::exportToJSON(store, ExportTime);
    QVERIFY(!plain.contains("browserPreferences"));
    QVERIFY(!plain.contains("fallbackAsks"));
    m_settings->setValue(u"fallback_asks"_s, true);
    store.saveBrowserPreferences({{u"chromium"_s, false, u"--class=\"Work Mail\""_s},
                                  {u"epiphany"_s, true, {}}});
    const QByteArray json = *ConfigManager::exportToJSON(store, ExportTime);
    const auto imported = ConfigManager::importFromJSON(json);
    QVERIFY(imported);
    QCOMPARE(imported->rules, store.loadRules());
    QVERIFY(imported->rules[2].openInPrivateWindow);
    QVERIFY(imported->rules.last().askWhereToOpen);
    QCOMPARE(imported->browserPreferences, store.loadBrowserPreferences());
    QVERIFY(imported->fallbackAsks);
    QVERIFY(!ConfigManager::importFromJSON(plain)->fallbackAsks);
    QCOMPARE(imported->exportDate, QDateTime(QDate(2025, 3, 1), QTime(9, 30), Qt::UTC));
    QCOMPARE(ConfigManager::encode(*imported), json);
    // A document without browser settings leaves them out when it is read.
    QVERIFY(!ConfigManager::importFromJSON(plain)->browserPreferences);
}

void TestConfig::importChecks_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("error");
    QTest::newRow("valid, extra member") << document(",\"urlExpansionEnabled\":true") << QString();
    QTest::newRow("null fallback") << document(",\"defaultBrowserBundleID\":null") << QString();
    QTest::newRow("newer") << QByteArray(document("").replace("\"version\":1", "\"version\":2"))
                           << u"Unsupported config version: 2. This app supports version 1."_s;
    QTest::newRow("zero") << QByteArray(document("").replace("\"version\":1", "\"version\":0"))
                          << u"Unsupported config version: 0. This app supports version 1."_s;
    QTest::newRow("negative") << QByteArray(document("").replace("\"version\":1", "\"version\":-1"))
                              << u"Unsupported config version: -1. This app supports version 1."_s;
    QTest::newRow("fractional version")
        << QByteArray(document("").replace("\"version\":1", "\"version\":1.5"))
        << u"Failed to decode configuration: the member \"version\""_s;
    QTest::newRow("no cleaning switch")
        << QByteArray(document("").replace(",\"urlCleaningEnabled\":true", ""))
        << u"Failed to decode configuration: the member \"urlCleaningEnabled\""_s;
    QTest::newRow("fractional seconds")
        << QByteArray(document("").replace("09:30:00Z", "09:30:00.5Z"))
        << u"Failed to decode configuration: the member \"exportDate\""_s;
    QTest::newRow("bad rule")
        << QByteArray(document("").replace("\"rules\":[]", "\"rules\":[{\"id\":\"x\"}]"))
        << u"Failed to decode configuration: Rule 1 has a member \"id\" that is not a valid UUID."_s;
    QTest::newRow("browser settings not an array")
        << document(",\"browserPreferences\":{}")
        << u"Failed to decode configuration: the member \"browserPreferences\" is not an array."_s;
    QTest::newRow("browser arguments placing the link")
        << document(",\"browserPreferences\":[{\"browserBundleID\":\"x\",\"extraArguments\":\"%u\"}]")
        << u"Failed to decode configuration: the extra arguments for x: “%u” holds the field code %u"_s;
    QTest::newRow("private window not a boolean")
        << QByteArray(document("").replace(
               "\"rules\":[]",
               "\"rules\":[{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\",\"sourceAppBundleID\":\"\","
               "\"sourceAppName\":\"\",\"targetBrowserBundleID\":\"a\",\"targetBrowserName\":\"A\","
               "\"urlPattern\":\"x\",\"openInPrivateWindow\":\"yes\"}]"))
        << u"Failed to decode configuration: Rule 1 has a member \"openInPrivateWindow\" that is not true or false"_s;
    QTest::newRow("not JSON") << QByteArray("{\"version\"")
                              << u"Failed to decode configuration: the file is not valid JSON"_s;
    QTest::newRow("array") << QByteArray(
        "[]") << u"Failed to decode configuration: the file does not hold a JSON object."_s;
}

void TestConfig::importChecks()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, error);
    if (!error.isEmpty())
        QTest::ignoreMessage(
            QtCriticalMsg, QRegularExpression(u"^(Failed to decode config JSON|Config version)"_s));
    const auto imported = ConfigManager::importFromJSON(json);
    QCOMPARE(imported ? QString() : imported.error().description().left(error.size()), error);
    if (imported) {
        QCOMPARE(imported->defaultBrowserBundleID, std::nullopt);
        QVERIFY(imported->rules.isEmpty());
    }
}

void TestConfig::launchAtLogin()
{
    XdgAutostart autostart(u"/opt/My Apps/quillvane"_s);
    const QString entry =
        m_environment->path() + u"/config/autostart/work.vorpa.Quillvane.desktop"_s;
    QCOMPARE(XdgAutostart::entryPath(), entry);
    QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));

    QTest::ignoreMessage(QtInfoMsg, "Registering launch at login");
    QTest::ignoreMessage(QtInfoMsg, "Successfully registered launch at login");
    QVERIFY(LaunchAtLoginManager::enable(autostart));
    QVERIFY(LaunchAtLoginManager::isEnabled(autostart));
    QFile file(entry);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(file.readAll().contains("\nExec=\"/opt/My Apps/quillvane\"\n"));
    file.close();

    // A desktop's own switch turns the entry off without removing it.
    QVERIFY(file.open(QIODevice::Append));
    file.write("X-GNOME-Autostart-enabled=false\n");
    file.close();
    QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));

    QTest::ignoreMessage(QtInfoMsg, "Unregistering launch at login");
    QTest::ignoreMessage(QtInfoMsg, "Successfully unregistered launch at login");
    QVERIFY(LaunchAtLoginManager::disable(autostart));
    QVERIFY(!QFile::exists(entry));

    // A folder that cannot be made (a file stands in its way) is an error the caller sees.
    QVERIFY(QDir(m_environment->path() + u"/config/autostart"_s).removeRecursively());
    QFile blocker(m_environment->path() + u"/config/autostart"_s);
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QTest::ignoreMessage(QtInfoMsg, "Registering launch at login");
    const auto enabled = LaunchAtLoginManager::enable(autostart);
    QVERIFY(!enabled);
    QVERIFY(enabled.error().contains(u"autostart"_s));
    QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
}

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
