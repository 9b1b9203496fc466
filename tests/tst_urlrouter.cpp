#include "Services/RoutePlanner.h"
#include "Models/JsonFields.h"
#include "Services/URLRouter.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

std::optional<SourceApp> source(const QString &bundleID)
{
    if (bundleID.isEmpty())
        return std::nullopt;
    return SourceApp{bundleID, u"Some App"_s};
}

} // namespace

class TestURLRouter final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void workedExamples_data();
    void workedExamples();
    void sourcesAndStoredOrder();
    void matchesPattern_data();
    void matchesPattern();
    void planner_data();
    void planner();
    void plannerFollowsTheLink();
};

void TestURLRouter::workedExamples_data()
{
    QTest::addColumn<QString>("hostAndPath");
    QTest::addColumn<QString>("sourceID");
    QTest::addColumn<QString>("browser");
    QTest::addColumn<QString>("profile");
    QTest::addColumn<qsizetype>("ruleIndex");
    const QList<std::tuple<const char *, QString, QString, QString, QString, qsizetype>> rows{
        {"combined R2", u"meet.example.org/abc"_s, u"com.example.chat"_s, u"com.apple.Safari"_s,
         {}, 1},
        {"source-only beats URL rules", u"docs.example.com/x"_s, u"com.example.chat"_s,
         u"com.google.Chrome"_s, {}, 0},
        {"URL-only R4 with profile", u"docs.example.com/guide"_s, u"com.example.mail"_s,
         u"com.google.Chrome"_s, u"Profile 1"_s, 3},
        {"rank 2 before rank 0", u"shop.example.com/admin/users"_s, u"com.example.mail"_s,
         u"org.mozilla.firefox"_s, {}, 2},
        {"substring anywhere", u"api.test.org/example.com/api"_s, {}, u"com.microsoft.edgemac"_s,
         {}, 5},
        {"case folded", u"EXAMPLE.COM/"_s, {}, u"org.mozilla.firefox"_s, {}, 2},
        {"not a subdomain", u"notexample.com/"_s, {}, u"com.apple.Safari"_s, {}, -1},
        {"suffix is not the host", u"example.com.test.org/"_s, {}, u"com.apple.Safari"_s, {}, -1},
        {"bundle ids ignore case", u"docs.example.com/"_s, u"COM.EXAMPLE.CHAT"_s,
         u"com.google.Chrome"_s, {}, 0},
    };
    for (const auto &[name, hostAndPath, sourceID, browser, profile, index] : rows)
        QTest::newRow(name) << hostAndPath << sourceID << browser << profile << index;
}

void TestURLRouter::workedExamples()
{
    QFETCH(QString, hostAndPath);
    QFETCH(QString, sourceID);
    QFETCH(QString, browser);
    QFETCH(QString, profile);
    QFETCH(qsizetype, ruleIndex);

    const auto decision =
        URLRouter::decide(link(QString(u"https://"_s + hostAndPath)), source(sourceID),
                          workedExampleRules(), u"com.apple.Safari"_s);
    QVERIFY(decision.result);
    QCOMPARE(decision.result->browserBundleID, browser);
    QCOMPARE(decision.result->profileID.value_or(QString()), profile);
    QCOMPARE(decision.ruleIndex, ruleIndex);
}

