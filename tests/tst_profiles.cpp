#include "FakeDesktop.h"
#include "Services/LocalStateReader.h"
#include "Services/NativeMessaging.h"
#include "Services/ProfileLauncher.h"
#include "Services/ProfileDiscovery.h"
#include "TestSupport.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

QStringList ids(const QList<BrowserProfile> &profiles)
{
    QStringList result;
    for (const BrowserProfile &profile : profiles)
        result.append(profile.id);
    return result;
}

} // namespace

class TestProfiles final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_desktop = std::make_unique<FakeDesktop>();
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
    }

    void chromiumLocalState();
    void brokenLocalStateFiles_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<QString>("line");
        const QString structure = u"^Local State file has unexpected structure"_s;
        QTest::newRow("not JSON") << QByteArray("{\"profile\":")
                                  << u"^Failed to parse Local State JSON at <private>: "_s;
        QTest::newRow("binary") << QByteArray("\x00\x01\xff\xfe", 4)
                                << u"^Failed to parse Local State JSON"_s;
        QTest::newRow("top-level array") << QByteArray("[1,2]") << structure;
        QTest::newRow("no profile member") << QByteArray("{\"browser\":{}}") << structure;
        QTest::newRow("info_cache not an object")
            << QByteArray("{\"profile\":{\"info_cache\":[]}}") << structure;
        QTest::newRow("too large") << QByteArray(ProfileDiscovery::MaxFileSize + 1, ' ')
                                   << u"^Could not read Local State file at"_s;
    }

    void brokenLocalStateFiles()
    {
        QFETCH(QByteArray, contents);
        QFETCH(QString, line);
        const QString path = m_desktop->configHome() + u"/microsoft-edge/Local State"_s;
        writeFile(path, contents);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(line));
        QVERIFY(ProfileDiscovery::discoverProfiles(u"microsoft-edge"_s).isEmpty());
        QFile::remove(path);
        QTest::ignoreMessage(QtInfoMsg, "Local State file not found at <private>");
        QVERIFY(ProfileDiscovery::discoverProfiles(u"microsoft-edge"_s).isEmpty());
    }

    void localStateReaderAgreesWithQtJson_data();
    void localStateReaderAgreesWithQtJson()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, isJson);
        const auto read = LocalStateReader::read(json);
        QCOMPARE(read || read.error().kind != LocalStateReader::Error::Kind::NotJson, isJson);
        // Every valid document here has the profile list.
        QCOMPARE(bool(read), isJson);
        if (!read)
            return;
        // The profiles found are those a full JSON parser sees.
        const QJsonObject cache = QJsonDocument::fromJson(json)
                                      .object()
                                      .value(u"profile"_s)
                                      .toObject()
                                      .value(u"info_cache"_s)
                                      .toObject();
        QCOMPARE(read->size(), cache.size());
        for (const LocalStateReader::Entry &entry : *read)
            QCOMPARE(entry.name,
                     cache.value(entry.directory).toObject().value(u"name"_s).toString());
    }

    // Only [ProfileN] sections, their first Name, whatever the line ends, the case
    // of the key or the blanks around it; files that are not text are refused.
    void firefoxProfilesIni()
    {
        const QString text = u"[General]\nName=not-a-profile\nStartWithLastProfile=1\n\n"
                             "[Profile0]\r\nName=default-release\r\nIsRelative=1\r\nPath=Profiles/"
                             "abc.default-release\r\n"
                             "[Install4F96D1932A9F858E]\nName=install\n"
                             "[Profile1]\n  NAME=Work  \nName = ignored\n"
                             "[Profile1a]\nName=not a profile section\n"
                             "[Profile2]\nPath=no-name\n"
                             "[BackgroundTasksProfiles]\nName=background\n"
                             "[Profile3]\nName=default-release\u2028[Profile]\nName=Last\n"
                             "[Profile4]\nName=--headless\n[Profile5]\nName=-new-instance\n"_s;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"“--headless” cannot be used"_s));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"“-new-instance” cannot be used"_s));
        const QList<BrowserProfile> profiles =
            ProfileDiscovery::parseFirefoxProfilesIni(text, u"firefox"_s);
        QCOMPARE(ids(profiles),
                 (QStringList{u"default-release"_s, u"Work"_s, u"default-release"_s, u"Last"_s}));
        QCOMPARE(profiles.first(),
                 (BrowserProfile{u"default-release"_s, u"default-release"_s, u"firefox"_s}));
        writeFile(m_desktop->home() + u"/.mozilla/firefox/profiles.ini"_s, text.toUtf8());
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"“--headless” cannot be used"_s));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"“-new-instance” cannot be used"_s));
        QCOMPARE(ProfileDiscovery::discoverProfiles(u"FIREFOX-ESR"_s).first().browserId,
                 u"firefox-esr"_s);

        const QString snap =
            m_desktop->home() + u"/snap/firefox/common/.mozilla/firefox/profiles.ini"_s;
        for (const QByteArray &damaged : {QByteArray("[Profile0]\nName=\xff\xfe broken\n"),
                                          QByteArray("[Profile0]\nName=a\0b\n", 19)}) {
            writeFile(snap, damaged);
            QTest::ignoreMessage(QtCriticalMsg, "Could not read Firefox profiles.ini at <private>");
            QVERIFY(ProfileDiscovery::discoverProfiles(u"firefox_firefox"_s).isEmpty());
        }
        QFile::remove(snap);
        QTest::ignoreMessage(QtInfoMsg, "Firefox profiles.ini not found at <private>");
        QVERIFY(ProfileDiscovery::discoverProfiles(u"firefox_firefox"_s).isEmpty());
    }

    void whereEachBuildKeepsItsProfiles_data();
    void whereEachBuildKeepsItsProfiles()
    {
        QFETCH(QString, id);
        QFETCH(QString, file);
        QDir(m_desktop->home() + u"/.mozilla"_s).removeRecursively();
        file.replace(u"$CONFIG"_s, m_desktop->configHome()).replace(u"$HOME"_s, m_desktop->home());
        QCOMPARE(ProfileDiscovery::supportedBrowser(id)->profileFile, file);
        qputenv("CHROME_CONFIG_HOME", QFile::encodeName(m_desktop->root() + u"/chrome-home"_s));
        QCOMPARE(ProfileDiscovery::supportedBrowser(u"google-chrome"_s)->profileFile,
                 m_desktop->root() + u"/chrome-home/google-chrome/Local State"_s);
        qunsetenv("CHROME_CONFIG_HOME");
    }

    // The profile a browser was started in, as its command line says; none
    // where it keeps its profiles in a folder of its own.
    void profileOfARunningBrowser()
    {
        using ProfileLauncher::startedProfile;
        const QString chromium = u"/usr/lib/chromium/chromium"_s;
        QCOMPARE(startedProfile({chromium, u"--profile-directory=Profile 1"_s}), u"Profile 1"_s);
        QCOMPARE(startedProfile({chromium, u"--profile-directory"_s, u"Work"_s}), u"Work"_s);
        QCOMPARE(startedProfile({u"firefox-esr"_s, u"-P"_s, u"work"_s, u"https://a.example/"_s}),
                 u"work"_s);
        QCOMPARE(startedProfile({chromium, u"--user-data-dir=/tmp/x"_s,
                                 u"--profile-directory=Work"_s}),
                 std::nullopt);
        QCOMPARE(startedProfile({u"firefox"_s, u"--profile"_s, u"/tmp/p"_s}), std::nullopt);
        QCOMPARE(startedProfile({chromium, u"--profile-directory="_s}), std::nullopt);
        QCOMPARE(startedProfile({u"--profile-directory=X"_s}), std::nullopt);
        QCOMPARE(startedProfile({u"firefox"_s, u"-P"_s}), std::nullopt);
    }

    // Each browser used here gets this user's manifest naming the host and
    // only the extension's id; doctor reads back what would start the host.
    void hostManifestsForBrowsersUsedHere()
    {
        const QString host = m_desktop->program(u"host"_s, "#!/bin/sh\n");
        QVERIFY(QDir().mkpath(m_desktop->home() + u"/.mozilla"_s));
        QVERIFY(QDir().mkpath(m_desktop->configHome() + u"/chromium"_s));
        QVERIFY(QDir(m_desktop->configHome() + u"/vivaldi"_s).removeRecursively());
        QCOMPARE(NativeMessaging::registerForUser(host), QStringList());
        const QString chromium =
            m_desktop->configHome() + u"/chromium/NativeMessagingHosts/work.vorpa.quillvane.json"_s;
        // What they say, the real browsers check (tst_browserextension).
        QVERIFY(NativeMessaging::registrations()[1].manifest == chromium
                && NativeMessaging::registrations()[1].problem.isEmpty());
        // Nothing for a browser never used here.
        QVERIFY(!QFileInfo::exists(m_desktop->configHome() + u"/vivaldi"_s));
        // A manifest for another extension, and a host that went away.
        writeFile(chromium, QByteArray(readFile(chromium)).replace("gmkaied", "xxxxxxx"));
        QVERIFY(NativeMessaging::registrations()[1].problem.startsWith(
            u"does not let Quillvane's extension"_s));
        QVERIFY(QFile::remove(host));
        QVERIFY(NativeMessaging::registrations()[0].problem.startsWith(
            u"names a host that is not there"_s));
    }

