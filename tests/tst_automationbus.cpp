// Scripts driving a real Quillvane: the sub-commands run as processes and
// direct calls to work.vorpa.Quillvane.Automation, on a session bus of the
// test's own, under a virtual X server (for the clipboard). The test is also
// the desktop's notification service, to read Quillvane's answers to the
// desktop actions.
#include "Automation/AutomationAdaptor.h"
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Models/JsonFields.h"
#include "Storage/HistoryStore.h"
#include "Storage/RuleStore.h"
#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"
#include "TestSupport.h"

#include <QClipboard>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <QXmlStreamReader>

using namespace Qt::Literals::StringLiterals;
using namespace Automation;

namespace {

// The names scripts rely on, spelled out so that renaming one breaks this test.
const QString AppId = u"work.vorpa.Quillvane"_s;
const QString ObjectPath = u"/work/vorpa/Quillvane"_s;
const QString InterfaceName = u"work.vorpa.Quillvane.Automation"_s;
InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));

using Result = InstalledQuillvane::Result;

QDBusMessage automationCall(const QString &method, const QVariantList &arguments = {})
{
    QDBusMessage call = QDBusMessage::createMethodCall(AppId, ObjectPath, InterfaceName, method);
    call.setArguments(arguments);
    call.setAutoStartService(false);
    return QDBusConnection::sessionBus().call(call);
}

} // namespace

// The desktop's notification service, as far as Quillvane uses it.
class NotificationServer final : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QList<std::pair<QString, QString>> shown;

public Q_SLOTS:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &body,
                const QStringList &, const QVariantMap &, int)
    {
        shown.append({summary, body});
        return uint(shown.size());
    }
};

class TestAutomationBus final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void nothingAnswersWhileNotRunning();
    void interfaceMatchesItsDescription();
    void listsAndQueries();
    void createRule();
    void deleteRule();
    void deleteRuleAsksOnTheTerminal();
    void routeURL();
    void fallbackAndFeatures();
    void malformedCallsAreRefused();
    void hostileLinks();
    void aBrowserThatHandsLinksBack();
    void desktopActions();
    void shellCompletion();
    void browsersThatChangeWhileRunning();

private:
    Result quillvane(const QStringList &arguments, const QByteArray &input = {})
    {
        return InstalledQuillvane::run(g_installed.program(u"quillvane"_s), arguments, input);
    }
    QList<RoutingRule> storedRules() const;
    std::unique_ptr<QSettings> storedSettings() const;

    std::unique_ptr<FakeDesktop> m_desktop;
    NotificationServer m_notifications;
    QString m_docsRuleId;
};

void TestAutomationBus::initTestCase()
{
    if (!QDBusConnection::sessionBus().isConnected())
        QSKIP("needs a session bus: run under dbus-run-session");
    registerDBusTypes();
    m_desktop = std::make_unique<FakeDesktop>();
    QVERIFY(g_installed.setUp(QStringLiteral(QUILLVANE_BUILD_DIR), *m_desktop));
    m_desktop->addBrowser(u"fallback-browser"_s, u"Fallback"_s);
    m_desktop->addBrowser(u"docs-browser"_s, u"Docs Browser"_s);
    m_desktop->addBrowser(u"alpha-browser"_s, u"Alpha"_s);
    // Passes every link back to Quillvane through a script, which discovery
    // cannot see into, and says how that ended.
    QFile bouncer(m_desktop->root() + u"/bin/bounce-back"_s);
    QVERIFY(bouncer.open(QIODevice::WriteOnly));
    bouncer.write(u"#!/bin/sh\n%1 \"$1\" 2>\"%2/bounce.err\"\n"
                  "echo $? >\"%2/bounce.new\" && mv \"%2/bounce.new\" \"%2/bounce.status\"\n"_s
                      .arg(g_installed.program(u"quillvane-open"_s), m_desktop->root())
                      .toUtf8());
    bouncer.close();
    QVERIFY(bouncer.setPermissions(bouncer.permissions() | QFile::ExeOwner));
    m_desktop->addBrowser(u"bouncer"_s, u"Bouncer"_s, {}, bouncer.fileName() + u" %u"_s);

    const RoutingRule docs{QUuid::createUuid(), QString(),         QString(),   u"docs-browser"_s,
                           u"Docs Browser"_s,   u"docs.example"_s, std::nullopt};
    m_docsRuleId = docs.id.toString(QUuid::WithoutBraces).toUpper();
    auto settings = InstalledQuillvane::settingsToSeed(*m_desktop);
    RuleStore store(*settings);
    store.saveRules({docs});
    store.saveDefaultBrowserBundleID(u"fallback-browser"_s);

    QDBusConnection bus = QDBusConnection::sessionBus();
    QVERIFY(bus.registerObject(u"/org/freedesktop/Notifications"_s, &m_notifications,
                               QDBusConnection::ExportAllSlots));
    QVERIFY(bus.registerService(u"org.freedesktop.Notifications"_s));
}

void TestAutomationBus::cleanupTestCase()
{
    if (m_desktop)
        QVERIFY(InstalledQuillvane::stop());
}

std::unique_ptr<QSettings> TestAutomationBus::storedSettings() const
{
    return InstalledQuillvane::storedSettings(*m_desktop);
}

