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
    void sourceRulesNeedASource();
    void storedOrderBreaksTies();
    void matchesPattern_data();
    void matchesPattern();
    void hostsWrittenAnotherWay_data();
    void hostsWrittenAnotherWay();
    void domainSpecificity_data();
    void domainSpecificity();
    void plannerPauseAndPolicies();
    void plannerCleansExpandsAndCredits();
    void plannerAsks();
};

void TestURLRouter::workedExamples_data()
{
    QTest::addColumn<QString>("hostAndPath");
    QTest::addColumn<QString>("sourceID");
    QTest::addColumn<QString>("browser");
    QTest::addColumn<QString>("profile");
    QTest::addColumn<qsizetype>("ruleIndex");

    QTest::newRow("combined R2") << u"meet.example.org/abc"_s << u"com.example.chat"_s
                                 << u"com.apple.Safari"_s << QString() << qsizetype(1);
    QTest::newRow("source-only beats URL rules")
        << u"docs.example.com/x"_s << u"com.example.chat"_s << u"com.google.Chrome"_s << QString()
        << qsizetype(0);
    QTest::newRow("URL-only R4 with profile")
        << u"docs.example.com/guide"_s << u"com.example.mail"_s << u"com.google.Chrome"_s
        << u"Profile 1"_s << qsizetype(3);
    QTest::newRow("rank 2 before rank 0")
        << u"shop.example.com/admin/users"_s << u"com.example.mail"_s << u"org.mozilla.firefox"_s
        << QString() << qsizetype(2);
    QTest::newRow("substring anywhere") << u"api.test.org/example.com/api"_s << QString()
                                        << u"com.microsoft.edgemac"_s << QString() << qsizetype(5);
    QTest::newRow("case folded") << u"EXAMPLE.COM/"_s << QString() << u"org.mozilla.firefox"_s
                                 << QString() << qsizetype(2);
    QTest::newRow("not a subdomain")
        << u"notexample.com/"_s << QString() << u"com.apple.Safari"_s << QString() << qsizetype(-1);
    QTest::newRow("suffix is not the host") << u"example.com.test.org/"_s << QString()
                                            << u"com.apple.Safari"_s << QString() << qsizetype(-1);
    QTest::newRow("bundle ids ignore case") << u"docs.example.com/"_s << u"COM.EXAMPLE.CHAT"_s
                                            << u"com.google.Chrome"_s << QString() << qsizetype(0);
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

void TestURLRouter::sourceRulesNeedASource()
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
}

void TestURLRouter::storedOrderBreaksTies()
{
    const QList<RoutingRule> urlRules{makeRule(QString(), u"*.com/*"_s, u"first"_s),
                                      makeRule(QString(), u"*e.com*"_s, u"second"_s)};
    QCOMPARE(URLRouter::route(link(u"https://e.com/"_s), std::nullopt, urlRules, QString())
                 ->browserBundleID,
             u"first"_s);

    // Among an app's combined rules the first stored wins, however specific the others are.
    const QList<RoutingRule> combined{makeRule(u"app"_s, u"*"_s, u"catch-all"_s),
                                      makeRule(u"app"_s, u"docs.example.com"_s, u"specific"_s)};
    QCOMPARE(URLRouter::route(link(u"https://docs.example.com/"_s), source(u"app"_s), combined,
                              QString())
                 ->browserBundleID,
             u"catch-all"_s);
}

void TestURLRouter::matchesPattern_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<bool>("matches");

    QTest::newRow("glob anchored at the scheme")
        << u"https://example.com/x"_s << u"example.com/*"_s << false;
    QTest::newRow("glob with leading star")
        << u"https://example.com/x"_s << u"*example.com/*"_s << true;
    QTest::newRow("glob spelling out the scheme")
        << u"https://example.com/x"_s << u"https://example.com/*"_s << true;
    QTest::newRow("star alone") << u"https://e.com/"_s << u"*"_s << true;
    QTest::newRow("only stars") << u"https://e.com/"_s << u"***"_s << true;
    QTest::newRow("star matches nothing") << u"https://ab"_s << u"https://a*b"_s << true;
    QTest::newRow("last part at the very end")
        << u"https://x.example.com"_s << u"*example.com"_s << true;
    QTest::newRow("last part not at the end")
        << u"https://x.example.com/"_s << u"*example.com"_s << false;
    QTest::newRow("last part found twice") << u"https://a.com/a.com"_s << u"*a.com"_s << true;
    QTest::newRow("glob question mark is literal") << u"https://e.com/a?b"_s << u"*/a?b"_s << true;
    QTest::newRow("glob dot is literal") << u"https://e.com/axb"_s << u"*/a.b"_s << false;
    QTest::newRow("glob needs two parts") << u"https://e.com/a"_s << u"*/a*a"_s << false;
    QTest::newRow("domain with port never matches")
        << u"https://example.com:8080/"_s << u"example.com:8080"_s << false;
    QTest::newRow("domain ignores port")
        << u"https://example.com:8080/"_s << u"example.com"_s << true;
    QTest::newRow("deep subdomain") << u"https://a.b.example.com/"_s << u"example.com"_s << true;
    QTest::newRow("domain pattern upper case")
        << u"https://docs.example.com/"_s << u"Example.COM"_s << true;
    QTest::newRow("scheme prefix is a substring test")
        << u"https://other.org/?next=https://example.com/x"_s << u"https://example.com"_s << true;
    QTest::newRow("empty pattern") << u"https://example.com/"_s << QString() << false;
    QTest::newRow("empty pattern, host ending in dot")
        << u"https://example.com./"_s << QString() << true;
    QTest::newRow("no host") << u"mailto:a@example.com"_s << u"example.com"_s << false;
    QTest::newRow("IDN host against its ASCII form")
        << u"https://bücher.de/"_s << u"xn--bcher-kva.de"_s << true;
}