void TestURLRouter::sourcesAndStoredOrder()
{
    // Without a source, even a combined rule whose pattern matches is not considered.
    const QList<RoutingRule> rules{makeRule(u"com.example.chat"_s, u"*meet*"_s, u"a"_s),
                                   makeRule(u"com.example.chat"_s, std::nullopt, u"b"_s)};
    const auto decision =
        URLRouter::decide(link(u"https://meet.example.org/"_s), std::nullopt, rules, u"fb"_s);
    QCOMPARE(decision.kind, URLRouter::Decision::Kind::Fallback);
    QCOMPARE(decision.result, (RouteResult{u"fb"_s, std::nullopt}));

    // An inert rule (no source, no pattern) never matches.
    const QList<RoutingRule> inert{makeRule(QString(), std::nullopt, u"x"_s)};
    QCOMPARE(URLRouter::route(link(u"https://e.com/"_s), source(u"a"_s), inert, QString()),
             std::nullopt);

    // Equally specific URL rules, and an app's combined rules however specific:
    // the first stored wins.
    const auto first = [](const QList<RoutingRule> &ordered, const QString &url,
                          const QString &app) {
        return URLRouter::route(link(url), source(app), ordered, QString())->browserBundleID;
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

// Patterns as the user writes them, and the same host spelt two ways, one in
// the link and one in the rule: the rule holds, whichever way each is
// written; nothing else starts to match.
void TestURLRouter::matchesPattern_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<bool>("matches");
    const QList<std::tuple<const char *, QString, QString, bool>> rows{
        {"glob anchored at the scheme", u"https://example.com/x"_s, u"example.com/*"_s, false},
        {"glob with leading star", u"https://example.com/x"_s, u"*example.com/*"_s, true},
        {"glob spelling out the scheme", u"https://example.com/x"_s, u"https://example.com/*"_s,
         true},
        {"star alone", u"https://e.com/"_s, u"*"_s, true},
        {"only stars", u"https://e.com/"_s, u"***"_s, true},
        {"star matches nothing", u"https://ab"_s, u"https://a*b"_s, true},
        {"last part at the very end", u"https://x.example.com"_s, u"*example.com"_s, true},
        {"last part not at the end", u"https://x.example.com/"_s, u"*example.com"_s, false},
        {"last part found twice", u"https://a.com/a.com"_s, u"*a.com"_s, true},
        {"glob question mark is literal", u"https://e.com/a?b"_s, u"*/a?b"_s, true},
        {"glob dot is literal", u"https://e.com/axb"_s, u"*/a.b"_s, false},
        {"glob needs two parts", u"https://e.com/a"_s, u"*/a*a"_s, false},
        {"domain ignores port", u"https://example.com:8080/"_s, u"example.com"_s, true},
        {"deep subdomain", u"https://a.b.example.com/"_s, u"example.com"_s, true},
        {"domain pattern upper case", u"https://docs.example.com/"_s, u"Example.COM"_s, true},
        {"scheme prefix is a substring test", u"https://other.org/?next=https://example.com/x"_s,
         u"https://example.com"_s, true},
        {"no host", u"mailto:a@example.com"_s, u"example.com"_s, false},
        {"Unicode rule", u"https://bücher.de/"_s, u"bücher.de"_s, true},
        {"Unicode rule, subdomain", u"https://www.xn--bcher-kva.de/x"_s, u"bücher.de"_s, true},
        {"capital Unicode rule", u"https://bücher.de/"_s, u"BÜCHER.DE"_s, true},
        {"ASCII rule, Unicode link", u"https://BÜCHER.de/"_s, u"xn--bcher-kva.de"_s, true},
        {"percent-encoded rule", u"https://bücher.de/"_s, u"b%C3%BCcher.de"_s, true},
        {"fullwidth rule", u"https://example.com/"_s, u"ｅｘａｍｐｌｅ.com"_s, true},
        {"ideographic full stop", u"https://example.com/"_s, u"example。com"_s, true},
        {"final dot in the link", u"https://docs.example.com./"_s, u"example.com"_s, true},
        {"final dot in the rule", u"https://example.com/"_s, u"example.com."_s, true},
        {"decimal IPv4 link", u"http://2130706433/"_s, u"127.0.0.1"_s, true},
        {"hex and short IPv4 link", u"http://0x7f.1/"_s, u"127.0.0.1"_s, true},
        {"octal IPv4 link", u"http://0177.0.0.01/"_s, u"127.0.0.1"_s, true},
        {"short IPv4 rule", u"http://127.0.0.1/"_s, u"127.1"_s, true},
        {"IPv6 spelt long", u"http://[0:0:0:0:0:0:0:1]/"_s, u"::1"_s, true},
        {"Unicode path rule", u"https://bücher.de/shop/x"_s, u"bücher.de/shop"_s, true},
        {"Unicode rule with scheme", u"https://bücher.de/shop"_s, u"https://bücher.de/"_s, true},
        {"Unicode wildcard rule", u"https://a.bücher.de/shop"_s, u"*.bücher.de/*"_s, true},
        {"final dot, path rule", u"https://example.com./api"_s, u"example.com/api"_s, true},
        {"another host", u"https://xn--bcher-kva.de.evil.example/"_s, u"bücher.de"_s, false},
        {"a longer name", u"https://notbücher.de/"_s, u"bücher.de"_s, false},
        {"rule with a port", u"https://example.com:8080/"_s, u"example.com:8080"_s, false},
        {"other address", u"http://127.0.0.2/"_s, u"127.1"_s, false},
        {"empty rule, final dot", u"https://x./"_s, QString(), true},
        {"empty rule", u"https://x/"_s, QString(), false},
        {"Unicode in the path only", u"https://example.com/bücher.de"_s, u"bücher.de"_s, false},
    };
    for (const auto &[name, url, pattern, matches] : rows)
        QTest::newRow(name) << url << pattern << matches;
}

void TestURLRouter::matchesPattern()
{
    QFETCH(QString, url);
    QFETCH(QString, pattern);
    QFETCH(bool, matches);
    QCOMPARE(URLRouter::matchesPattern(link(url), pattern), matches);
    // The router itself, for URL rules and for an app's rules.
    const QList<RoutingRule> rules{makeRule(QString(), pattern, u"url-rule"_s),
                                   makeRule(u"app"_s, pattern, u"app-rule"_s)};
    const auto routed = [&](std::optional<SourceApp> source) {
        return URLRouter::route(link(url), source, rules, u"fallback"_s)->browserBundleID;
    };
    QCOMPARE(routed(std::nullopt), matches ? u"url-rule"_s : u"fallback"_s);
    QCOMPARE(routed(SourceApp{u"app"_s, u"App"_s}), matches ? u"app-rule"_s : u"fallback"_s);
}

namespace {

RouteSettings plannerSettings()
{
    RouteSettings settings;
    settings.rules = workedExampleRules();
    settings.defaultBrowserBundleID = u"com.apple.Safari"_s;
    settings.isShortLink = [](const Link &url) { return url.host() == u"sho.rt"; };
    return settings;
}

} // namespace

// What the plan decides and whom the history credits, for each setting that
// changes the way: pause, "Ask" as the fallback, a rule that asks, a script's
// route, the explanation.
void TestURLRouter::planner_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("sourceID");
    // paused, no fallback, fallback asks, rule asks, mail rule, no cleaning, no expansion
    QTest::addColumn<QStringList>("settings");
    QTest::addColumn<QString>("policy"); // routing, trail, explanation, automation
    QTest::addColumn<RoutePlan::Decision>("decision");
    QTest::addColumn<QString>("browser"); // "ask:" in front: the user is asked, this offered first
    QTest::addColumn<QString>("profile");
    QTest::addColumn<QString>("decidedBy"); // "rule N": rule N's id
    QTest::addColumn<QString>("credit");
    using D = RoutePlan::Decision;
    const QString chrome = u"com.google.Chrome"_s;
    const QString safari = u"com.apple.Safari"_s;
    const QString docs = u"https://docs.example.com/guide"_s;
    const QString other = u"https://other.example/"_s;
    const QString chat = u"com.example.chat"_s;
    const QString tracked = u"https://sho.rt/x?utm_source=mail&id=1"_s;
    const QStringList none;
    const QList<std::tuple<const char *, QString, QString, QStringList, QString, D, QString,
                           QString, QString, QString>>
        rows{
            // Decided at once, by the fallback, credited to the pause, never expanded.
            {"paused", u"https://sho.rt/x"_s, chat, {u"paused"_s}, u"trail"_s, D::Paused, safari,
             {}, u"paused"_s, u"⏸ Rules paused"_s},
            {"paused, no fallback", docs, {}, {u"paused"_s, u"no fallback"_s}, u"explanation"_s,
             D::Paused, {}, {}, u"paused"_s, u"⏸ Rules paused"_s},
            // A script's action: pause does not hold it, and the profile is left out.
            {"script while paused", docs, {}, {u"paused"_s}, u"automation"_s, D::UrlOnly, chrome,
             {}, u"rule 3"_s, {}},
            {"with the trail", docs, {}, none, u"trail"_s, D::UrlOnly, chrome, u"Profile 1"_s,
             u"rule 3"_s, {}},
            {"without the trail", docs, {}, none, u"routing"_s, D::UrlOnly, chrome, u"Profile 1"_s,
             u"rule 3"_s, {}},
            // A URL rule decides; the history credits the app's first rule.
            {"credit to the app's first rule", docs, u"com.example.mail"_s, {u"mail rule"_s},
             u"routing"_s, D::UrlOnly, chrome, u"Profile 1"_s, u"rule 3"_s,
             u"com.example.mail → firefox"_s},
            {"source rule", u"https://x.example/"_s, chat, none, u"routing"_s, D::SourceOnly,
             chrome, {}, u"rule 0"_s, u"com.example.chat → com.google.Chrome"_s},
            {"cleaning and expansion off", tracked, {}, {u"no cleaning"_s, u"no expansion"_s},
             u"routing"_s, D::Fallback, safari, {}, u"fallback"_s, {}},
            // "Ask" as the fallback: the fallback browser offered first, even
            // without one, and while paused; a rule decides first; a script never asks.
            {"fallback asks", other, {}, {u"fallback asks"_s}, u"routing"_s, D::Ask,
             u"ask:"_s + safari, {}, u"asked"_s, {}},
            {"fallback asks, none set", other, {}, {u"fallback asks"_s, u"no fallback"_s},
             u"routing"_s, D::Ask, u"ask:"_s, {}, u"asked"_s, {}},
            {"a rule before asking", docs, {}, {u"fallback asks"_s}, u"routing"_s, D::UrlOnly,
             chrome, u"Profile 1"_s, u"rule 3"_s, {}},
            {"asks while paused", docs, {}, {u"fallback asks"_s, u"paused"_s}, u"routing"_s,
             D::Paused, u"ask:"_s + safari, {}, u"paused"_s, u"⏸ Rules paused"_s},
            {"a script is never asked", other, {}, {u"fallback asks"_s}, u"automation"_s,
             D::Fallback, safari, {}, u"fallback"_s, {}},
            {"a rule that asks", u"https://x.example/"_s, u"com.example.mail"_s,
             {u"rule asks"_s}, u"routing"_s, D::SourceOnly, u"ask:"_s, {}, u"rule 6"_s,
             u"com.example.mail → Ask Every Time"_s},
        };
    for (const auto &[name, url, sourceID, changes, policy, decision, browser, profile, by,
                      credit] : rows)
        QTest::newRow(name) << url << sourceID << changes << policy << decision << browser
                            << profile << by << credit;
}