QList<RoutingRule> TestAutomationBus::storedRules() const
{
    auto settings = storedSettings();
    return RuleStore(*settings).loadRules();
}

void TestAutomationBus::nothingAnswersWhileNotRunning()
{
    QVERIFY(!InstalledQuillvane::isRunning());
    for (const QStringList &arguments :
         {QStringList{u"route"_s, u"https://docs.example/"_s},
          QStringList{u"rule"_s, u"delete"_s, m_docsRuleId, u"--yes"_s}}) {
        const Result result = quillvane(arguments);
        QCOMPARE(result.exitCode, 1);
        QCOMPARE(result.err,
                 u"quillvane: Quillvane is not running. Please launch the app first.\n"_s);
        QVERIFY(result.out.isEmpty());
    }
    // Even though the bus could start it.
    QVERIFY(!InstalledQuillvane::isRunning());
    const QString error = automationCall(u"ListRules"_s).errorName();
    QVERIFY2(error == u"org.freedesktop.DBus.Error.ServiceUnknown"
                 || error == u"org.freedesktop.DBus.Error.NameHasNoOwner",
             qPrintable(error));
    QCOMPARE(storedRules().size(), 1);

    // Started the way a desktop starts it.
    QDBusMessage activate = QDBusMessage::createMethodCall(
        AppId, ObjectPath, u"org.freedesktop.Application"_s, u"Activate"_s);
    activate << QVariantMap();
    QCOMPARE(QDBusConnection::sessionBus().call(activate, QDBus::Block, 20000).type(),
             QDBusMessage::ReplyMessage);
    QVERIFY(InstalledQuillvane::isRunning());
}

// The installed interface description is what the instance publishes.
void TestAutomationBus::interfaceMatchesItsDescription()
{
    // "Name(in s b ) -> (s )" for every method of the interface, sorted.
    const auto methods = [](const QString &xml) {
        QXmlStreamReader reader(xml);
        QStringList found;
        bool inInterface = false;
        while (!reader.atEnd()) {
            reader.readNext();
            const auto attribute = [&reader](const char *name) {
                return reader.attributes().value(QLatin1StringView(name)).toString();
            };
            if (reader.isStartElement() && reader.name() == u"interface")
                inInterface = attribute("name") == InterfaceName;
            else if (inInterface && reader.isStartElement() && reader.name() == u"method")
                found.append(attribute("name") + u"() -> ()"_s);
            else if (inInterface && reader.isStartElement() && reader.name() == u"arg")
                found.last().insert(attribute("direction") == u"out" ? found.last().size() - 1
                                                                     : found.last().indexOf(u')'),
                                    attribute("type") + u' ');
        }
        found.sort();
        return found;
    };
    QFile installed(g_installed.prefix()
                    + u"/share/dbus-1/interfaces/work.vorpa.Quillvane.Automation.xml"_s);
    QVERIFY(installed.open(QIODevice::ReadOnly));
    const QStringList described = methods(QString::fromUtf8(installed.readAll()));
    QCOMPARE(described.size(), 13);

    QDBusMessage introspect = QDBusMessage::createMethodCall(
        AppId, ObjectPath, u"org.freedesktop.DBus.Introspectable"_s, u"Introspect"_s);
    const QDBusMessage reply = QDBusConnection::sessionBus().call(introspect);
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(methods(reply.arguments().value(0).toString()), described);
}

