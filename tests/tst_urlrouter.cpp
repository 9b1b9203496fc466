#include "Models/JsonFields.h"
#include "Services/RoutePlanner.h"
#include "Services/URLRouter.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

std::optional<SourceApp> source(const QString &desktopId)
{
    if (desktopId.isEmpty())
        return std::nullopt;
    return SourceApp{desktopId, u"Some App"_s};
}

RouteSettings plannerSettings()
{
    RouteSettings settings;
    settings.rules = workedExampleRules();
    settings.fallbackBrowserId = u"com.apple.Safari"_s;
    settings.isShortLink = [](const Link &url) { return url.host() == u"sho.rt"; };
    return settings;
}

} // namespace

class TestURLRouter final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void workedExamples_data();
    void workedExamples()
    {
        QFETCH(QString, link);
        QFETCH(QString, source);
        QFETCH(QString, browser);
        QFETCH(QString, profile);
        QFETCH(QString, rule);
        const auto decision =
            URLRouter::decide(::link(QString(u"https://"_s + link)), ::source(source),
                              workedExampleRules(), u"com.apple.Safari"_s);
        QCOMPARE(decision.result->browserId, browser);
        QCOMPARE(decision.result->profileID.value_or(QString()), profile);
        QCOMPARE(decision.ruleIndex, rule.toInt());
    }

    void sourcesAndStoredOrder()
    {
        // Without a source, even a combined rule whose pattern matches is not considered.
        const auto decision =
            URLRouter::decide(link(u"https://meet.example.org/"_s), std::nullopt,
                              QList{makeRule(u"com.example.chat"_s, u"*meet*"_s, u"a"_s),
                                    makeRule(u"com.example.chat"_s, std::nullopt, u"b"_s)},
                              u"fb"_s);
        QCOMPARE(decision.kind, URLRouter::Decision::Kind::Fallback);
        QCOMPARE(decision.result, (RouteResult{u"fb"_s, std::nullopt}));
        // An inert rule (no source, no pattern) never matches.
        QCOMPARE(URLRouter::route(link(u"https://e.com/"_s), source(u"a"_s),
                                  QList{makeRule(QString(), std::nullopt, u"x"_s)}, QString()),
                 std::nullopt);
        // Equally specific URL rules, and an app's combined rules however
        // specific: the first stored wins.
        const auto first = [](const QList<RoutingRule> &ordered, const QString &url,
                              const QString &app) {
            return URLRouter::route(link(url), source(app), ordered, QString())->browserId;
        };
        QCOMPARE(first({makeRule(QString(), u"*.com/*"_s, u"first"_s),
                        makeRule(QString(), u"*e.com*"_s, u"second"_s)},
                       u"https://e.com/"_s, QString()),
                 u"first"_s);
        QCOMPARE(first({makeRule(u"app"_s, u"*"_s, u"catch-all"_s),
                        makeRule(u"app"_s, u"docs.example.com"_s, u"specific"_s)},
                       u"https://docs.example.com/"_s, u"app"_s),
                 u"catch-all"_s);
    }

    // Patterns as the user writes them, and the same host spelt two ways, one
    // in the link and one in the rule: the rule holds, whichever way each is
    // written; nothing else starts to match.
    void matchesPattern_data();
    void matchesPattern()
    {
        QFETCH(QString, url);
        QFETCH(QString, pattern);
        QFETCH(QString, matches);
        QCOMPARE(URLRouter::matchesPattern(link(url), pattern), matches == u"yes");
        // The router itself, for URL rules and for an app's rules.
        const QList<RoutingRule> rules{makeRule(QString(), pattern, u"url-rule"_s),
                                       makeRule(u"app"_s, pattern, u"app-rule"_s)};
        const auto routed = [&](const QString &app) {
            return URLRouter::route(link(url), source(app), rules, u"fallback"_s)->browserId;
        };
        QCOMPARE(routed({}), matches == u"yes" ? u"url-rule"_s : u"fallback"_s);
        QCOMPARE(routed(u"app"_s), matches == u"yes" ? u"app-rule"_s : u"fallback"_s);
    }

    // What the plan decides and whom the history credits, for each setting that
    // changes the way: pause, "Ask" as the fallback, a rule that asks, a script's
    // route, the explanation. Browser "ask:…": the user is asked, that offered
    // first; decided by "rule N": rule N's id.
    void planner_data();
    void planner()
    {
        QFETCH(QString, url);
        QFETCH(QString, source);
        QFETCH(QString, settings);
        QFETCH(QString, policy);
        QFETCH(QString, decision);
        QFETCH(QString, browser);
        QFETCH(QString, profile);
        QFETCH(QString, decidedBy);
        QFETCH(QString, credit);
        RouteSettings routeSettings = plannerSettings();
        const QStringList changes = settings.split(u',');
        routeSettings.rulesEnabled = !changes.contains(u"paused"_s);
        routeSettings.fallbackAsks = changes.contains(u"fallback asks"_s);
        routeSettings.urlCleaningEnabled = !changes.contains(u"no cleaning"_s);
        routeSettings.urlExpansionEnabled = !changes.contains(u"no expansion"_s);
        if (changes.contains(u"no fallback"_s))
            routeSettings.fallbackBrowserId.clear();
        QList<RoutingRule> rules = routeSettings.rules.rules();
        if (changes.contains(u"mail rule"_s))
            rules.append(makeRule(u"com.example.mail"_s, u"never.example"_s, u"firefox"_s));
        if (changes.contains(u"zoom rule"_s))
            rules.append(makeRule({}, u"zoom.us"_s, u"org.mozilla.firefox"_s));
        // The desktop's app for Zoom's links, its handoff switched on, and the
        // browsers that run (asked only when the switch is on).
        if (changes.contains(u"zoom app"_s))
            routeSettings.schemeHandler = [](const QString &scheme) {
                return scheme == u"zoommtg"
                           ? std::optional(SchemeHandler{u"us.zoom.Zoom"_s, u"Zoom"_s})
                           : std::nullopt;
            };
        if (changes.contains(u"zoom on"_s))
            routeSettings.handoffs = {u"zoom"_s};
        routeSettings.preferRunningBrowser = changes.contains(u"prefer running"_s);
        int scans = 0;
        routeSettings.runningBrowsers = [&] {
            ++scans;
            QStringList running;
            for (const QString &id : {u"org.mozilla.firefox"_s, u"com.apple.Safari"_s}) {
                if (changes.contains(id.section(u'.', -1) + u" runs"_s))
                    running << id;
            }
            return running;
        };
        if (changes.contains(u"rule asks"_s)) {
            RoutingRule asking = makeRule(u"com.example.mail"_s, std::nullopt, QString());
            asking.askWhereToOpen = true;
            asking.targetBrowserName = RoutingRule::AskName.toString();
            rules.append(asking);
        }
        routeSettings.rules = rules;
        const RoutePolicy chosen = policy == u"automation" ? RoutePolicy::automation()
                                   : policy == u"explanation"
                                       ? RoutePolicy::explanation()
                                       : RoutePolicy::routing(policy == u"trail");
        using D = RoutePlan::Decision;
        const QHash<QString, D> decisions{{u"Paused"_s, D::Paused},
                                          {u"UrlOnly"_s, D::UrlOnly},
                                          {u"SourceOnly"_s, D::SourceOnly},
                                          {u"Fallback"_s, D::Fallback},
                                          {u"Ask"_s, D::Ask},
                                          {u"Handoff"_s, D::Handoff},
                                          {u"RunningBrowser"_s, D::RunningBrowser}};

        RoutePlan plan = RoutePlanner::prepare(link(url), ::source(source), routeSettings, chosen);
        QCOMPARE(plan.decided(), decision == u"Paused");
        QVERIFY(!plan.shortLink);
        RoutePlanner::decide(plan, routeSettings, chosen);
        QCOMPARE(plan.decision, decisions.value(decision));
        const bool asks = browser.startsWith(u"ask:"_s);
        QCOMPARE(plan.asks(), asks);
        browser.remove(0, asks ? 4 : 0);
        QCOMPARE(plan.result.has_value(), !browser.isEmpty() || asks);
        if (plan.result) {
            QCOMPARE(plan.result->browserId, browser);
            QCOMPARE(plan.result->profileID.value_or(QString()), profile);
        }
        if (decidedBy.startsWith(u"rule "_s)) {
            const RoutingRule &rule = rules.at(decidedBy.mid(5).toInt());
            decidedBy = JsonFields::uuidText(rule.id);
            QCOMPARE(plan.ruleDescription, rule.description());
        }
        QCOMPARE(plan.decidedBy().value_or(QString()), decidedBy);
        QCOMPARE(plan.ruleMatched.value_or(QString()), credit);
        // A line per rule and the outcome (and the app or the running browser
        // chosen), only when asked for, and none when paused.
        const bool traced = policy == u"trail" || policy == u"explanation";
        if (decision == u"Handoff" || decision == u"RunningBrowser")
            QVERIFY(!traced
                    || plan.trail.last().startsWith(decision == u"Handoff"
                                                        ? u"HANDOFF: Zoom → zoommtg://zoom.us/"_s
                                                        : u"RUNNING: org.mozilla.firefox "_s));
        else
            QCOMPARE(plan.trail.size(), traced && decision != u"Paused" ? 8 : 0);
        // Whether browsers run is asked only with the switch on.
        QVERIFY(scans == 0 || routeSettings.preferRunningBrowser);
    }

    // A link leaves the browser about to load it only when a rule names another
    // browser: never for the fallback, "Ask", paused rules, or a rule for this
    // same browser (in any letter case).
    void leavesOnlyByARuleForAnotherBrowser()
    {
        RouteSettings settings;
        settings.fallbackBrowserId = u"firefox"_s;
        RoutingRule asks{QUuid::createUuid(), {}, {}, {}, {}, u"ask.example.com"_s, std::nullopt};
        asks.askWhereToOpen = true;
        settings.rules = QList<RoutingRule>{{QUuid::createUuid(), {}, {}, u"chromium"_s,
                                             u"Chromium"_s, u"meet.example.com"_s, std::nullopt},
                                            {QUuid::createUuid(), {}, {}, u"chromium"_s,
                                             u"Chromium"_s, u"work.example.com"_s, u"Work"_s},
                                            asks};
        const auto leaves = [&settings](const QString &url, const QString &browser,
                                        std::optional<QString> profile = std::nullopt) {
            const RoutePolicy policy = RoutePolicy::linkTest();
            RoutePlan plan = RoutePlanner::prepare(link(url), source(browser), settings, policy);
            RoutePlanner::decide(plan, settings, policy);
            return RoutePlanner::leavesBrowser(plan, browser, profile);
        };
        QVERIFY(leaves(u"https://meet.example.com/room"_s, u"firefox"_s));
        QVERIFY(!leaves(u"https://meet.example.com/room"_s, u"Chromium"_s));
        // Another profile of the same browser leaves; an unknown one is taken
        // to be the rule's, and so is any profile for a rule that names none.
        QVERIFY(leaves(u"https://work.example.com/"_s, u"chromium"_s, u"Default"_s));
        QVERIFY(!leaves(u"https://work.example.com/"_s, u"chromium"_s, u"Work"_s));
        QVERIFY(!leaves(u"https://work.example.com/"_s, u"chromium"_s));
        QVERIFY(!leaves(u"https://meet.example.com/"_s, u"chromium"_s, u"Default"_s));
        QVERIFY(!leaves(u"https://other.example/"_s, u"chromium"_s));
        QVERIFY(!leaves(u"https://ask.example.com/"_s, u"chromium"_s));
        settings.rulesEnabled = false;
        QVERIFY(!leaves(u"https://meet.example.com/room"_s, u"firefox"_s));
    }

    // Unwrapping before cleaning before expansion before the rules, each seeing
    // what the one before made of the link; the rules as they are once the short
    // link is expanded, and the deciding rule as it read then.
    void plannerFollowsTheLink()
    {
        RouteSettings settings = plannerSettings();
        const RoutePolicy policy = RoutePolicy::routing(false);
        const Link tracked = link(u"https://sho.rt/x?utm_source=mail&id=1"_s);
        RoutePlan plan =
            RoutePlanner::prepare(tracked, source(u"com.example.chat"_s), settings, policy);
        QCOMPARE(plan.received, tracked);
        QCOMPARE(plan.cleaned, link(u"https://sho.rt/x?id=1"_s));
        QCOMPARE(plan.working, plan.cleaned);
        QVERIFY(plan.shortLink && !plan.decided());
        // The chat's meeting rule is gone while the link expands: its rule for
        // every link decides.
        RoutePlanner::expanded(plan, link(u"https://meet.example.org/room"_s));
        QList<RoutingRule> rules = settings.rules.rules();
        rules.removeAt(1);
        settings.rules = rules;
        RoutePlanner::decide(plan, settings, policy);
        QCOMPARE(plan.decision, RoutePlan::Decision::SourceOnly);
        QCOMPARE(plan.ruleID, rules[0].id);
        const QString description = *plan.ruleDescription;
        rules[0].targetBrowserName = u"Renamed"_s;
        settings.rules = rules;
        QCOMPARE(plan.ruleDescription, description);

        settings.urlCleaningEnabled = false;
        plan = RoutePlanner::prepare(tracked, std::nullopt, settings, policy);
        QCOMPARE(plan.cleaned, tracked);
        QVERIFY(!plan.cleanedSomething());
        settings.urlCleaningEnabled = true;
        const Link wrapped = link(
            u"https://www.google.com/url?q=https%3A%2F%2Fdocs.example.com%2F%3Futm_source%3Dx"_s);
        plan = RoutePlanner::prepare(wrapped, std::nullopt, settings, policy);
        QCOMPARE(plan.unwrapped, link(u"https://docs.example.com/?utm_source=x"_s));
        QCOMPARE(plan.cleaned, link(u"https://docs.example.com/"_s));
        RoutePlanner::decide(plan, settings, policy);
        QCOMPARE(plan.decision, RoutePlan::Decision::UrlOnly);
        settings.urlUnwrappingEnabled = false;
        plan = RoutePlanner::prepare(wrapped, std::nullopt, settings, policy);
        QCOMPARE(plan.unwrapped, wrapped);
    }
};

