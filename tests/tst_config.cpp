#include "Platform/Autostart.h"
#include "Services/ConfigManager.h"
#include "Services/LaunchAtLoginManager.h"
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
    void init() { m_environment = std::make_unique<TestEnvironment>(); }

    void cleanup() { m_environment.reset(); }

    void exportedDocument();
    // Every rule field, browser settings and "Ask" as the fallback come back as
    // they went, and the document encodes again byte for byte; a document without
    // the optional members leaves them out.
    void roundTripIsByteForByte()
    {
        Config config;
        RoutingRule privateRule = makeRule(QString(), u"bank.example"_s, u"chromium"_s);
        privateRule.openInPrivateWindow = true;
        RoutingRule askingRule = makeRule(u"org.gnome.Evolution"_s, std::nullopt, QString());
        askingRule.askWhereToOpen = true;
        config.rules = {makeRule(u"app"_s, u"https://example.com/a"_s, u"b"_s, u"Profile 1"_s),
                        makeRule(QString(), u"ünïcode \"quoted\" \\ back"_s, u"c"_s), privateRule,
                        askingRule};
        config.fallbackBrowser = u"firefox-esr"_s;
        const QByteArray plain = *ConfigManager::exportToJSON(config, ExportTime);
        QVERIFY(!plain.contains("browserPreferences") && !plain.contains("fallbackAsks")
                && !plain.contains("handoffs"));
        const auto plainImport = ConfigManager::importFromJSON(plain);
        QVERIFY(!plainImport->fallbackAsks && !plainImport->browserPreferences
                && !plainImport->handoffs);
        config.handoffs = {u"zoom"_s, u"spotify"_s};
        config.fallbackAsks = true;
        config.browserPreferences = {{u"chromium"_s, false, u"--class=\"Work Mail\""_s},
                                     {u"epiphany"_s, true, {}}};
        const QByteArray json = *ConfigManager::exportToJSON(config, ExportTime);
        const auto imported = ConfigManager::importFromJSON(json);
        QCOMPARE(imported->rules, config.rules);
        QVERIFY(imported->rules[2].openInPrivateWindow && imported->rules[3].askWhereToOpen);
        QCOMPARE(imported->browserPreferences, config.browserPreferences);
        QVERIFY(imported->fallbackAsks);
        QCOMPARE(imported->handoffs, (QStringList{u"zoom"_s, u"spotify"_s}));
        QCOMPARE(imported->exportDate, QDateTime(QDate(2025, 3, 1), QTime(9, 30), Qt::UTC));
        QCOMPARE(ConfigManager::encode(*imported), json);
    }

    void importChecks_data();
    void importChecks()
    {
        QFETCH(QString, text);
        QFETCH(QString, error);
        // $DOC is a valid document; "+ …" adds members to it, "a → b" changes it.
        QByteArray json = text.toUtf8();
        if (json.startsWith("$DOC")) {
            const QList<QByteArray> change = json.mid(4).trimmed().split(' ');
            json = change.value(0) == "+" ? document({}, change.value(1))
                                          : document(change.value(0), change.value(2));
        }
        // $R: a rule's members up to its pattern; $LONG, $MANY and $PAD, texts beyond the limits.
        json.replace("$R", R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","sourceAppBundleID":"",)"
                           R"("sourceAppName":"","targetBrowserBundleID":"a","targetBrowserName":"A")");
        json.replace("$LONG", QByteArray(RoutingRule::MaxTextLength + 1, 'x'));
        json.replace("$MANY", QByteArray(QByteArray("1,").repeated(ConfigManager::MaxRules) + "1"));
        json.replace("$PAD", QByteArray(ConfigManager::MaxDocumentBytes, ' '));
        error.replace(u"$D"_s, u"Failed to decode configuration: "_s);
        if (!error.isEmpty())
            QTest::ignoreMessage(
                QtCriticalMsg,
                QRegularExpression(u"^(Failed to decode config JSON|Config version)"_s));
        const auto imported = ConfigManager::importFromJSON(json);
        QCOMPARE(imported ? QString() : imported.error().description().left(error.size()), error);
        QVERIFY(!imported || (!imported->fallbackBrowserId && imported->rules.isEmpty()));
    }

    void launchAtLogin()
    {
        XdgAutostart autostart(u"/opt/My Apps/quillvane"_s);
        const QString folder = m_environment->path() + u"/config/autostart"_s;
        const QString entry = folder + u"/work.vorpa.Quillvane.desktop"_s;
        QCOMPARE(XdgAutostart::entryPath(), entry);
        QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
        QVERIFY(LaunchAtLoginManager::enable(autostart));
        QVERIFY(LaunchAtLoginManager::isEnabled(autostart));
        QVERIFY(readFile(entry).contains("\nExec=\"/opt/My Apps/quillvane\"\n"));
        // A desktop's own switch turns the entry off without removing it.
        writeFile(entry, readFile(entry) + "X-GNOME-Autostart-enabled=false\n");
        QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
        QVERIFY(LaunchAtLoginManager::disable(autostart));
        QVERIFY(!QFile::exists(entry));

        // A folder that cannot be made (a file stands in its way) is an error the caller sees.
        QVERIFY(QDir(folder).removeRecursively());
        writeFile(folder, {});
        const auto enabled = LaunchAtLoginManager::enable(autostart);
        QVERIFY(!enabled && enabled.error().contains(u"autostart"_s));
        QVERIFY(!LaunchAtLoginManager::isEnabled(autostart));
    }

