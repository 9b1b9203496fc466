// Scripts driving a real Quillvane: the sub-commands run as processes and
// direct calls to work.vorpa.Quillvane.Automation, on a session bus of the
// test's own, under a virtual X server. The test is also
// the desktop's notification service, to read Quillvane's answers.
#include "Automation/AutomationAdaptor.h"
#include "FakeDesktop.h"
#include "InstalledQuillvane.h"
#include "Models/JsonFields.h"
#include "Automation/BusNames.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using namespace Automation;

namespace {

// The names scripts rely on, spelled out so that renaming one breaks this test.
const QString AppId = u"work.vorpa.Quillvane"_s;
const QString InvalidArgs = u"org.freedesktop.DBus.Error.InvalidArgs"_s;
const QString InvalidLink = u"work.vorpa.Quillvane.Error.InvalidLink"_s;
InstalledQuillvane g_installed(QStringLiteral(QUILLVANE_E2E_PREFIX));

using Result = InstalledQuillvane::Result;

// quillvane with the arguments of a command line (double quotes group words).
Result qv(const QString &commandLine)
{
    return g_installed.quillvane(QProcess::splitCommand(commandLine));
}
// Runs quillvane once per line, "arguments | exit status | text": what it
// printed (on either stream) holds the text. "(empty)" is an empty argument.
void script(QStringView lines)
{
    for (const QStringView line : lines.split(u'\n', Qt::SkipEmptyParts)) {
        const QList<QStringView> cells = line.split(u'|');
        QStringList arguments = QProcess::splitCommand(cells.value(0));
        for (QString &argument : arguments) {
            if (argument == u"(empty)")
                argument.clear();
        }
        const Result result = g_installed.quillvane(arguments);
        const QString said = result.out + result.err;
        QVERIFY2(result.exitCode == cells.value(1).trimmed().toInt()
                     && said.contains(cells.value(2).trimmed()),
                 qPrintable(line.trimmed() + u"\n→ "_s + QString::number(result.exitCode) + u' '
                            + said));
    }
}
QDBusMessage call(const QString &method, const QVariantList &arguments = {})
{
    return InstalledQuillvane::automation(method, arguments);
}
QVariant browser(const QString &id, const QString &name = u"X"_s)
{
    return QVariant::fromValue(BrowserEntity{id, name});
}
QVariant ruleEntity(const RoutingRule &rule)
{
    return QVariant::fromValue(RuleEntity{JsonFields::uuidText(rule.id), {}});
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
    void initTestCase()
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
        const QString bouncer = m_desktop->program(
            u"bounce-back"_s,
            u"#!/bin/sh\n%1 \"$1\" 2>\"%2/bounce.err\"\n"
            "echo $? >\"%2/bounce.new\" && mv \"%2/bounce.new\" \"%2/bounce.status\"\n"_s
                .arg(g_installed.program(u"quillvane-open"_s), m_desktop->root())
                .toUtf8());
        m_desktop->addBrowser(u"bouncer"_s, u"Bouncer"_s, {}, bouncer + u" %u"_s);

        RoutingRule docs = makeRule({}, u"docs.example"_s, u"docs-browser"_s);
        docs.targetBrowserName = u"Docs Browser"_s;
        m_docsRuleId = JsonFields::uuidText(docs.id);
        Config config;
        config.rules = {docs};
        config.fallbackBrowser = u"fallback-browser"_s;
        InstalledQuillvane::seed(*m_desktop, config);

        QDBusConnection bus = QDBusConnection::sessionBus();
        QVERIFY(bus.registerObject(u"/org/freedesktop/Notifications"_s, &m_notifications,
                                   QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(u"org.freedesktop.Notifications"_s));
    }

    void cleanupTestCase()
    {
        if (m_desktop)
            QVERIFY(InstalledQuillvane::stop());
    }

    void nothingAnswersWhileNotRunning()
    {
        script(u"rule delete %1 --yes | 1 | Quillvane is not running. Please launch the app "
               "first."_s.arg(m_docsRuleId));
        // Even though the bus could start it.
        QVERIFY(!InstalledQuillvane::isRunning());
        const QString error = call(u"ListRules"_s).errorName();
        QVERIFY2(error == u"org.freedesktop.DBus.Error.ServiceUnknown"
                     || error == u"org.freedesktop.DBus.Error.NameHasNoOwner",
                 qPrintable(error));
        QCOMPARE(stored().rules.size(), 1);
        // Started the way a desktop starts it.
        QDBusMessage activate = QDBusMessage::createMethodCall(
            AppId, u"/work/vorpa/Quillvane"_s, u"org.freedesktop.Application"_s, u"Activate"_s);
        activate << QVariantMap();
        QVERIFY(answered(QDBusConnection::sessionBus().call(activate, QDBus::Block, 20000)));
        QVERIFY(InstalledQuillvane::isRunning());
    }

    void listsAndQueries()
    {
        const Result listed = qv(u"browsers"_s);
        QCOMPARE(QString::number(listed.exitCode) + u' ' + listed.out,
                 u"0 alpha-browser     Alpha\nbouncer           Bouncer\n"
                 "docs-browser      Docs Browser\nfallback-browser  Fallback\n"_s);
        QCOMPARE(QJsonDocument::fromJson(qv(u"rules --json"_s).out.toUtf8()).array(),
                 (QJsonArray{QJsonObject{{u"id"_s, m_docsRuleId},
                                         {u"summary"_s, u"docs.example → Docs Browser"_s}}}));
    }

    void createAndDeleteRules();
    void routeURL();
    void fallbackAndFeatures();
    void malformedCallsAreRefused()
    {
        const qint64 instance = InstalledQuillvane::instancePid();
        QCOMPARE(call(u"ToggleFeature"_s, {u"URLCleaning"_s, true}).errorName(), InvalidArgs);
        // Wrong types and wrong counts.
        QCOMPARE(call(u"ToggleFeature"_s, {42, u"on"_s}).errorName(),
                 u"org.freedesktop.DBus.Error.UnknownMethod"_s);
        QCOMPARE(call(u"SetDefaultBrowser"_s, {browser({})}).errorName(), InvalidArgs);
        QCOMPARE(call(u"RouteURL"_s, {u"file:///etc/passwd"_s}).errorName(), InvalidArgs);
        QVERIFY(answered(call(u"Browsers"_s, {QStringList(100000, u"x"_s)})));
        QCOMPARE(InstalledQuillvane::instancePid(), instance);

        // Ids that name no installed browser, Quillvane's own among them (a link
        // handed to it would come straight back): refused, nothing stored.
        const QString fallback = stored().fallbackBrowser;
        const qsizetype ruleCount = stored().rules.size();
        for (const QString &id : {u"no-such-browser"_s, AppId}) {
            const QString expected =
                u"no installed browser has the id \"%1\"; \"quillvane browsers\" lists them."_s.arg(
                    id);
            const QDBusMessage reply = call(u"SetDefaultBrowser"_s, {browser(id)});
            QCOMPARE(reply.errorName() + u' ' + reply.errorMessage(),
                     InvalidArgs + u' ' + expected);
            QCOMPARE(call(u"CreateRule"_s,
                          {browser(id), QVariantMap{{u"urlPattern"_s, u"loop.example"_s}}})
                         .errorMessage(),
                     expected);
            QCOMPARE(qv(u"fallback "_s + id).err, u"quillvane: "_s + expected + u'\n');
        }
        QCOMPARE(stored().fallbackBrowser, fallback);
        QCOMPARE(stored().rules.size(), ruleCount);

        // A pattern made over the bus with a terminal's title sequence and a line
        // break: listed as text, on its own line, and never obeyed.
        const QString evil = u"evil.example\x1b]0;pwned\x07\nforged"_s;
        QVERIFY(answered(call(u"CreateRule"_s, {browser(u"alpha-browser"_s, u"Alpha"_s),
                                                QVariantMap{{u"urlPattern"_s, evil}}})));
        const QString listedRules = qv(u"rules"_s).out;
        QVERIFY2(
            !listedRules.contains(u'\x1b') && !listedRules.contains(u'\x07')
                && listedRules.contains(u"evil.example\\x1B]0;pwned\\x07\\x0Aforged → Alpha\n"_s),
            qPrintable(listedRules));
        const RoutingRule made = stored().rules.last();
        QCOMPARE(made.urlPattern, evil);
        call(u"DeleteRule"_s, {ruleEntity(made)});
        QVERIFY(!stored().rules.contains(made));
    }

    // Links made to hurt: each is refused with a clear error or opened as one
    // argument of the browser the rules name, never read by a shell, never as an
    // option, never many times over.
    void hostileLinks()
    {
        const QString huge = u"https://big.example/"_s + QString(2 * 1024 * 1024, u'a');
        m_desktop->forget(u"fallback-browser"_s);
        QCOMPARE(InstalledQuillvane::open({huge}).errorName(), InvalidLink);
        QCOMPARE(call(u"RouteURL"_s, {huge}).errorName(), InvalidArgs);
        // Within the parser's limit, but no browser could be given it: refused, not
        // accepted and lost.
        const QDBusMessage unlaunchable =
            InstalledQuillvane::open({u"https://big.example/"_s + QString(200000, u'a')});
        QCOMPARE(unlaunchable.errorName(), InvalidLink);
        QVERIFY(unlaunchable.errorMessage().contains(u"too long to hand to a browser"_s));
        const QStringList tooMany(101, u"https://other.example/"_s);
        QCOMPARE(InstalledQuillvane::open(tooMany).errorName(),
                 u"work.vorpa.Quillvane.Error.TooManyLinks"_s);
        QCOMPARE(g_installed.quillvane(tooMany).exitCode, 2);
        QVERIFY(!m_desktop->ran(u"fallback-browser"_s));

        // Shell and option syntax stays inside the one argument, percent-encoded
        // where a link must be.
        const QString marker = m_desktop->root() + u"/pwned"_s;
        m_desktop->forget(u"docs-browser"_s);
        QVERIFY(
            InstalledQuillvane::opens({u"https://docs.example/$(touch "_s + marker
                                       + u");rm -rf ~;'`id`'/ --incognito?q=a b&-x=--remote"_s}));
        const QStringList received = m_desktop->opened(u"docs-browser"_s);
        QVERIFY2(received.size() == 1 && !received.first().contains(u' ')
                     && received.first().startsWith(u"https://docs.example/$(touch%20"_s),
                 qPrintable(received.join(u'\n')));
        QVERIFY(!QFile::exists(marker));

        // A token of a megabyte would make the browser's environment too big to
        // start it: the token is left out and the link opens.
        m_desktop->forget(u"docs-browser"_s);
        QVERIFY(InstalledQuillvane::opens({u"https://docs.example/token"_s},
                                          {{u"activation-token"_s, QString(1024 * 1024, u't')}}));
        QCOMPARE(m_desktop->opened(u"docs-browser"_s),
                 QStringList{u"https://docs.example/token"_s});
        QVERIFY(m_desktop->activationToken(u"docs-browser"_s).size() < 1024);

        // The command line: what looks like an option, and bytes that are not text.
        const Result option = qv(u"route -https://docs.example/"_s);
        QVERIFY2(option.exitCode == 2 && option.err.contains(u"-https://docs.example/"_s),
                 qPrintable(option.err));
        const Result bytes = InstalledQuillvane::run(
            u"bash"_s, {u"-c"_s, g_installed.program(u"quillvane"_s)
                                     + u" route $'https://a.example/\\xff'"_s});
        QVERIFY2(bytes.exitCode == 2 && bytes.err.contains(u"not valid UTF-8"_s),
                 qPrintable(bytes.err));
    }

    // The link goes to the bouncer once, comes back, and stops there: the
    // bouncer's forwarder hears why, the user is told, and nothing is recorded.
    void aBrowserThatHandsLinksBack()
    {
        m_notifications.shown.clear();
        const QString link = u"https://bounce.example/loop"_s;
        QCOMPARE(qv(u"route %1 --browser bouncer"_s.arg(link)).exitCode, 0);
        const QString status = m_desktop->root() + u"/bounce.status"_s;
        QVERIFY(QTest::qWaitFor([&] { return QFile::exists(status); }, 10000));
        QCOMPARE(readFile(status).trimmed(), "1");
        const QString said = QString::fromUtf8(readFile(m_desktop->root() + u"/bounce.err"_s));
        QVERIFY2(said.contains(u"a routing loop"_s) && said.contains(u"/bin/bounce-back"_s),
                 qPrintable(said));
        QTRY_VERIFY_WITH_TIMEOUT(!m_notifications.shown.isEmpty(), 10000);
        QCOMPARE(m_notifications.shown.first().first, u"Quillvane stopped a routing loop"_s);
        QVERIFY(m_notifications.shown.first().second.startsWith(u"bounce.example\n"_s));
        QVERIFY(!links(InstalledQuillvane::storedHistory(*m_desktop)).contains(link));

        // The same link from an application, in the same seconds, opens as ever.
        QCOMPARE(g_installed.forward(link), 0);
        QTRY_VERIFY_WITH_TIMEOUT(
            links(InstalledQuillvane::storedHistory(*m_desktop)).contains(link), 10000);
    }

    void browsersThatChangeWhileRunning();
    void configurationFromScripts();

private:
    Config stored() const { return InstalledQuillvane::stored(*m_desktop); }

    bool listed(const QString &id) const { return qv(u"browsers"_s).out.contains(id); }

    std::unique_ptr<FakeDesktop> m_desktop;
    NotificationServer m_notifications;
    QString m_docsRuleId;
};

void TestAutomationBus::createAndDeleteRules()
{
    // Stored exactly as given: scheme, case and slash kept; an app with an
    // empty pattern has the pattern. Neither a source nor a pattern; an
    // unknown browser; no browser at all: refused.
    script(uR"(
rule add --browser alpha-browser --pattern=HTTPS://Git.Example/ | 0 | Created rule: HTTPS://Git.Example/ → Alpha
rule add --browser docs-browser --app org.example.Mail --pattern (empty) | 0 | Created rule: org.example.Mail +  → Docs Browser
rule add --browser docs-browser --app=                 | 1 |
rule add --browser Docs-Browser --pattern x.example    | 1 |
rule add --pattern x.example                           | 2 |
)");
    const QList<RoutingRule> rules = stored().rules;
    QCOMPARE(rules.size(), 3);
    QCOMPARE(rules[1].urlPattern, u"HTTPS://Git.Example/"_s);
    QVERIFY(rules[2].sourceAppId == u"org.example.Mail" && rules[2].urlPattern == u"");
    // Over the bus, options are checked by name and type.
    const auto create = [&](const QVariantMap &options) {
        return call(u"CreateRule"_s, {browser(u"alpha-browser"_s, u"Alpha"_s), options});
    };
    const QDBusMessage unknown =
        create({{u"urlPattern"_s, u"*.example.org"_s}, {u"colour"_s, u"red"_s}});
    QVERIFY(unknown.errorName() == InvalidArgs && unknown.errorMessage().contains(u"colour"_s));
    for (const QVariant &pattern : {QVariant(42), QVariant(QString(5000, u'a'))})
        QCOMPARE(create({{u"urlPattern"_s, pattern}}).errorName(), InvalidArgs);
    QCOMPARE(create({{u"sourceAppBundleID"_s, u""_s}}).errorName(),
             u"work.vorpa.Quillvane.Error.ValidationFailed"_s);
    QCOMPARE(create({{u"urlPattern"_s, u"*.example.org"_s}}).arguments().value(0).toString(),
             u"Created rule: *.example.org → Alpha"_s);
    QCOMPARE(stored().rules.size(), 4);

    // No terminal and no --yes: nothing deleted. Ids are exact: lower case finds
    // nothing, which is no error and needs no --yes.
    const RoutingRule last = stored().rules.last();
    const QString id = JsonFields::uuidText(last.id);
    script(uR"(
rule delete $ID         | 1 | Delete rule "*.example.org → Alpha"?
rule delete $id         | 0 | Rule not found. It may have already been deleted.
rule delete $ID --yes   | 0 | Deleted rule: *.example.org → Alpha
)"_s.replace(u"$ID"_s, id)
               .replace(u"$id"_s, id.toLower()));
    QCOMPARE(stored().rules.size(), 3);
    // A rule that is gone meanwhile is not an error.
    QVERIFY(answered(call(u"DeleteRule"_s, {ruleEntity(last)})));