void TestAutomationBus::listsAndQueries()
{
    Result result = quillvane({u"browsers"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, u"alpha-browser     Alpha\n"
                         "bouncer           Bouncer\n"
                         "docs-browser      Docs Browser\n"
                         "fallback-browser  Fallback\n"_s);

    result = quillvane({u"rules"_s, u"--json"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(QJsonDocument::fromJson(result.out.toUtf8()).array(),
             (QJsonArray{QJsonObject{{u"id"_s, m_docsRuleId},
                                     {u"summary"_s, u"docs.example → Docs Browser"_s}}}));

    result = quillvane({u"browsers"_s, u"--json"_s});
    QCOMPARE(QJsonDocument::fromJson(result.out.toUtf8()).array().at(2).toObject(),
             (QJsonObject{{u"id"_s, u"docs-browser"_s}, {u"name"_s, u"Docs Browser"_s}}));
    QCOMPARE(qdbus_cast<QList<FeatureEntity>>(automationCall(u"ListFeatures"_s).arguments().value(0))
                 .size(),
             5);
    // In list order, each once, unknown and lower-case ids left out.
    QDBusMessage reply = automationCall(
        u"Browsers"_s, {QStringList{u"fallback-browser"_s, u"nope"_s, u"alpha-browser"_s,
                                    u"fallback-browser"_s, u"ALPHA-BROWSER"_s}});
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    const auto found = qdbus_cast<QList<BrowserEntity>>(reply.arguments().value(0));
    QCOMPARE(found, (QList<BrowserEntity>{{u"alpha-browser"_s, u"Alpha"_s},
                                          {u"fallback-browser"_s, u"Fallback"_s}}));
    reply = automationCall(u"Rules"_s, {QStringList{m_docsRuleId.toLower()}});
    QVERIFY(qdbus_cast<QList<RuleEntity>>(reply.arguments().value(0)).isEmpty());
    reply = automationCall(u"Rules"_s, {QStringList{m_docsRuleId}});
    QCOMPARE(qdbus_cast<QList<RuleEntity>>(reply.arguments().value(0)).size(), 1);

}

void TestAutomationBus::createRule()
{
    // Stored exactly as given: scheme, case and slash kept.
    Result result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"alpha-browser"_s,
                               u"--pattern=HTTPS://Git.Example/"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, u"Created rule: HTTPS://Git.Example/ → Alpha\n"_s);
    QList<RoutingRule> rules = storedRules();
    QCOMPARE(rules.size(), 2);
    QCOMPARE(rules.last().urlPattern, std::optional<QString>(u"HTTPS://Git.Example/"_s));

    // An app with an empty pattern: the pattern is present.
    result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"docs-browser"_s, u"--app"_s,
                        u"org.example.Mail"_s, u"--app-name"_s, u"Mail"_s, u"--pattern"_s, u""_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, u"Created rule: Mail +  → Docs Browser\n"_s);
    rules = storedRules();
    QCOMPARE(rules.size(), 3);
    QCOMPARE(rules.last().sourceAppBundleID, u"org.example.Mail"_s);
    QCOMPARE(rules.last().urlPattern, std::optional<QString>(QString()));

    // Neither a source nor a pattern; an unknown browser; no browser at all.
    result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"docs-browser"_s, u"--app="_s});
    QCOMPARE(result.exitCode, 1);
    result = quillvane(
        {u"rule"_s, u"add"_s, u"--browser"_s, u"Docs-Browser"_s, u"--pattern"_s, u"x.example"_s});
    QCOMPARE(result.exitCode, 1);
    result = quillvane({u"rule"_s, u"add"_s, u"--pattern"_s, u"x.example"_s});
    QCOMPARE(result.exitCode, 2);
    QCOMPARE(storedRules().size(), 3);

    // Over the bus, options are checked by name and type.
    const QVariant target = QVariant::fromValue(BrowserEntity{u"alpha-browser"_s, u"Alpha"_s});
    QDBusMessage reply = automationCall(
        u"CreateRule"_s,
        {target, QVariantMap{{u"urlPattern"_s, u"*.example.org"_s}, {u"colour"_s, u"red"_s}}});
    QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
    QVERIFY(reply.errorMessage().contains(u"colour"_s));
    for (const QVariant &pattern : {QVariant(42), QVariant(QString(5000, u'a'))}) {
        reply = automationCall(u"CreateRule"_s, {target, QVariantMap{{u"urlPattern"_s, pattern}}});
        QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
    }
    reply = automationCall(u"CreateRule"_s, {target, QVariantMap{{u"sourceAppBundleID"_s, u""_s}}});
    QCOMPARE(reply.errorName(), u"work.vorpa.Quillvane.Error.ValidationFailed"_s);
    QCOMPARE(storedRules().size(), 3);
    reply = automationCall(u"CreateRule"_s,
                           {target, QVariantMap{{u"urlPattern"_s, u"*.example.org"_s}}});
    QCOMPARE(reply.arguments().value(0).toString(), u"Created rule: *.example.org → Alpha"_s);
    QCOMPARE(storedRules().size(), 4);
}

