// What the automation actions do that the bus test (tst_automationbus) cannot
// see from outside: rule summaries, and how a script's routing differs from a
// link's.
#include "App/AppState.h"
#include "Automation/RuleActions.h"
#include "Automation/SettingsActions.h"
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
    void routeURL();

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

QTEST_GUILESS_MAIN(TestAutomation)
#include "tst_automation.moc"