void TestURLRouter::planner()
{
    QFETCH(QString, url);
    QFETCH(QString, sourceID);
    QFETCH(QStringList, settings);
    QFETCH(QString, policy);
    QFETCH(RoutePlan::Decision, decision);
    QFETCH(QString, browser);
    QFETCH(QString, profile);
    QFETCH(QString, decidedBy);
    QFETCH(QString, credit);
    RouteSettings routeSettings = plannerSettings();
    routeSettings.rulesEnabled = !settings.contains(u"paused"_s);
    routeSettings.fallbackAsks = settings.contains(u"fallback asks"_s);
    routeSettings.urlCleaningEnabled = !settings.contains(u"no cleaning"_s);
    routeSettings.urlExpansionEnabled = !settings.contains(u"no expansion"_s);
    if (settings.contains(u"no fallback"_s))
        routeSettings.defaultBrowserBundleID.clear();
    if (settings.contains(u"mail rule"_s))
        routeSettings.rules.append(
            makeRule(u"com.example.mail"_s, u"never.example"_s, u"firefox"_s));
    if (settings.contains(u"rule asks"_s)) {
        RoutingRule asking = makeRule(u"com.example.mail"_s, std::nullopt, QString());
        asking.askWhereToOpen = true;
        asking.targetBrowserName = RoutingRule::AskName.toString();
        routeSettings.rules.append(asking);
    }
    const RoutePolicy chosen = policy == u"automation" ? RoutePolicy::automation()
                               : policy == u"explanation" ? RoutePolicy::explanation()
                                                          : RoutePolicy::routing(policy == u"trail");

    RoutePlan plan = RoutePlanner::prepare(link(url), source(sourceID), routeSettings, chosen);
    QCOMPARE(plan.decided(), decision == RoutePlan::Decision::Paused);
    QVERIFY(!plan.shortLink);
    RoutePlanner::decide(plan, routeSettings, chosen);
    QCOMPARE(plan.decision, decision);
    const bool asks = browser.startsWith(u"ask:"_s);
    QCOMPARE(plan.asks(), asks);
    browser.remove(0, asks ? 4 : 0);
    QCOMPARE(plan.result.has_value(), !browser.isEmpty() || asks);
    if (plan.result) {
        QCOMPARE(plan.result->browserBundleID, browser);
        QCOMPARE(plan.result->profileID.value_or(QString()), profile);
    }
    if (decidedBy.startsWith(u"rule "_s)) {
        const RoutingRule &rule = routeSettings.rules.at(decidedBy.mid(5).toInt());
        decidedBy = JsonFields::uuidText(rule.id);
        QCOMPARE(plan.ruleDescription, rule.description());
    }
    QCOMPARE(plan.decidedBy().value_or(QString()), decidedBy);
    QCOMPARE(plan.ruleMatched.value_or(QString()), credit);
    // A line per rule and the outcome, only when asked for, and none when paused.
    const bool traced = policy == u"trail" || policy == u"explanation";
    QCOMPARE(plan.trail.size(), traced && decision != RoutePlan::Decision::Paused ? 8 : 0);
}