    // On a terminal (script gives the command one, fed from our input) the
    // command asks, and only "y" deletes.
    const QString script = QStandardPaths::findExecutable(u"script"_s);
    const auto onTerminal = [&](const QByteArray &answer) {
        const QString command = g_installed.program(u"quillvane"_s) + u" rule delete "_s
                                + JsonFields::uuidText(stored().rules.last().id);
        return InstalledQuillvane::run(script, {u"-qec"_s, command, u"/dev/null"_s}, answer).out;
    };
    QVERIFY(onTerminal("n\n").contains(u"Delete rule \"org.example.Mail +  → Docs Browser\"? [y/N]"_s));
    QCOMPARE(stored().rules.size(), 3);
    QVERIFY(onTerminal("y\n").contains(u"Deleted rule: org.example.Mail +  → Docs Browser"_s));
    QCOMPARE(stored().rules.size(), 2);
}

void TestAutomationBus::routeURL()
{
    const qsizetype history = InstalledQuillvane::storedHistory(*m_desktop).size();
    const qint64 count = InstalledQuillvane::storedForwardCount(*m_desktop);
    // Through the rules: cleaned (cleaning is on by default), no source app;
    // straight to a browser: exactly as given. Bad links never reach the instance.
    script(uR"(
route https://docs.example/page?utm_source=news&id=7                       | 0 | Routed to Docs Browser.
route https://docs.example/page?utm_source=news --browser alpha-browser    | 0 | Opened in Alpha.
route javascript:alert(1)                                                  | 2 |
route (empty)                                                              | 2 |
)");
    QCOMPARE(m_desktop->opened(u"docs-browser"_s),
             QStringList{u"https://docs.example/page?id=7"_s});
    QCOMPARE(m_desktop->opened(u"alpha-browser"_s),
             QStringList{u"https://docs.example/page?utm_source=news"_s});
    // No rule: the fallback browser; over the bus as well.
    QCOMPARE(call(u"RouteURL"_s, {u"https://other.example/"_s}).arguments().value(0).toString(),
             u"Routed to Fallback."_s);
    QVERIFY(m_desktop->waitForRun(u"fallback-browser"_s));
    // Nothing counted or recorded, and nothing left in the journal.
    QCOMPARE(InstalledQuillvane::storedHistory(*m_desktop).size(), history);
    QCOMPARE(InstalledQuillvane::storedForwardCount(*m_desktop), count);
    QCOMPARE(InstalledQuillvane::journalEntries(*m_desktop), 0);
}