private:
    std::unique_ptr<TestEnvironment> m_environment;
};

void TestConfig::exportedDocument()
{
    Config config;
    config.rules = {RoutingRule{QUuid::fromString(u"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"_s),
                                u"org.gnome.Evolution"_s, u"Evolution"_s, u"firefox"_s,
                                u"Firefox"_s, u"*example.com/docs*"_s, std::nullopt}};
    QCOMPARE(*ConfigManager::exportToJSON(config, ExportTime), QByteArray(R"({
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
    config.fallbackBrowser = u"firefox"_s;
    config.urlCleaningEnabled = false;
    const ConfigManager::ExportData data = ConfigManager::exportConfig(config, ExportTime);
    QVERIFY(data.fallbackBrowserId == u"firefox" && !data.urlCleaningEnabled);
    QVERIFY(
        ConfigManager::encode(data).startsWith("{\n  \"defaultBrowserBundleID\" : \"firefox\",\n"));
}

// The table stands outside the class: moc reads a raw string as an ordinary one.
void TestConfig::importChecks_data()
{
    addRows({u"text"_s, u"error"_s}, uR"(
valid, extra member         | $DOC + ,"urlExpansionEnabled":true  |
null fallback               | $DOC + ,"defaultBrowserBundleID":null |
newer                       | $DOC "version":1 → "version":2      | Unsupported config version: 2. This app supports version 1.
negative                    | $DOC "version":1 → "version":-1     | Unsupported config version: -1. This app supports version 1.
fractional version          | $DOC "version":1 → "version":1.5    | $Dthe member "version"
no cleaning switch          | $DOC ,"urlCleaningEnabled":true →    | $Dthe member "urlCleaningEnabled"
fractional seconds          | $DOC 09:30:00Z → 09:30:00.5Z         | $Dthe member "exportDate"
bad rule                    | $DOC "rules":[] → "rules":[{"id":"x"}] | $DRule 1's "id" must be an id
browser settings not a list | $DOC + ,"browserPreferences":{}     | $D"browserPreferences" must be a list
arguments placing the link  | $DOC + ,"browserPreferences":[{"browserBundleID":"x","extraArguments":"%u"}] | $DBrowser setting 1's extra arguments: “%u” holds the field code %u
private window not boolean  | $DOC "rules":[] → "rules":[{"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","sourceAppBundleID":"","sourceAppName":"","targetBrowserBundleID":"a","targetBrowserName":"A","urlPattern":"x","openInPrivateWindow":"yes"}] | $DRule 1's "openInPrivateWindow" must be true or false.
handoffs not texts          | $DOC + ,"handoffs":["zoom",1]       | $Dthe member "handoffs" is not an array of texts.
profile read as an option   | $DOC "rules":[] → "rules":[$R,"urlPattern":"x","targetProfileID":"--headless"}] | $DRule 1: The profile “--headless” cannot be used: it begins with “-”
profile leading out         | $DOC "rules":[] → "rules":[$R,"urlPattern":"x","targetProfileID":"../x"}] | $DRule 1: The profile “../x” cannot be used: it holds a path separator.
one id twice                | $DOC "rules":[] → "rules":[$R,"urlPattern":"x"},$R,"urlPattern":"y"}] | $DRule 2 has the id of rule 1.
a pattern of megabytes      | $DOC "rules":[] → "rules":[$R,"urlPattern":"$LONG"}] | $DRule 1's "urlPattern" is 4097 characters long; a rule may have 4096.
too many rules              | $DOC "rules":[] → "rules":[$MANY]   | $Dit holds 10001 rules; Quillvane keeps at most 10000.
too large                   | $DOC + ,"pad":"$PAD"                | $Dthe file is longer than 4194304 bytes
not JSON                    | {"version"                          | $Dthe file is not valid JSON
array                       | []                                  | $Dthe file does not hold a JSON object.
)");
}

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