void TestAutomationBus::deleteRule()
{
    const RoutingRule last = storedRules().last();
    const QString id = last.id.toString(QUuid::WithoutBraces).toUpper();

    // No terminal, no --yes: nothing deleted.
    Result result = quillvane({u"rule"_s, u"delete"_s, id});
    QCOMPARE(result.exitCode, 1);
    QVERIFY2(result.err.contains(u"Delete rule \"*.example.org → Alpha\"?"_s),
             qPrintable(result.err));
    QCOMPARE(storedRules().size(), 4);

    // Ids are exact: lower case finds nothing, which is no error and needs no --yes.
    result = quillvane({u"rule"_s, u"delete"_s, id.toLower()});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(storedRules().size(), 4);

    result = quillvane({u"rule"_s, u"delete"_s, id, u"--yes"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, u"Deleted rule: *.example.org → Alpha\n"_s);
    QCOMPARE(storedRules().size(), 3);
    QVERIFY(!storedRules().contains(last));

    // A rule that is gone meanwhile is not an error.
    const QDBusMessage reply = automationCall(
        u"DeleteRule"_s, {QVariant::fromValue(RuleEntity{id, u"*.example.org → Alpha"_s})});
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(storedRules().size(), 3);
}

void TestAutomationBus::deleteRuleAsksOnTheTerminal()
{
    const QString script = QStandardPaths::findExecutable(u"script"_s);
    if (script.isEmpty())
        QSKIP("script (bsdutils) is not installed");
    const QString id = storedRules().last().id.toString(QUuid::WithoutBraces).toUpper();
    // script gives the command a terminal of its own, fed from our input.
    const auto onTerminal = [&](const QByteArray &answer) {
        return InstalledQuillvane::run(
            script,
            {u"-qec"_s, g_installed.program(u"quillvane"_s) + u" rule delete "_s + id,
             u"/dev/null"_s},
            answer);
    };
    Result result = onTerminal("n\n");
    QVERIFY2(result.out.contains(u"Delete rule \"Mail +  → Docs Browser\"? [y/N]"_s),
             qPrintable(result.out));
    QCOMPARE(storedRules().size(), 3);

    result = onTerminal("y\n");
    QVERIFY2(result.out.contains(u"Deleted rule: Mail +  → Docs Browser"_s),
             qPrintable(result.out));
    QCOMPARE(storedRules().size(), 2);
}

void TestAutomationBus::routeURL()
{
    const qsizetype history = InstalledQuillvane::storedHistory(*m_desktop).size();
    const qint64 count = InstalledQuillvane::storedForwardCount(*m_desktop);

    // Through the rules: cleaned (cleaning is on by default), no source app.
    Result result = quillvane({u"route"_s, u"https://docs.example/page?utm_source=news&id=7"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, u"Routed to Docs Browser.\n"_s);
    QVERIFY(m_desktop->waitForRun(u"docs-browser"_s));
    QCOMPARE(m_desktop->arguments(u"docs-browser"_s),
             QStringList{u"https://docs.example/page?id=7"_s});

    // Straight to a browser: exactly as given.
    result = quillvane({u"route"_s, u"https://docs.example/page?utm_source=news"_s, u"--browser"_s,
                        u"alpha-browser"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, u"Opened in Alpha.\n"_s);
    QVERIFY(m_desktop->waitForRun(u"alpha-browser"_s));
    QCOMPARE(m_desktop->arguments(u"alpha-browser"_s),
             QStringList{u"https://docs.example/page?utm_source=news"_s});

    // No rule: the fallback browser; over the bus as well.
    const QDBusMessage reply = automationCall(u"RouteURL"_s, {u"https://other.example/"_s});
    QCOMPARE(reply.arguments().value(0).toString(), u"Routed to Fallback."_s);
    QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));

    // Nothing counted or recorded, and nothing left in the journal.
    QCOMPARE(InstalledQuillvane::storedHistory(*m_desktop).size(), history);
    QCOMPARE(InstalledQuillvane::storedForwardCount(*m_desktop), count);
    QCOMPARE(InstalledQuillvane::journalEntries(*m_desktop), 0);

    // Bad links never reach the instance.
    for (const QString &link : {u"javascript:alert(1)"_s, QString()})
        QCOMPARE(quillvane({u"route"_s, link}).exitCode, 2);

    // A browser whose entry went away after Quillvane listed it (or just
    // before it asked again: Quillvane follows the desktop, a moment later).
    m_desktop->forget(u"alpha-browser"_s);
    QFile::rename(m_desktop->userApplications() + u"/alpha-browser.desktop"_s,
                  m_desktop->root() + u"/alpha-browser.desktop.away"_s);
    m_desktop->refreshDatabase();
    result =
        quillvane({u"route"_s, u"https://docs.example/"_s, u"--browser"_s, u"alpha-browser"_s});
    QCOMPARE(result.exitCode, 1);
    QVERIFY(!m_desktop->ran(u"alpha-browser"_s));
    QFile::rename(m_desktop->root() + u"/alpha-browser.desktop.away"_s,
                  m_desktop->userApplications() + u"/alpha-browser.desktop"_s);
    m_desktop->refreshDatabase();
    // Quillvane follows the desktop: back in its list a moment later.
    QTRY_VERIFY_WITH_TIMEOUT(quillvane({u"browsers"_s}).out.contains(u"alpha-browser"_s), 10000);
}

void TestAutomationBus::fallbackAndFeatures()
{
    Result result = quillvane({u"fallback"_s, u"alpha-browser"_s});
    QCOMPARE(result.exitCode, 0);
    auto settings = storedSettings();
    QCOMPARE(RuleStore(*settings).loadDefaultBrowserBundleID(), u"alpha-browser"_s);

    // "Ask" as the fallback keeps the browser; naming a browser ends it.
    result = quillvane({u"fallback"_s, u"--ask"_s});
    QVERIFY(SettingsKeys::read(*storedSettings(), SettingsKeys::FallbackAsks));
    QCOMPARE(RuleStore(*storedSettings()).loadDefaultBrowserBundleID(), u"alpha-browser"_s);
    // A script is never asked: the fallback browser opens its links.
    result = quillvane({u"route"_s, u"https://nowhere.example/"_s});
    QCOMPARE(result.out, u"Routed to Alpha.\n"_s);
    result = quillvane({u"fallback"_s, u"alpha-browser"_s, u"--ask"_s});
    QCOMPARE(result.exitCode, 2);
    // A rule can ask too, and names no browser then.
    result = quillvane({u"rule"_s, u"add"_s, u"--ask"_s, u"--pattern"_s, u"ask.example"_s});
    QCOMPARE(result.out, u"Created rule: ask.example → Ask Every Time\n"_s);
    const RoutingRule asking = storedRules().last();
    QVERIFY(asking.askWhereToOpen);
    QVERIFY(asking.targetBrowserBundleID.isEmpty());
    result = quillvane({u"rule"_s, u"add"_s, u"--ask"_s, u"--browser"_s, u"alpha-browser"_s,
                        u"--pattern"_s, u"x.example"_s});
    QCOMPARE(result.exitCode, 2);
    QCOMPARE(quillvane({u"rule"_s, u"delete"_s, JsonFields::uuidText(asking.id), u"--yes"_s})
                 .exitCode,
             0);
    result = quillvane({u"fallback"_s, u"alpha-browser"_s});
    QVERIFY(!SettingsKeys::read(*storedSettings(), SettingsKeys::FallbackAsks));

    // Pausing twice: one change, the same answer.
    for (int i = 0; i < 2; ++i) {
        result = quillvane({u"feature"_s, u"pauseRules"_s, u"on"_s});
        QCOMPARE(result.out, u"Pause Rules is now enabled.\n"_s);
        QCOMPARE(RuleStore(*storedSettings()).loadRulesEnabled(), false);
    }
    // Rules still apply to scripts while paused.
    result = quillvane({u"route"_s, u"https://docs.example/paused"_s});
    QCOMPARE(result.out, u"Routed to Docs Browser.\n"_s);
    for (const QString &feature : {u"pauseRules"_s, u"urlCleaning"_s, u"urlUnwrapping"_s})
        QCOMPARE(quillvane({u"feature"_s, feature, u"off"_s}).exitCode, 0);
    QVERIFY(!SettingsKeys::read(*storedSettings(), SettingsKeys::UrlUnwrappingEnabled));
    for (const QString &feature : {u"urlCleaning"_s, u"urlUnwrapping"_s})
        quillvane({u"feature"_s, feature, u"on"_s});

    for (const QStringList &bad :
         {QStringList{u"feature"_s, u"URLCleaning"_s, u"on"_s},
          QStringList{u"feature"_s, u"urlCleaning"_s, u"yes"_s}, QStringList{u"rule"_s},
          QStringList{u"route"_s, u"https://a.example"_s, u"--browser"_s}}) {
        result = quillvane(bad);
        QCOMPARE(result.exitCode, 2);
        QVERIFY2(result.err.startsWith(u"quillvane: "_s), qPrintable(result.err));
    }
    QCOMPARE(quillvane({u"fallback"_s, u""_s}).exitCode, 1);
    QCOMPARE(RuleStore(*storedSettings()).loadDefaultBrowserBundleID(), u"alpha-browser"_s);
    result = quillvane({u"rule"_s, u"add"_s, u"-h"_s});
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.out.startsWith(u"Usage: quillvane rule add"_s));
}