void TestAutomationBus::fallbackAndFeatures()
{
    // "Ask" as the fallback keeps the browser; a script is never asked: the
    // fallback browser opens its links. Naming a browser ends it. A rule can
    // ask too, and names no browser then.
    script(uR"(
fallback alpha-browser                                           | 0 |
route https://docs.example/ --browser no-such-browser            | 1 | no-such-browser
fallback --ask                                                   | 0 |
route https://nowhere.example/                                   | 0 | Routed to Alpha.
fallback alpha-browser --ask                                     | 2 |
rule add --ask --pattern ask.example                             | 0 | Created rule: ask.example → Ask Every Time
rule add --ask --browser alpha-browser --pattern x.example       | 2 |
)");
    QVERIFY(stored().fallbackAsks);
    QCOMPARE(stored().fallbackBrowser, u"alpha-browser"_s);
    const RoutingRule asking = stored().rules.last();
    QVERIFY(asking.askWhereToOpen && asking.targetBrowserId.isEmpty());
    QCOMPARE(qv(u"rule delete %1 --yes"_s.arg(JsonFields::uuidText(asking.id))).exitCode, 0);
    qv(u"fallback alpha-browser"_s);
    QVERIFY(!stored().fallbackAsks);

    // Pausing twice: one change, the same answer; rules still apply to scripts.
    // Usage errors say so on standard error.
    script(uR"(
feature pauseRules on                 | 0 | Pause Rules is now enabled.
feature pauseRules on                 | 0 | Pause Rules is now enabled.
route https://docs.example/paused     | 0 | Routed to Docs Browser.
)");
    QVERIFY(!stored().rulesEnabled);
    script(uR"(
feature pauseRules off                | 0 |
feature urlCleaning off               | 0 |
feature urlUnwrapping off             | 0 |
feature URLCleaning on                | 2 | quillvane: 
route https://a.example --browser     | 2 | quillvane: 
)");
    QVERIFY(stored().rulesEnabled);
    QVERIFY(!stored().urlUnwrappingEnabled
            && !stored().urlCleaningEnabled);
    QCOMPARE(stored().fallbackBrowser, u"alpha-browser"_s);
    script(u"feature urlCleaning on | 0 |\nfeature urlUnwrapping on | 0 |");
}