// Unwrapping before cleaning before expansion before the rules, each seeing
// what the one before made of the link; the rules as they are once the short
// link is expanded, and the deciding rule as it read then.
void TestURLRouter::plannerFollowsTheLink()
{
    RouteSettings settings = plannerSettings();
    const RoutePolicy policy = RoutePolicy::routing(false);
    const Link tracked = link(u"https://sho.rt/x?utm_source=mail&id=1"_s);
    RoutePlan plan =
        RoutePlanner::prepare(tracked, source(u"com.example.chat"_s), settings, policy);
    QCOMPARE(plan.received, tracked);
    QCOMPARE(plan.cleaned, link(u"https://sho.rt/x?id=1"_s));
    QCOMPARE(plan.working, plan.cleaned);
    QVERIFY(plan.shortLink);
    QVERIFY(!plan.decided());
    // The chat's meeting rule is gone while the link expands: its rule for
    // every link decides.
    RoutePlanner::expanded(plan, link(u"https://meet.example.org/room"_s));
    settings.rules.removeAt(1);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::SourceOnly);
    QCOMPARE(plan.ruleID, settings.rules[0].id);
    const QString description = *plan.ruleDescription;
    settings.rules[0].targetBrowserName = u"Renamed"_s;
    QCOMPARE(plan.ruleDescription, description);

    settings.urlCleaningEnabled = false;
    plan = RoutePlanner::prepare(tracked, std::nullopt, settings, policy);
    QCOMPARE(plan.cleaned, tracked);
    QVERIFY(!plan.cleanedSomething());

    settings.urlCleaningEnabled = true;
    const Link wrapped =
        link(u"https://www.google.com/url?q=https%3A%2F%2Fdocs.example.com%2F%3Futm_source%3Dx"_s);
    plan = RoutePlanner::prepare(wrapped, std::nullopt, settings, policy);
    QCOMPARE(plan.unwrapped, link(u"https://docs.example.com/?utm_source=x"_s));
    QCOMPARE(plan.cleaned, link(u"https://docs.example.com/"_s));
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::UrlOnly);
    settings.urlUnwrappingEnabled = false;
    plan = RoutePlanner::prepare(wrapped, std::nullopt, settings, policy);
    QCOMPARE(plan.unwrapped, wrapped);
}

QTEST_GUILESS_MAIN(TestURLRouter)
#include "tst_urlrouter.moc"