void TestAutomationBus::malformedCallsAreRefused()
{
    const qint64 instance = InstalledQuillvane::instancePid();
    QDBusMessage reply = automationCall(u"ToggleFeature"_s, {u"URLCleaning"_s, true});
    QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
    // Wrong types and wrong counts.
    reply = automationCall(u"ToggleFeature"_s, {42, u"on"_s});
    QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.UnknownMethod"_s);
    reply = automationCall(u"SetDefaultBrowser"_s,
                           {QVariant::fromValue(BrowserEntity{QString(), u"Nobody"_s})});
    QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
    reply = automationCall(u"RouteURL"_s, {u"file:///etc/passwd"_s});
    QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
    reply = automationCall(u"Browsers"_s, {QStringList(100000, u"x"_s)});
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    QCOMPARE(InstalledQuillvane::instancePid(), instance);

    // Ids that name no installed browser, Quillvane's own among them (a link
    // handed to it would come straight back): refused, nothing stored.
    const QString fallback = RuleStore(*storedSettings()).loadDefaultBrowserBundleID();
    const qsizetype ruleCount = storedRules().size();
    for (const QString &id : {u"no-such-browser"_s, u"work.vorpa.Quillvane"_s}) {
        const QVariant entity = QVariant::fromValue(BrowserEntity{id, u"X"_s});
        const QString expected =
            u"no installed browser has the id \"%1\"; \"quillvane browsers\" lists them."_s.arg(id);
        reply = automationCall(u"SetDefaultBrowser"_s, {entity});
        QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
        QCOMPARE(reply.errorMessage(), expected);
        reply = automationCall(u"CreateRule"_s,
                               {entity, QVariantMap{{u"urlPattern"_s, u"loop.example"_s}}});
        QCOMPARE(reply.errorMessage(), expected);
        QCOMPARE(quillvane({u"fallback"_s, id}).err, u"quillvane: "_s + expected + u'\n');
    }
    QCOMPARE(RuleStore(*storedSettings()).loadDefaultBrowserBundleID(), fallback);
    QCOMPARE(storedRules().size(), ruleCount);

    // A pattern made over the bus with a terminal's title sequence and a line
    // break: listed as text, on its own line, and never obeyed.
    const QString evil = u"evil.example\x1b]0;pwned\x07\nforged"_s;
    reply = automationCall(u"CreateRule"_s,
                           {QVariant::fromValue(BrowserEntity{u"alpha-browser"_s, u"Alpha"_s}),
                            QVariantMap{{u"urlPattern"_s, evil}}});
    QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
    const Result listed = quillvane({u"rules"_s});
    QVERIFY2(!listed.out.contains(u'\x1b') && !listed.out.contains(u'\x07'),
             qPrintable(listed.out));
    QVERIFY2(listed.out.contains(u"evil.example\\x1B]0;pwned\\x07\\x0Aforged → Alpha\n"_s),
             qPrintable(listed.out));
    const RoutingRule made = storedRules().last();
    QCOMPARE(made.urlPattern, evil);
    automationCall(
        u"DeleteRule"_s,
        {QVariant::fromValue(RuleEntity{made.id.toString(QUuid::WithoutBraces).toUpper(), {}})});
    QVERIFY(!storedRules().contains(made));
}