// Browsers installed, changed and removed while Quillvane runs; rules with a
// profile and a private window made from the command line; a browser that
// cannot run.
void TestAutomationBus::browsersThatChangeWhileRunning()
{
    const QString localState = m_desktop->configHome() + u"/chromium/Local State"_s;
    writeFile(localState, R"({"profile":{"info_cache":{"Default":{"name":"Personal"},)"
                          R"("Profile 1":{"name":"Work"}}}})");
    const QString chromium = m_desktop->addBrowser(u"chromium"_s, u"Chromium"_s);
    QTRY_VERIFY_WITH_TIMEOUT(listed(u"chromium"_s), 10000);

    script(uR"(
rule add --browser chromium --pattern bank.example --profile "Profile 1" --private | 0 |
rule add --browser chromium --pattern x.example --profile "Profile 7" | 1 | quillvane: Chromium has no profile "Profile 7"; its profiles are: Default (Personal), Profile 1 (Work).
rule add --browser alpha-browser --pattern x.example --private | 1 |
rule add --browser chromium --pattern x.example --profile=--headless | 1 | quillvane: The profile “--headless” cannot be used: it begins with “-”, so the browser would take it for an option.
)");
    const RoutingRule bank = stored().rules.last();
    QVERIFY(bank.targetProfileID == u"Profile 1" && bank.openInPrivateWindow);
    script(u"rules | 0 | %1  bank.example → Chromium  [profile: Work]  [private window]"_s.arg(
        JsonFields::uuidText(bank.id)));
    // Renamed in the browser: shown by its new name within moments.
    writeFile(localState, R"({"profile":{"info_cache":{"Profile 1":{"name":"Office"}}}})");
    QTRY_VERIFY_WITH_TIMEOUT(qv(u"rules"_s).out.contains(u"[profile: Office]"_s), 10000);
    // An application's link opens privately in the profile.
    m_desktop->forget(u"chromium"_s);
    QVERIFY(InstalledQuillvane::opens({u"https://bank.example/login"_s}));
    QCOMPARE(m_desktop->opened(u"chromium"_s),
             (QStringList{u"--profile-directory=Profile 1"_s, u"--incognito"_s,
                          u"https://bank.example/login"_s}));

    // A browser that cannot run says so at once; nothing is recorded.
    const QString failing = m_desktop->program(
        u"refusing-browser"_s,
        "#!/bin/sh\necho 'Running as root without --no-sandbox is not supported.' >&2\nexit 1\n");
    const QString refusing =
        m_desktop->addBrowser(u"refusing"_s, u"Refusing"_s, {}, failing + u" %u"_s);
    QTRY_VERIFY_WITH_TIMEOUT(listed(u"refusing"_s), 10000);
    const qsizetype history = InstalledQuillvane::storedHistory(*m_desktop).size();
    const QString refused = u"Failed to open URL: Refusing ended right after it started (status "
                            "1): Running as root without --no-sandbox is not supported."_s;
    const Result routed = qv(u"route https://bank.example/ --browser refusing"_s);
    QCOMPARE(QString::number(routed.exitCode) + routed.err, u"1quillvane: "_s + refused + u'\n');
    m_notifications.shown.clear();
    QCOMPARE(qv(u"rule add --browser refusing --pattern refused.example"_s).exitCode, 0);
    QVERIFY(InstalledQuillvane::opens({u"https://refused.example/"_s}));
    QTRY_COMPARE(m_notifications.shown.size(), 1);
    QCOMPARE(m_notifications.shown.first().second, u"refused.example\n"_s + refused);
    QCOMPARE(InstalledQuillvane::storedHistory(*m_desktop).size(), history);

    // Removed while running: gone from the list.
    QVERIFY(QFile::remove(chromium) && QFile::remove(refusing));
    m_desktop->refreshDatabase();
    QTRY_VERIFY_WITH_TIMEOUT(!listed(u"chromium"_s) && !listed(u"refusing"_s), 10000);
}