private:
    std::unique_ptr<FakeDesktop> m_desktop;
};

void TestProfiles::chromiumLocalState()
{
    writeFile(m_desktop->configHome() + u"/google-chrome/Local State"_s,
              R"({"browser":{"x":1},"profile":{"info_cache":{"Profile 2":{"name":"Work\n[forged] \u202Ex"},
                 "Default":{"name":"Person 1"},"Profile 10":{"name":"Ten"},"Empty":{},
                 "Numbered":{"name":7},"--no-sandbox":{"name":"A"},"../../../../elsewhere":{"name":"B"}}}})");
    // Ids a browser would take for an option, or that lead out of its folder, never reach it.
    QTest::ignoreMessage(QtWarningMsg, "Leaving out a profile of google-chrome: The profile "
                                       "“--no-sandbox” cannot be used: it begins with “-”, so the "
                                       "browser would take it for an option.");
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"“\\.\\./\\.\\./.*path separator"_s));
    const QList<BrowserProfile> profiles = ProfileDiscovery::discoverProfiles(u"Google-Chrome"_s);
    // Directory names, sorted without numeric order; the id as Quillvane knows the browser.
    QCOMPARE(ids(profiles), (QStringList{u"Default"_s, u"Profile 10"_s, u"Profile 2"_s}));
    QCOMPARE(profiles.first(), (BrowserProfile{u"Default"_s, u"Person 1"_s, u"google-chrome"_s}));
    // A name is shown as one line, as written.
    QCOMPARE(profiles.last().name, u"Work\\x0A[forged] \\u{202E}x"_s);
    QVERIFY(ProfileDiscovery::discoverProfiles(u"epiphany"_s).isEmpty());
}