// Links made to hurt: each is refused with a clear error or opened as one
// argument of the browser the rules name, never read by a shell, never as an
// option, never many times over.
// The link goes to the bouncer once, comes back, and stops there: the
// bouncer's forwarder hears why, the user is told, and nothing is recorded.
void TestAutomationBus::aBrowserThatHandsLinksBack()
{
    m_notifications.shown.clear();
    const QString link = u"https://bounce.example/loop"_s;
    QCOMPARE(quillvane({u"route"_s, link, u"--browser"_s, u"bouncer"_s}).exitCode, 0);
    QFile status(m_desktop->root() + u"/bounce.status"_s);
    QVERIFY(QTest::qWaitFor([&] { return status.exists(); }, 10000));
    QVERIFY(status.open(QIODevice::ReadOnly));
    QCOMPARE(status.readAll().trimmed(), "1");
    QFile errors(m_desktop->root() + u"/bounce.err"_s);
    QVERIFY(errors.open(QIODevice::ReadOnly));
    const QString said = QString::fromUtf8(errors.readAll());
    QVERIFY2(said.contains(u"a routing loop"_s) && said.contains(u"/bin/bounce-back"_s),
             qPrintable(said));
    QVERIFY(QTest::qWaitFor([&] { return !m_notifications.shown.isEmpty(); }, 10000));
    QCOMPARE(m_notifications.shown.first().first, u"Quillvane stopped a routing loop"_s);
    QVERIFY(m_notifications.shown.first().second.startsWith(u"bounce.example\n"_s));
    for (const ForwardingRecord &record : InstalledQuillvane::storedHistory(*m_desktop))
        QVERIFY(record.originalURL != link);

    // The same link from an application, in the same seconds, opens as ever.
    QCOMPARE(InstalledQuillvane::run(g_installed.program(u"quillvane-open"_s), {link}).exitCode, 0);
    const auto recorded = [&] {
        const QList<ForwardingRecord> history = InstalledQuillvane::storedHistory(*m_desktop);
        return std::any_of(history.cbegin(), history.cend(), [&](const ForwardingRecord &record) {
            return record.originalURL == link;
        });
    };
    QVERIFY(QTest::qWaitFor(recorded, 10000));
}

void TestAutomationBus::hostileLinks()
{
    const auto open = [](const QStringList &links) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            AppId, ObjectPath, u"org.freedesktop.Application"_s, u"Open"_s);
        call << links << QVariantMap();
        return QDBusConnection::sessionBus().call(call, QDBus::Block, 30000);
    };
    m_desktop->forget(u"fallback-browser"_s);
    const QString huge = u"https://big.example/"_s + QString(2 * 1024 * 1024, u'a');
    QDBusMessage reply = open({huge});
    QCOMPARE(reply.errorName(), u"work.vorpa.Quillvane.Error.InvalidLink"_s);
    reply = automationCall(u"RouteURL"_s, {huge});
    QCOMPARE(reply.errorName(), u"org.freedesktop.DBus.Error.InvalidArgs"_s);
    // Within the parser's limit, but no browser could be given it: refused, not accepted and lost.
    reply = open({u"https://big.example/"_s + QString(200000, u'a')});
    QCOMPARE(reply.errorName(), u"work.vorpa.Quillvane.Error.InvalidLink"_s);
    QVERIFY2(reply.errorMessage().contains(u"too long to hand to a browser"_s),
             qPrintable(reply.errorMessage().right(300)));
    reply = open(QStringList(101, u"https://other.example/"_s));
    QCOMPARE(reply.errorName(), u"work.vorpa.Quillvane.Error.TooManyLinks"_s);
    QCOMPARE(quillvane(QStringList(101, u"https://other.example/"_s)).exitCode, 2);
    QVERIFY(!m_desktop->ran(u"fallback-browser"_s));

    // Shell and option syntax stays inside the one argument, percent-encoded where a link must be.
    const QString marker = m_desktop->root() + u"/pwned"_s;
    m_desktop->forget(u"docs-browser"_s);
    const QString nasty = u"https://docs.example/$(touch "_s + marker
                          + u");rm -rf ~;'`id`'/ --incognito?q=a b&-x=--remote"_s;
    QCOMPARE(open({nasty}).type(), QDBusMessage::ReplyMessage);
    QVERIFY(m_desktop->waitForRun(u"docs-browser"_s));
    const QStringList received = m_desktop->arguments(u"docs-browser"_s);
    QCOMPARE(received.size(), 1);
    QVERIFY2(received.first().startsWith(u"https://docs.example/$(touch%20"_s),
             qPrintable(received.first()));
    QVERIFY(!received.first().contains(u' '));
    QVERIFY(!QFile::exists(marker));

    // A token of a megabyte would make the browser's environment too big to start
    // it: the token is left out and the link opens.
    m_desktop->forget(u"docs-browser"_s);
    QDBusMessage withToken = QDBusMessage::createMethodCall(
        AppId, ObjectPath, u"org.freedesktop.Application"_s, u"Open"_s);
    withToken << QStringList{u"https://docs.example/token"_s}
              << QVariantMap{{u"activation-token"_s, QString(1024 * 1024, u't')}};
    QCOMPARE(QDBusConnection::sessionBus().call(withToken, QDBus::Block, 30000).type(),
             QDBusMessage::ReplyMessage);
    QVERIFY(m_desktop->waitForRun(u"docs-browser"_s));
    QCOMPARE(m_desktop->arguments(u"docs-browser"_s), QStringList{u"https://docs.example/token"_s});
    QVERIFY(m_desktop->activationToken(u"docs-browser"_s).size() < 1024);

    // The command line: bytes that are not text, and what looks like an option.
    Result result = quillvane({u"route"_s, u"-https://docs.example/"_s});
    QCOMPARE(result.exitCode, 2);
    QVERIFY2(result.err.contains(u"-https://docs.example/"_s), qPrintable(result.err));
    result =
        InstalledQuillvane::run(u"bash"_s, {u"-c"_s, g_installed.program(u"quillvane"_s)
                                                         + u" route $'https://a.example/\\xff'"_s});
    QCOMPARE(result.exitCode, 2);
    QVERIFY2(result.err.contains(u"not valid UTF-8"_s), qPrintable(result.err));
}