void TestURLRouter::matchesPattern()
{
    QFETCH(QString, url);
    QFETCH(QString, pattern);
    QFETCH(bool, matches);
    QCOMPARE(URLRouter::matchesPattern(link(url), pattern), matches);
}

// The same host spelt two ways, one in the link and one in the rule: the rule
// holds, whichever way each is written; nothing else starts to match.
void TestURLRouter::hostsWrittenAnotherWay_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<bool>("matches");
    const QList<std::tuple<const char *, QString, QString, bool>> rows{
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
        // What must not change.
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

void TestURLRouter::hostsWrittenAnotherWay()
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

void TestURLRouter::domainSpecificity_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<int>("rank");
    QTest::newRow("com") << u"com"_s << 1;
    QTest::newRow("example.com") << u"example.com"_s << 2;
    QTest::newRow("docs.example.com") << u"docs.example.com"_s << 3;
    QTest::newRow("empty") << QString() << 1;
    QTest::newRow(".com") << u".com"_s << 2;
    QTest::newRow("star") << u"*.example.com"_s << 0;
    QTest::newRow("path") << u"example.com/api"_s << 0;
    QTest::newRow("scheme") << u"https://example.com"_s << 0;
}

void TestURLRouter::domainSpecificity()
{
    QFETCH(QString, pattern);
    QFETCH(int, rank);
    QCOMPARE(URLRouter::domainSpecificity(pattern), rank);
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

void TestURLRouter::plannerPauseAndPolicies()
{
    RouteSettings settings = plannerSettings();
    settings.rulesEnabled = false;
    const Link guide = link(u"https://docs.example.com/guide"_s);

    // Paused: decided at once, by the fallback, credited to the pause, never expanded.
    RoutePlan plan =
        RoutePlanner::prepare(link(u"https://sho.rt/x"_s), source(u"com.example.chat"_s), settings,
                              RoutePolicy::routing(true));
    QCOMPARE(plan.decision, RoutePlan::Decision::Paused);
    QCOMPARE(plan.result, (RouteResult{u"com.apple.Safari"_s, std::nullopt}));
    QCOMPARE(plan.ruleMatched, u"⏸ Rules paused"_s);
    QVERIFY(!plan.shortLink);
    RoutePlanner::decide(plan, settings, RoutePolicy::routing(true));
    QCOMPARE(plan.decision, RoutePlan::Decision::Paused);
    QVERIFY(plan.trail.isEmpty());

    settings.defaultBrowserBundleID.clear();
    plan = RoutePlanner::prepare(guide, std::nullopt, settings, RoutePolicy::explanation());
    QCOMPARE(plan.decision, RoutePlan::Decision::Paused);
    QVERIFY(!plan.result);

    // A script's action: pause does not hold it, and the profile is left out.
    plan = RoutePlanner::prepare(guide, std::nullopt, settings, RoutePolicy::automation());
    RoutePlanner::decide(plan, settings, RoutePolicy::automation());
    QCOMPARE(plan.decision, RoutePlan::Decision::UrlOnly);
    QCOMPARE(plan.result, (RouteResult{u"com.google.Chrome"_s, std::nullopt}));
    QVERIFY(plan.trail.isEmpty());

    // The same link routed for real keeps the profile and, when asked, the trail.
    settings.rulesEnabled = true;
    plan = RoutePlanner::prepare(guide, std::nullopt, settings, RoutePolicy::routing(true));
    RoutePlanner::decide(plan, settings, RoutePolicy::routing(true));
    QCOMPARE(plan.result, (RouteResult{u"com.google.Chrome"_s, u"Profile 1"_s}));
    QCOMPARE(plan.ruleID, settings.rules[3].id);
    QCOMPARE(plan.trail.size(), 8);
    plan = RoutePlanner::prepare(guide, std::nullopt, settings, RoutePolicy::routing(false));
    RoutePlanner::decide(plan, settings, RoutePolicy::routing(false));
    QVERIFY(plan.trail.isEmpty());
}

void TestURLRouter::plannerCleansExpandsAndCredits()
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

    // The rules see where the short link leads, as they are after the wait: the
    // chat's meeting rule is gone, so its rule for every link decides.
    RoutePlanner::expanded(plan, link(u"https://meet.example.org/room"_s));
    settings.rules.removeAt(1);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::SourceOnly);
    QCOMPARE(plan.ruleID, settings.rules[0].id);
    QCOMPARE(plan.ruleMatched, u"com.example.chat → com.google.Chrome"_s);
    QCOMPARE(plan.decidedBy(), JsonFields::uuidText(settings.rules[0].id));
    QCOMPARE(plan.ruleDescription, u"com.example.chat → com.google.Chrome"_s);
    // A URL rule decides; the history still credits the app's first rule.
    settings.rules.append(makeRule(u"com.example.mail"_s, u"never.example"_s, u"firefox"_s));
    plan = RoutePlanner::prepare(link(u"https://docs.example.com/"_s),
                                 source(u"com.example.mail"_s), settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::UrlOnly);
    QCOMPARE(plan.ruleMatched, u"com.example.mail → firefox"_s);
    // ... while the record names the rule that decided, as it read then.
    QCOMPARE(plan.ruleDescription, u"docs.example.com → com.google.Chrome"_s);
    settings.rules[3].urlPattern = u"renamed.example.com"_s;
    QCOMPARE(plan.ruleDescription, u"docs.example.com → com.google.Chrome"_s);

    // No source: nothing to credit, even when a rule decides.
    plan = RoutePlanner::prepare(link(u"https://example.com/"_s), std::nullopt, settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::UrlOnly);
    QVERIFY(!plan.ruleMatched);

    // Cleaning and expansion off: the link as received, and not a short link.
    settings.urlCleaningEnabled = false;
    settings.urlExpansionEnabled = false;
    plan = RoutePlanner::prepare(tracked, std::nullopt, settings, policy);
    QCOMPARE(plan.cleaned, tracked);
    QVERIFY(!plan.cleanedSomething());
    QVERIFY(!plan.shortLink);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::Fallback);
    QVERIFY(!plan.ruleID);
    QCOMPARE(plan.decidedBy(), u"fallback"_s);

    // A redirect wrapper is opened before anything else, so that cleaning and
    // the rules see the link inside it.
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