// The tables stand outside the class: moc reads a raw string as an ordinary one.

void TestURLRouter::workedExamples_data()
{
    // The worked example's rules (R1 to R6) and fallback; -1: no rule.
    addRows({u"link"_s, u"source"_s, u"browser"_s, u"profile"_s, u"rule"_s}, uR"(
combined R2                 | meet.example.org/abc         | com.example.chat  | com.apple.Safari       |           | 1
source-only beats URL rules | docs.example.com/x           | com.example.chat  | com.google.Chrome      |           | 0
URL-only R4 with profile    | docs.example.com/guide       | com.example.mail  | com.google.Chrome      | Profile 1 | 3
rank 2 before rank 0        | shop.example.com/admin/users | com.example.mail  | org.mozilla.firefox    |           | 2
substring anywhere          | api.test.org/example.com/api |                   | com.microsoft.edgemac  |           | 5
case folded                 | EXAMPLE.COM/                 |                   | org.mozilla.firefox    |           | 2
not a subdomain             | notexample.com/              |                   | com.apple.Safari       |           | -1
suffix is not the host      | example.com.test.org/        |                   | com.apple.Safari       |           | -1
bundle ids ignore case      | docs.example.com/            | COM.EXAMPLE.CHAT  | com.google.Chrome      |           | 0
)");
}