void TestProfiles::localStateReaderAgreesWithQtJson_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("isJson");
    for (const char *valid :
         {R"({"profile" : {"info_cache":{"D\u0065fault":{"name":"A \"quoted\" \u00fc\/"}}}})",
          // An escaped key is still the key.
          R"({"pro\u0066ile":{"info_cache":{"Default":{"name":"Me"}}}})",
          // A character beyond the first 65,536 (an emoji) is a pair of escapes.
          R"({"profile":{"info_cache":{"Default":{"name":"Me \ud83d\ude00 \u00fc"}}}})",
          R"({"a":[-0,1.5e+3,2E-2,0.0],"profile":{"info_cache":{}}})"})
        QTest::newRow(valid) << QByteArray(valid) << true;
    // Qt's parser lets a control character in a string and a bad escape
    // through; JSON does not.
    for (const char *invalid :
         {R"({"a":01})", R"({"a":-})", R"({"a":1,})", R"({"profile":{"info_cache":{}}} x)",
          "{\"a\":\"x\ty\"}", R"({"a":"\x"})", R"({"a":"\u12"})",
          R"({"profile":{"info_cache":{"Default":{"name":"x)", R"({"a":tru})"})
        QTest::newRow(invalid) << QByteArray(invalid) << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("deep nesting") << QByteArray(QByteArray(5000, '[') + QByteArray(5000, ']'))
                                  << false;
}

void TestProfiles::whereEachBuildKeepsItsProfiles_data()
{
    addRows({u"id"_s, u"file"_s}, uR"(
Chrome Flatpak             | com.google.chrome   | $HOME/.var/app/com.google.Chrome/config/google-chrome/Local State
Firefox without ~/.mozilla | firefox             | $CONFIG/mozilla/firefox/profiles.ini
)");
}

QTEST_GUILESS_MAIN(TestProfiles)
#include "tst_profiles.moc"