// "Ask" as the fallback: the plan asks where no rule decides, with the fallback
// browser offered first, even without one, and while paused; a script's route
// never asks.
void TestURLRouter::plannerAsks()
{
    RouteSettings settings = plannerSettings();
    settings.fallbackAsks = true;
    const RoutePolicy policy = RoutePolicy::routing(false);
    RoutePlan plan = RoutePlanner::prepare(link(u"https://other.example/"_s), std::nullopt,
                                           settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::Ask);
    QVERIFY(plan.asks());
    QCOMPARE(plan.result->browserBundleID, u"com.apple.Safari"_s);
    QCOMPARE(plan.decidedBy(), u"asked"_s);
    settings.defaultBrowserBundleID.clear();
    plan = RoutePlanner::prepare(link(u"https://other.example/"_s), std::nullopt, settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::Ask);
    // A rule decides first.
    plan = RoutePlanner::prepare(link(u"https://docs.example.com/"_s), std::nullopt, settings,
                                 policy);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::UrlOnly);
    QVERIFY(!plan.asks());
    settings.rulesEnabled = false;
    plan = RoutePlanner::prepare(link(u"https://docs.example.com/"_s), std::nullopt, settings,
                                 policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::Paused);
    QVERIFY(plan.asks());
    plan = RoutePlanner::prepare(link(u"https://other.example/"_s), std::nullopt, settings,
                                 RoutePolicy::automation());
    RoutePlanner::decide(plan, settings, RoutePolicy::automation());
    QVERIFY(!plan.asks());

    // A rule that asks, whatever the fallback is.
    RoutingRule asking = makeRule(u"com.example.mail"_s, std::nullopt, QString());
    asking.askWhereToOpen = true;
    settings.rules = {asking};
    settings.rulesEnabled = true;
    settings.fallbackAsks = false;
    plan = RoutePlanner::prepare(link(u"https://x.example/"_s), source(u"com.example.mail"_s),
                                 settings, policy);
    RoutePlanner::decide(plan, settings, policy);
    QCOMPARE(plan.decision, RoutePlan::Decision::SourceOnly);
    QVERIFY(plan.asks());
    QCOMPARE(plan.decidedBy(), JsonFields::uuidText(asking.id));
}

QTEST_GUILESS_MAIN(TestURLRouter)
#include "tst_urlrouter.moc"