void TestURLRouter::matchesPattern_data()
{
    addRows({u"url"_s, u"pattern"_s, u"matches"_s}, uR"(
glob anchored at the scheme       | https://example.com/x                  | example.com/*         | no
glob with leading star            | https://example.com/x                  | *example.com/*        | yes
glob spelling out the scheme      | https://example.com/x                  | https://example.com/* | yes
star alone                        | https://e.com/                         | *                     | yes
only stars                        | https://e.com/                         | ***                   | yes
star matches nothing              | https://ab                             | https://a*b           | yes
last part at the very end         | https://x.example.com                  | *example.com          | yes
last part not at the end          | https://x.example.com/                 | *example.com          | no
last part found twice             | https://a.com/a.com                    | *a.com                | yes
glob question mark is literal     | https://e.com/a?b                      | */a?b                 | yes
glob dot is literal               | https://e.com/axb                      | */a.b                 | no
glob needs two parts              | https://e.com/a                        | */a*a                 | no
domain ignores port               | https://example.com:8080/              | example.com           | yes
deep subdomain                    | https://a.b.example.com/               | example.com           | yes
domain pattern upper case         | https://docs.example.com/              | Example.COM           | yes
scheme prefix is a substring test | https://other.org/?next=https://example.com/x | https://example.com | yes
no host                           | mailto:a@example.com                   | example.com           | no
Unicode rule                      | https://bücher.de/                     | bücher.de             | yes
Unicode rule, subdomain           | https://www.xn--bcher-kva.de/x         | bücher.de             | yes
capital Unicode rule              | https://bücher.de/                     | BÜCHER.DE             | yes
ASCII rule, Unicode link          | https://BÜCHER.de/                     | xn--bcher-kva.de      | yes
percent-encoded rule              | https://bücher.de/                     | b%C3%BCcher.de        | yes
fullwidth rule                    | https://example.com/                   | ｅｘａｍｐｌｅ.com     | yes
ideographic full stop             | https://example.com/                   | example。com          | yes
final dot in the link             | https://docs.example.com./             | example.com           | yes
final dot in the rule             | https://example.com/                   | example.com.          | yes
decimal IPv4 link                 | http://2130706433/                     | 127.0.0.1             | yes
hex and short IPv4 link           | http://0x7f.1/                         | 127.0.0.1             | yes
octal IPv4 link                   | http://0177.0.0.01/                    | 127.0.0.1             | yes
short IPv4 rule                   | http://127.0.0.1/                      | 127.1                 | yes
IPv6 spelt long                   | http://[0:0:0:0:0:0:0:1]/              | ::1                   | yes
Unicode path rule                 | https://bücher.de/shop/x               | bücher.de/shop        | yes
Unicode rule with scheme          | https://bücher.de/shop                 | https://bücher.de/    | yes
Unicode wildcard rule             | https://a.bücher.de/shop               | *.bücher.de/*         | yes
final dot, path rule              | https://example.com./api               | example.com/api       | yes
another host                      | https://xn--bcher-kva.de.evil.example/ | bücher.de             | no
a longer name                     | https://notbücher.de/                  | bücher.de             | no
rule with a port                  | https://example.com:8080/              | example.com:8080      | no
other address                     | http://127.0.0.2/                      | 127.1                 | no
empty rule, final dot             | https://x./                            |                       | yes
empty rule                        | https://x/                             |                       | no
Unicode in the path only          | https://example.com/bücher.de          | bücher.de             | no
)");
}