// The configuration from scripts: the commands work on the file, and the
// running Quillvane follows it; the bus offers the same; a broken hand edit is
// named, and neither the commands nor the bus write over it.
void TestAutomationBus::configurationFromScripts()
{
    const QString path = InstalledQuillvane::configPath(*m_desktop);
    const QString exported = m_desktop->root() + u"/exported.json"_s;
    const auto handoffOn = [] {
        const auto list =
            qdbus_cast<QList<QVariantMap>>(call(u"ListHandoffs"_s).arguments().value(0));
        return std::any_of(list.cbegin(), list.cend(), [](const QVariantMap &handoff) {
            return handoff.value(u"id"_s).toString() == u"zoom" && handoff.value(u"enabled"_s).toBool();
        });
    };
    QCOMPARE(call(u"ConfigPath"_s).arguments().value(0).toString(), path);
    script(QString(u"config path | 0 | "_s + path + uR"(
handoff zoom on         | 0 | Zoom links now open in its app.
handoff teleporter on   | 2 | quillvane: there is no handoff named "teleporter"
handoffs                | 0 | zoom       on   Zoom
config check            | 0 | nothing wrong
)"_s));
    QTRY_VERIFY_WITH_TIMEOUT(handoffOn(), 10000);
    QVERIFY(answered(call(u"SetHandoff"_s, {u"zoom"_s, false})));
    QVERIFY(!stored().handoffs.contains(u"zoom"_s) && !handoffOn());

    // What an import changes is shown first; without a terminal only --yes imports.
    const qsizetype rules = stored().rules.size();
    script(QString(u"config export "_s + exported + u" | 0 | Exported"_s));
    QJsonObject document = QJsonDocument::fromJson(readFile(exported)).object();
    QJsonArray imported = document[u"rules"].toArray();
    imported.append(QJsonDocument::fromJson(RoutingRule::listToJson({makeRule(
                                                {}, u"new.example"_s, u"alpha-browser"_s,
                                                u"Profile 3"_s)}))
                        .array()
                        .first());
    document[u"rules"] = imported;
    document[u"browserPreferences"] = QJsonArray{
        QJsonObject{{u"browserBundleID"_s, u"alpha-browser"_s}, {u"extraArguments"_s, u"--new-window"_s}}};
    writeFile(exported, QJsonDocument(document).toJson());
    script(QString(u"config import "_s + exported + u" | 1 | there is no terminal to ask on"_s));
    QCOMPARE(stored().rules.size(), rules);
    const auto answer = g_installed.quillvane({u"config"_s, u"import"_s, exported, u"--yes"_s});
    QCOMPARE(answer.exitCode, 0);
    QVERIFY2(answer.out.contains(u"  + new.example → alpha-browser  [profile: Profile 3]\n"_s)
                 && answer.out.contains(u"  alpha-browser starts with: --new-window\n"_s),
             qPrintable(answer.out));
    QTRY_COMPARE_WITH_TIMEOUT(
        qdbus_cast<QList<RuleEntity>>(call(u"ListRules"_s).arguments().value(0)).size(),
        rules + 1, 10000);
    QVERIFY(answered(call(u"ImportConfig"_s, {QString::fromUtf8(readFile(exported))})));

    // A broken hand edit.
    const QByteArray good = readFile(path);
    QByteArray broken = good;
    broken.insert(broken.indexOf('\n') + 1, "    \"colour\": \"blue\",\n");
    m_notifications.shown.clear();
    writeFile(path, broken);
    script(QString(u"config check | 1 | "_s + path + u":2:5: unknown member \"colour\"."_s));
    QCOMPARE(call(u"CheckConfig"_s, {QString()}).errorName(), BusNames::Error::ValidationFailed);
    QTRY_VERIFY_WITH_TIMEOUT(!m_notifications.shown.isEmpty(), 10000);
    QCOMPARE(m_notifications.shown.first().first, u"Quillvane cannot read its configuration"_s);
    QCOMPARE(call(u"SetHandoff"_s, {u"zoom"_s, true}).errorName(), BusNames::Error::Refused);
    script(u"handoff zoom on | 1 | does not write over a configuration file it cannot read"_s);
    QCOMPARE(readFile(path), broken);
    writeFile(path, good);
    QTRY_VERIFY_WITH_TIMEOUT(answered(call(u"SetHandoff"_s, {u"zoom"_s, false})), 10000);
}

QTEST_MAIN(TestAutomationBus)
#include "tst_automationbus.moc"
