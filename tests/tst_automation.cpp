#include "App/AppState.h"
#include "Automation/RuleActions.h"
#include "Automation/SettingsActions.h"
#include "Services/BrowserDiscovery.h"
#include "Services/URLCleaner.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

RoutingRule rule(const QString &sourceID, const QString &sourceName, std::optional<QString> pattern)
{
    return RoutingRule{QUuid::createUuid(), sourceID,           sourceName,  u"chrome"_s,
                       u"Chrome"_s,         std::move(pattern), std::nullopt};
}

} // namespace

class TestAutomation final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void summaries_data();
    void summaries();
    void features();
    void notRunning();
    void queries();
    void createRule();
    void deleteRule();
    void routeURL();
    void settings();

private:
    std::unique_ptr<AppFixture> m_app;
};

void TestAutomation::init()
{
    m_app = std::make_unique<AppFixture>();
    AppState::setShared(&m_app->start());
}

void TestAutomation::cleanup()
{
    AppState::setShared(nullptr);
    m_app.reset();
}

void TestAutomation::summaries_data()
{
    QTest::addColumn<QString>("sourceID");
    QTest::addColumn<QString>("sourceName");
    QTest::addColumn<std::optional<QString>>("pattern");
    QTest::addColumn<QString>("summary");
    QTest::newRow("app and pattern")
        << u"slack"_s << u"Slack"_s << std::optional<QString>(u"example.com"_s)
        << u"Slack + example.com → Chrome"_s;
    QTest::newRow("app") << u"slack"_s << u"Slack"_s << std::optional<QString>()
                         << u"Slack → Chrome"_s;
    QTest::newRow("pattern, name ignored")
        << QString() << u"Slack"_s << std::optional<QString>(u"example.com"_s)
        << u"example.com → Chrome"_s;
    QTest::newRow("neither") << QString() << QString() << std::optional<QString>() << u"→ Chrome"_s;
    QTest::newRow("app without a name")
        << u"slack"_s << QString() << std::optional<QString>() << u" → Chrome"_s;
    QTest::newRow("empty pattern")
        << QString() << QString() << std::optional<QString>(u""_s) << u" → Chrome"_s;
    QTest::newRow("app, empty pattern")
        << u"slack"_s << u"Slack"_s << std::optional<QString>(u""_s) << u"Slack +  → Chrome"_s;
}

void TestAutomation::summaries()
{
    QFETCH(QString, sourceID);
    QFETCH(QString, sourceName);
    QFETCH(std::optional<QString>, pattern);
    QFETCH(QString, summary);
    const RoutingRule routing = rule(sourceID, sourceName, pattern);
    const auto entity = Automation::RuleEntity::from(routing);
    QCOMPARE(entity.summary, summary);
    QCOMPARE(entity.id, routing.id.toString(QUuid::WithoutBraces).toUpper());
}

void TestAutomation::features()
{
    QStringList titles;
    for (const Automation::FeatureInfo &info : Automation::features())
        titles.append(info.title.toString());
    QCOMPARE(titles, (QStringList{u"URL Cleaning"_s, u"URL Expansion"_s, u"Launch at Login"_s,
                                  u"Pause Rules"_s}));
    QCOMPARE(Automation::featureFromRawValue(u"pauseRules"), Automation::Feature::PauseRules);
    QCOMPARE(Automation::featureFromRawValue(u"URLCleaning"), std::nullopt);
    QCOMPARE(Automation::featureFromRawValue(u""), std::nullopt);
}

void TestAutomation::notRunning()
{
    AppState::setShared(nullptr);
    const QString expected = u"Quillvane is not running. Please launch the app first."_s;
    QCOMPARE(Automation::allBrowsers().error().description(), expected);
    QCOMPARE(Automation::listRules().error().description(), expected);
    QCOMPARE(Automation::createRule(u"a"_s, {}, {}, {u"x"_s, u"X"_s}).error().description(),
             expected);
    bool asked = false;
    QCOMPARE(Automation::deleteRule({u"id"_s, u"s"_s},
                                    [&asked](const QString &) { return asked = true; })
                 .error()
                 .description(),
             expected);
    QVERIFY(!asked);
}

void TestAutomation::queries()
{
    QCOMPARE(*Automation::allBrowsers(),
             (QList<Automation::BrowserEntity>{{u"firefox"_s, u"Firefox"_s},
                                               {u"safari"_s, u"Safari"_s}}));
    // Browser-list order, each once, unknown and differently cased ids dropped.
    QCOMPARE(
        *Automation::browsers({u"safari"_s, u"firefox"_s, u"safari"_s, u"Opera"_s, u"FIREFOX"_s}),
        (QList<Automation::BrowserEntity>{{u"firefox"_s, u"Firefox"_s},
                                          {u"safari"_s, u"Safari"_s}}));

    const RoutingRule first = rule(u"b"_s, u"B"_s, {});
    const RoutingRule second = rule(QString(), QString(), u"a.org"_s);
    m_app->state->addRule(first);
    m_app->state->addRule(second);
    const auto all = Automation::allRules();
    QCOMPARE(all->size(), 2);
    QCOMPARE(all->first().summary, u"B → Chrome"_s);
    const QString id = Automation::RuleEntity::from(second).id;
    QCOMPARE(Automation::rules({id})->size(), 1);
    QVERIFY(Automation::rules({id.toLower()})->isEmpty());
}