namespace {
QDBusMessage openLinks(const QStringList &links)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        AppId, ObjectPath, u"org.freedesktop.Application"_s, u"Open"_s);
    call << links << QVariantMap();
    return QDBusConnection::sessionBus().call(call, QDBus::Block, 30000);
}
} // namespace

// Browsers installed, changed and removed while Quillvane runs; rules with a
// profile and a private window made from the command line; a browser that
// cannot run.
void TestAutomationBus::browsersThatChangeWhileRunning()
{
    const QString localState = m_desktop->configHome() + u"/chromium/Local State"_s;
    writeFile(localState, R"({"profile":{"info_cache":{"Default":{"name":"Personal"},)"
                          R"("Profile 1":{"name":"Work"}}}})");
    const QString chromium = m_desktop->addBrowser(u"chromium"_s, u"Chromium"_s);
    const auto listed = [this](const QString &id) {
        return quillvane({u"browsers"_s}).out.contains(id);
    };
    QTRY_VERIFY_WITH_TIMEOUT(listed(u"chromium"_s), 10000);

    Result result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"chromium"_s,
                               u"--pattern"_s, u"bank.example"_s, u"--profile"_s,
                               u"Profile 1"_s, u"--private"_s});
    QCOMPARE(result.exitCode, 0);
    const RoutingRule bank = storedRules().last();
    QCOMPARE(bank.targetProfileID, u"Profile 1"_s);
    QVERIFY(bank.openInPrivateWindow);
    result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"chromium"_s, u"--pattern"_s,
                        u"x.example"_s, u"--profile"_s, u"Profile 7"_s});
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, u"quillvane: Chromium has no profile \"Profile 7\"; its profiles are: "
                         "Default (Personal), Profile 1 (Work).\n"_s);
    result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"alpha-browser"_s, u"--pattern"_s,
                        u"x.example"_s, u"--private"_s});
    QCOMPARE(result.exitCode, 1);
    const QString id = JsonFields::uuidText(bank.id);
    QVERIFY2(quillvane({u"rules"_s}).out.contains(
                 id + u"  bank.example → Chromium  [profile: Work]  [private window]"_s),
             qPrintable(quillvane({u"rules"_s}).out));

    // Renamed in the browser: shown by its new name within moments.
    writeFile(localState, R"({"profile":{"info_cache":{"Profile 1":{"name":"Office"}}}})");
    QTRY_VERIFY_WITH_TIMEOUT(quillvane({u"rules"_s}).out.contains(u"[profile: Office]"_s), 10000);

    // An application's link opens privately in the profile.
    m_desktop->forget(u"chromium"_s);
    QCOMPARE(openLinks({u"https://bank.example/login"_s}).type(), QDBusMessage::ReplyMessage);
    QVERIFY(m_desktop->waitForRun(u"chromium"_s));
    QCOMPARE(m_desktop->arguments(u"chromium"_s),
             (QStringList{u"--profile-directory=Profile 1"_s, u"--incognito"_s,
                          u"https://bank.example/login"_s}));

    // A browser that cannot run says so at once; nothing is recorded.
    const QString failing = m_desktop->root() + u"/bin/refusing-browser"_s;
    writeFile(failing, "#!/bin/sh\necho 'Running as root without --no-sandbox is not "
                       "supported.' >&2\nexit 1\n");
    QFile::setPermissions(failing, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString refusing =
        m_desktop->addBrowser(u"refusing"_s, u"Refusing"_s, {}, failing + u" %u"_s);
    QTRY_VERIFY_WITH_TIMEOUT(listed(u"refusing"_s), 10000);
    const qsizetype history = InstalledQuillvane::storedHistory(*m_desktop).size();
    result = quillvane(
        {u"route"_s, u"https://bank.example/"_s, u"--browser"_s, u"refusing"_s});
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, u"quillvane: Failed to open URL: Refusing ended right after it started "
                         "(status 1): Running as root without --no-sandbox is not supported.\n"_s);
    m_notifications.shown.clear();
    result = quillvane({u"rule"_s, u"add"_s, u"--browser"_s, u"refusing"_s, u"--pattern"_s,
                        u"refused.example"_s});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(openLinks({u"https://refused.example/"_s}).type(), QDBusMessage::ReplyMessage);
    QTRY_COMPARE(m_notifications.shown.size(), 1);
    QCOMPARE(m_notifications.shown.first().second,
             u"refused.example\nFailed to open URL: Refusing ended right after it started (status "
             "1): Running as root without --no-sandbox is not supported."_s);
    QCOMPARE(InstalledQuillvane::storedHistory(*m_desktop).size(), history);

    // Removed while running: gone from the list.
    QVERIFY(QFile::remove(chromium));
    QVERIFY(QFile::remove(refusing));
    m_desktop->refreshDatabase();
    QTRY_VERIFY_WITH_TIMEOUT(!listed(u"chromium"_s) && !listed(u"refusing"_s), 10000);
}