void TestURLRouter::planner_data()
{
    const QString tracked = u"https://sho.rt/x?utm_source=mail&id=1"_s;
    addRows({u"url"_s, u"source"_s, u"settings"_s, u"policy"_s, u"decision"_s, u"browser"_s,
             u"profile"_s, u"decidedBy"_s, u"credit"_s},
            uR"(
paused                         | https://sho.rt/x          | com.example.chat | paused                                  | trail       | Paused         | com.apple.Safari     |           | paused       | ⏸ Rules paused
paused, no fallback            | https://docs.example.com/ |                  | paused,no fallback                      | explanation | Paused         |                      |           | paused       | ⏸ Rules paused
script while paused            | https://docs.example.com/ |                  | paused                                  | automation  | UrlOnly        | com.google.Chrome    |           | rule 3       |
with the trail                 | https://docs.example.com/ |                  |                                         | trail       | UrlOnly        | com.google.Chrome    | Profile 1 | rule 3       |
without the trail              | https://docs.example.com/ |                  |                                         | routing     | UrlOnly        | com.google.Chrome    | Profile 1 | rule 3       |
credit to the app's first rule | https://docs.example.com/ | com.example.mail | mail rule                               | routing     | UrlOnly        | com.google.Chrome    | Profile 1 | rule 3       | com.example.mail → firefox
source rule                    | https://x.example/        | com.example.chat |                                         | routing     | SourceOnly     | com.google.Chrome    |           | rule 0       | com.example.chat → com.google.Chrome
cleaning and expansion off     | $tracked                  |                  | no cleaning,no expansion                | routing     | Fallback       | com.apple.Safari     |           | fallback     |
fallback asks                  | https://other.example/    |                  | fallback asks                           | routing     | Ask            | ask:com.apple.Safari |           | asked        |
fallback asks, none set        | https://other.example/    |                  | fallback asks,no fallback               | routing     | Ask            | ask:                 |           | asked        |
a rule before asking           | https://docs.example.com/ |                  | fallback asks                           | routing     | UrlOnly        | com.google.Chrome    | Profile 1 | rule 3       |
asks while paused              | https://docs.example.com/ |                  | fallback asks,paused                    | routing     | Paused         | ask:com.apple.Safari |           | paused       | ⏸ Rules paused
a script is never asked        | https://other.example/    |                  | fallback asks                           | automation  | Fallback       | com.apple.Safari     |           | fallback     |
a rule that asks               | https://x.example/        | com.example.mail | rule asks                               | routing     | SourceOnly     | ask:                 |           | rule 6       | com.example.mail → Ask Every Time
to the app                     | $zoom                     |                  | zoom app,zoom on                        | trail       | Handoff        | us.zoom.Zoom         |           | handoff:zoom |
to the app before asking       | $zoom                     |                  | zoom app,zoom on,fallback asks          | routing     | Handoff        | us.zoom.Zoom         |           | handoff:zoom |
the app's handoff is off       | $zoom                     |                  | zoom app                                | routing     | Fallback       | com.apple.Safari     |           | fallback     |
no app for it                  | $zoom                     |                  | zoom on                                 | routing     | Fallback       | com.apple.Safari     |           | fallback     |
a rule's browser wins          | $zoom                     |                  | zoom app,zoom on,zoom rule              | routing     | UrlOnly        | org.mozilla.firefox  |           | rule 6       |
a script keeps to browsers     | $zoom                     |                  | zoom app,zoom on                        | automation  | Fallback       | com.apple.Safari     |           | fallback     |
a running browser              | https://other.example/    |                  | prefer running,firefox runs             | trail       | RunningBrowser | org.mozilla.firefox  |           | running      |
the fallback runs too          | https://other.example/    |                  | prefer running,firefox runs,Safari runs | routing     | Fallback       | com.apple.Safari     |           | fallback     |
running, but not preferred     | https://other.example/    |                  | firefox runs                            | routing     | Fallback       | com.apple.Safari     |           | fallback     |
running, but a rule decides    | https://docs.example.com/ |                  | prefer running,firefox runs             | routing     | UrlOnly        | com.google.Chrome    | Profile 1 | rule 3       |
)"_s.replace(u"$tracked"_s, tracked)
                .replace(u"$zoom"_s, u"https://acme.zoom.us/j/85012345678?pwd=x"_s));
}

QTEST_GUILESS_MAIN(TestURLRouter)
#include "tst_urlrouter.moc"