void TestAutomation::createRule()
{
    const auto refused =
        Automation::createRule(u""_s, u"Name"_s, u""_s, {u"firefox"_s, u"Firefox"_s});
    QCOMPARE(refused.error().description(),
             u"Provide a source app bundle ID, a URL pattern, or both."_s);
    QVERIFY(m_app->state->rules().isEmpty());

    // Taken as given: no trimming, no scheme removal, no browser lookup.
    const auto created = Automation::createRule(
        std::nullopt, std::nullopt, u" https://Example.com/* "_s, {u"not-installed"_s, u"Ghost"_s});
    QCOMPARE(*created, u"Created rule:  https://Example.com/*  → Ghost"_s);
    const RoutingRule stored = RuleStore(*m_app->environment.settings()).loadRules().value(0);
    QCOMPARE(stored.urlPattern, u" https://Example.com/* "_s);
    QCOMPARE(stored.targetBrowserBundleID, u"not-installed"_s);
    QCOMPARE(stored.targetProfileID, std::nullopt);
    QCOMPARE(stored.sourceAppBundleID, QString());

    QCOMPARE(
        *Automation::createRule(u"  "_s, std::nullopt, std::nullopt, {u"firefox"_s, u"Firefox"_s}),
        u"Created rule:  → Firefox"_s);
}

void TestAutomation::deleteRule()
{
    const RoutingRule target = rule(u"slack"_s, u"Slack"_s, u"example.com"_s);
    m_app->state->addRule(target);
    const auto entity = Automation::RuleEntity::from(target);

    QString question;
    const auto refused = Automation::deleteRule(entity, [&question](const QString &text) {
        question = text;
        return false;
    });
    QCOMPARE(question, u"Delete rule \"Slack + example.com → Chrome\"?"_s);
    QCOMPARE(refused.error().kind, Automation::IntentError::Kind::Refused);
    QCOMPARE(m_app->state->rules().size(), 1);

    const auto yes = [](const QString &) { return true; };
    QCOMPARE(*Automation::deleteRule(entity, yes), u"Deleted rule: Slack + example.com → Chrome"_s);
    QVERIFY(RuleStore(*m_app->environment.settings()).loadRules().isEmpty());
    QCOMPARE(*Automation::deleteRule(entity, yes),
             u"Rule not found. It may have already been deleted."_s);
    // An id in lower case is not the rule's id.
    m_app->state->addRule(target);
    QCOMPARE(*Automation::deleteRule({entity.id.toLower(), entity.summary}, yes),
             u"Rule not found. It may have already been deleted."_s);
    QCOMPARE(m_app->state->rules().size(), 1);
}

void TestAutomation::routeURL()
{
    const auto wait = [](QFuture<Automation::Answer> future) {
        if (!QTest::qWaitFor([&future] { return future.isFinished(); }, 5000))
            qFatal("the action did not finish");
        return future.result();
    };
    const Link tracked = *Link::parse(u"https://shop.example/item?utm_source=x&id=1"_s);
    m_app->state->setDefaultBrowser(u"safari"_s);
    // A browser given: the link exactly as passed, cleaning or not.
    QCOMPARE(
        *wait(Automation::routeURL(tracked, Automation::BrowserEntity{u"firefox"_s, u"Firefox"_s})),
        u"Opened in Firefox."_s);
    QCOMPARE(m_app->launcher.spawned.last(), (QStringList{u"firefox"_s, tracked.toString()}));

    // Through the rules, cleaned, even while paused; nothing counted or recorded.
    m_app->state->addRule(RoutingRule{QUuid::createUuid(), QString(), QString(), u"firefox"_s,
                                      u"Firefox"_s, u"shop.example"_s, u"Profile 1"_s});
    m_app->state->toggleRulesEnabled();
    QCOMPARE(*wait(Automation::routeURL(tracked, std::nullopt)), u"Routed to Firefox."_s);
    // The rule's profile is not used: a plain launch of the cleaned link.
    QCOMPARE(m_app->launcher.spawned.last(),
             (QStringList{u"firefox"_s, URLCleaner::clean(tracked).toString()}));
    QCOMPARE(m_app->state->todayForwardCount(), 0);
    QVERIFY(m_app->state->lastRouteLog().isEmpty());

    // No rule and no fallback: an answer, not an error; a launch failure is an error.
    m_app->state->setDefaultBrowser(QString());
    QCOMPARE(*wait(Automation::routeURL(*Link::parse(u"https://other.example/"_s), std::nullopt)),
             u"No routing rule matched and no default browser is set."_s);
    const auto failed =
        wait(Automation::routeURL(tracked, Automation::BrowserEntity{u"ghost"_s, u"Ghost"_s}));
    QCOMPARE(failed.error().description(), u"No browser found with bundle ID: ghost"_s);
}

void TestAutomation::settings()
{
    QCOMPARE(*Automation::setDefaultBrowser({u"not-installed"_s, u"Ghost"_s}),
             u"Default browser set to Ghost."_s);
    QCOMPARE(RuleStore(*m_app->environment.settings()).loadDefaultBrowserBundleID(),
             u"not-installed"_s);

    QVERIFY(m_app->state->rulesEnabled());
    QCOMPARE(*Automation::toggleFeature(Automation::Feature::PauseRules, true),
             u"Pause Rules is now enabled."_s);
    QVERIFY(!m_app->state->rulesEnabled());
    QCOMPARE(*Automation::toggleFeature(Automation::Feature::PauseRules, true),
             u"Pause Rules is now enabled."_s);
    QVERIFY(!m_app->state->rulesEnabled());
    QCOMPARE(*Automation::toggleFeature(Automation::Feature::UrlCleaning, true),
             u"URL Cleaning is now enabled."_s);
    QVERIFY(m_app->state->urlCleaningEnabled());
    QCOMPARE(*Automation::toggleFeature(Automation::Feature::UrlExpansion, true),
             u"URL Expansion is now enabled."_s);
    QVERIFY(m_app->state->urlExpansionEnabled());
    QCOMPARE(Automation::listBrowsers()->size(), 2);
}

QTEST_GUILESS_MAIN(TestAutomation)
#include "tst_automation.moc"