void TestAutomationBus::desktopActions()
{
    // The clipboard belongs to this process, which must keep answering while
    // Quillvane reads it: nothing here waits without its event loop.
    QGuiApplication::clipboard()->setText(u"  https://docs.example/copied?utm_medium=mail  "_s);
    m_desktop->forget(u"docs-browser"_s);
    m_notifications.shown.clear();
    QProcess action;
    action.start(g_installed.program(u"quillvane"_s), {u"--action"_s, u"route-clipboard"_s});
    QTRY_COMPARE_WITH_TIMEOUT(m_notifications.shown.size(), 1, 15000);
    QCOMPARE(m_notifications.shown.first(),
             (std::pair{u"Route URL"_s, u"Routed to Docs Browser."_s}));
    // Told when the browser was started, not when it had written what it got.
    QVERIFY(m_desktop->waitForRun(u"docs-browser"_s));
    QCOMPARE(m_desktop->arguments(u"docs-browser"_s),
             QStringList{u"https://docs.example/copied"_s});
    QTRY_COMPARE(action.state(), QProcess::NotRunning);
    QCOMPARE(action.exitCode(), 0);

    QGuiApplication::clipboard()->setText(u"ftp://files.example/"_s);
    action.start(g_installed.program(u"quillvane"_s), {u"--action"_s, u"route-clipboard"_s});
    QTRY_COMPARE_WITH_TIMEOUT(m_notifications.shown.size(), 2, 15000);
    QVERIFY(m_notifications.shown.last().second.startsWith(
        u"The clipboard holds no link to route: "_s));
    QTRY_COMPARE(action.state(), QProcess::NotRunning);

    // Straight over the bus, as launchers do.
    QDBusMessage call = QDBusMessage::createMethodCall(
        AppId, ObjectPath, u"org.freedesktop.Application"_s, u"ActivateAction"_s);
    call << u"list-browsers"_s << QVariantList() << QVariantMap();
    QDBusConnection::sessionBus().asyncCall(call);
    QTRY_COMPARE_WITH_TIMEOUT(m_notifications.shown.size(), 3, 15000);
    QCOMPARE(m_notifications.shown.last(),
             (std::pair{u"List Browsers"_s,
                        u"Alpha (alpha-browser)\nBouncer (bouncer)\nDocs Browser (docs-browser)\n"
                        "Fallback (fallback-browser)"_s}));

    const Result unknown = quillvane({u"--action"_s, u"format-disk"_s});
    QCOMPARE(unknown.exitCode, 2);
    QVERIFY(unknown.err.contains(u"route-clipboard, list-browsers, create-rule"_s));
}

void TestAutomationBus::shellCompletion()
{
    const QString bashScript =
        g_installed.prefix() + u"/share/bash-completion/completions/quillvane"_s;
    const auto complete = [&](const QString &line) {
        // The words of the line, the last one being completed.
        const QString command = u"PATH='%1/bin':$PATH; source '%2'; COMP_WORDS=(%3); "
                                u"COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                                "_quillvane; printf '%s\\n' \"${COMPREPLY[@]}\""_s.arg(
                                    g_installed.prefix(), bashScript, line);
        return InstalledQuillvane::run(u"bash"_s, {u"-c"_s, command})
            .out.split(u'\n', Qt::SkipEmptyParts);
    };
    QCOMPARE(complete(u"quillvane fallback ''"_s),
             (QStringList{u"alpha-browser"_s, u"bouncer"_s, u"docs-browser"_s,
                          u"fallback-browser"_s, u"--ask"_s, u"--help"_s}));
    QCOMPARE(complete(u"quillvane rule delete ''"_s).size(), storedRules().size() + 2);
    QCOMPARE(complete(u"quillvane r"_s), (QStringList{u"route"_s, u"rules"_s, u"rule"_s}));

    if (QStandardPaths::findExecutable(u"zsh"_s).isEmpty())
        QSKIP("zsh is not installed");
    QCOMPARE(
        InstalledQuillvane::run(
            u"zsh"_s, {u"-n"_s, g_installed.prefix() + u"/share/zsh/site-functions/_quillvane"_s})
            .exitCode,
        0);
}

QTEST_MAIN(TestAutomationBus)
#include "tst_automationbus.moc"
