// A link's road through the application state: cleaning, expansion, the
// rules, asking, launching (real desktop entries, or a recording launcher),
// the history, the journal and what the user is told.
#include "App/AppState.h"
#include "FakeDesktop.h"
#include "Models/JsonFields.h"
#include "Storage/HistoryStore.h"
#include "Services/LaunchPacer.h"
#include "Storage/LinkJournal.h"
#include "TestSupport.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {
const SourceApp Mail{u"com.example.mail"_s, u"Mail"_s};
}

class TestPipeline final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_desktop = std::make_unique<FakeDesktop>();
        m_desktop->addBrowser(u"google-chrome"_s, u"Google Chrome"_s);
        m_desktop->addBrowser(u"firefox-esr"_s, u"Firefox ESR"_s);
        m_desktop->addBrowser(u"epiphany"_s, u"Web"_s);
        m_autostart = std::make_unique<XdgAutostart>(u"quillvane"_s);
    }

    void init()
    {
        // Settings and history of the test function's own, in the one desktop that
        // GIO reads for the whole program.
        const QString own =
            m_desktop->root() + u'/' + QLatin1StringView(QTest::currentTestFunction());
        m_configPath = own + u".json"_s;
        m_config = Config();
        m_history = std::make_unique<HistoryDatabase>(own + u".sqlite3"_s);
        m_history->claimWriter();
        m_notifications.clear();
        m_isShortLink = &URLExpander::isShortLink;
        m_expand = [](const Link &url) { return URLExpander::expand(url, testNetwork()); };
        for (const QString &program : {u"google-chrome"_s, u"firefox-esr"_s, u"epiphany"_s})
            m_desktop->forget(program);
    }

    void cleanup()
    {
        m_finished.reset();
        m_state.reset();
        m_history.reset();
    }

    // Nothing to open: paused without a fallback, no route, a rule's browser not
    // installed, a profile rule's browser uninstalled (the profile is dropped, the
    // plain launch fails). Counted, never recorded.
    void failuresAreCountedNotRecorded()
    {
        m_config.rules = 
            {makeRule(u"com.example.mail"_s, std::nullopt, u"uninstalled"_s),
             makeRule(QString(), u"work.example"_s, u"microsoft-edge"_s, u"Profile 2"_s)};
        m_config.rulesEnabled = false;
        makeState();
        m_state->setDefaultBrowser(QString());
        const QStringList expected{u"FAILED: No browser found with bundle ID: "_s,
                                   u"No route: e.com from unknown"_s,
                                   u"FAILED: No browser found with bundle ID: uninstalled"_s,
                                   u"FAILED: No browser found with bundle ID: microsoft-edge"_s};
        for (int i = 0; i < 4; ++i) {
            if (i == 1) {
                m_state->toggle(&Config::rulesEnabled);
                QTest::ignoreMessage(QtCriticalMsg, "No route found for <private> from <private>");
            }
            route(i == 3 ? u"https://work.example/"_s : u"https://e.com/x"_s,
                  i == 2 ? std::optional(Mail) : std::nullopt);
            QVERIFY(waitForRoutes(i + 1));
            QCOMPARE(m_state->lastRouteLog(), expected[i]);
        }
        QCOMPARE(m_state->history().todayForwardCount(), 4);
        QVERIFY(history().isEmpty());
    }

    void profileLaunchFailsAndFallsBack()
    {
        RecordingLauncher launcher;
        launcher.failure = u"Permission denied"_s;
        launcher.failWhenArgumentStartsWith = u"--profile-directory="_s;
        m_config.rules = 
            {makeRule(u"com.example.mail"_s, std::nullopt, u"google-chrome"_s, u"Work"_s)};
        makeState(launcher);
        route(u"https://e.com/"_s, Mail);
        QVERIFY(waitForRoutes(1));
        QCOMPARE(launcher.spawned.size(), 2);
        QCOMPARE(launcher.spawned.last().mid(1), QStringList{u"https://e.com/"_s});
        QCOMPARE(m_state->lastRouteLog(), u"Mail → Google Chrome [Work]: e.com"_s);
        QCOMPARE(history().first().ruleMatched, u"com.example.mail → google-chrome"_s);
    }

    void askingWhereToOpen()
    {
        RoutingRule asking = makeRule(u"com.example.mail"_s, std::nullopt, QString());
        asking.askWhereToOpen = true;
        asking.targetBrowserName = u"Ask Every Time"_s;
        m_config.rules = {asking, makeRule(QString(), u"chrome.example"_s, u"google-chrome"_s)};
        m_config.fallbackBrowser = u"epiphany"_s;
        makeState();
        QList<AskRequest> asked;
        std::function<void(const AskAnswer &)> answer;
        m_state->setAskWhereToOpen([&](const AskRequest &request, auto reply) {
            asked.append(request);
            answer = std::move(reply);
        });

        // The rule asks; the fallback browser is offered first.
        m_state->routeURL(link(u"https://mail.example/a"_s), Mail, u"tok"_s);
        QTRY_COMPARE(asked.size(), 1);
        QVERIFY(std::tie(asked[0].source, asked[0].offeredFirst, asked[0].activationToken)
                == std::make_tuple(Mail, u"epiphany"_s, u"tok"_s));
        QCOMPARE(m_finished->size(), 0);
        answer(AskAnswer{AskAnswer::Kind::Chosen, u"firefox-esr"_s, std::nullopt, true});
        QVERIFY(waitForRoutes(1));
        QCOMPARE(m_desktop->opened(u"firefox-esr"_s),
                 (QStringList{u"--private-window"_s, u"https://mail.example/a"_s}));
        QCOMPARE(history().first().decidedBy, JsonFields::uuidText(asking.id));

        // Not a rule's: the fallback asks; closing the window opens nothing.
        m_state->setFallbackAsks();
        route(u"https://nowhere.example/"_s);
        QTRY_COMPARE(asked.size(), 2);
        answer(AskAnswer{AskAnswer::Kind::Cancelled, {}, std::nullopt, false});
        QVERIFY(waitForRoutes(2));
        QCOMPARE(history().size(), 1);
        QCOMPARE(m_state->lastRouteLog(),
                 u"Not opened: nowhere.example (closed without a choice)"_s);
        QVERIFY(m_notifications.isEmpty());
        route(u"https://nowhere.example/b"_s);
        QTRY_COMPARE(asked.size(), 3);
        answer(AskAnswer{AskAnswer::Kind::Chosen, u"google-chrome"_s, u"Profile 2"_s, false});
        QVERIFY(waitForRoutes(3));
        QCOMPARE(m_desktop->opened(u"google-chrome"_s),
                 (QStringList{u"--profile-directory=Profile 2"_s, u"https://nowhere.example/b"_s}));
        QCOMPARE(history().first().decidedBy, u"asked"_s);
        QCOMPARE(history().first().targetProfileID, u"Profile 2"_s);
        // A URL rule still decides without asking.
        route(u"https://chrome.example/"_s);
        QVERIFY(waitForRoutes(4));
        QCOMPARE(asked.size(), 3);

        // No window can ask: the fallback browser opens the link; without one it
        // does not open, and the user hears why.
        m_state->setAskWhereToOpen({});
        m_desktop->forget(u"epiphany"_s);
        route(u"https://nowhere.example/c"_s);
        QVERIFY(waitForRoutes(5));
        QVERIFY(m_desktop->waitForRun(u"epiphany"_s));
        QCOMPARE(history().first().decidedBy, u"fallback"_s);
        m_state->setDefaultBrowser(QString());
        m_state->setFallbackAsks();
        route(u"https://nowhere.example/d"_s);
        QVERIFY(waitForRoutes(6));
        QCOMPARE(
            m_notifications.value(0).value(1),
            u"nowhere.example\nNo window could ask where to open it, and no fallback browser is "
            "set."_s);
    }

    // The local server stands in for a link shortener: the rules and the browser
    // see where it leads, the history what arrived.
    void expansionChangesTheLink()
    {
        TestHttpServer server;
        server.redirect(u"/short"_s, 301, "https://docs.example.com/article?utm_medium=x");
        m_config.rules = {makeRule(QString(), u"docs.example.com"_s, u"firefox-esr"_s)};
        m_config.fallbackBrowser = u"epiphany"_s;
        m_config.urlExpansionEnabled = true;
        makeState();
        m_isShortLink = [](const Link &url) { return url.host() == u"127.0.0.1"; };
        const QString shortLink = server.baseUrl() + u"/short?fbclid=2"_s;
        route(shortLink);
        QVERIFY(waitForRoutes(1));
        QCOMPARE(m_desktop->opened(u"firefox-esr"_s),
                 QStringList{u"https://docs.example.com/article?utm_medium=x"_s});
        QCOMPARE(history().first().originalURL, shortLink);
    }

    // The rules change while five links wait for their expansion; each reads them
    // when it routes, and the link that needed none does not wait for them.
    void manyLinksInFlightWhileRulesChange()
    {
        RecordingLauncher launcher;
        m_config.fallbackBrowser = u"epiphany"_s;
        m_config.urlExpansionEnabled = true;
        makeState(launcher);
        QList<std::shared_ptr<QPromise<Link>>> pending;
        m_isShortLink = [](const Link &url) { return url.host() == u"s.example"; };
        m_expand = [&pending](const Link &) {
            pending.append(std::make_shared<QPromise<Link>>());
            pending.last()->start();
            return pending.last()->future();
        };
        // Taken as the intake takes links whose browsers start at once: no entry
        // until a link waits (here for its expansion); its sender hears then.
        int released = 0;
        const auto takeAtOnce = [&](const QString &url) {
            LinkJournal::Ticket ticket;
            ticket.released = [&released] { ++released; };
            ticket.journal = [this, url] {
                QList<LinkJournal::Entry> one{{0, {}, {}, url, Mail, {}, {}, true}};
                m_state->history().journal(one);
                return one.first().id;
            };
            m_state->routeURL(link(url), Mail, {}, ticket);
        };
        for (int i = 0; i < 5; ++i)
            takeAtOnce(u"https://s.example/%1"_s.arg(i));
        takeAtOnce(u"https://direct.example/"_s);
        QCOMPARE(m_state->history().todayForwardCount(), 6);
        QTRY_COMPARE(pending.size(), 5);
        QVERIFY(waitForRoutes(1));
        QCOMPARE(launcher.spawned.last().last(), u"https://direct.example/"_s);
        QCOMPARE(journalEntries() * 10 + released, 56);
        m_state->addRule(makeRule(u"com.example.mail"_s, std::nullopt, u"firefox-esr"_s));
        for (int i = 4; i >= 0; --i) {
            pending[i]->addResult(link(u"https://target.example/%1"_s.arg(i)));
            pending[i]->finish();
        }
        QVERIFY(waitForRoutes(6));
        QCOMPARE(history().size(), 6);
        QCOMPARE(history().first().targetBrowserId, u"firefox-esr"_s);
        QCOMPARE(history().last().targetBrowserId, u"epiphany"_s);
        // Each counted once, in the file too, and nothing left in the journal.
        HistoryDatabase reader(m_history->path(), HistoryDatabase::Access::ReadOnly);
        QCOMPARE(HistoryStore::loadForwardCount(reader, HistoryStore::dayString(QDateTime::currentDateTime())), 6);
        QCOMPARE(journalEntries(), 0);
    }

    // A flood waits its turn: a hundred browsers start at once, the rest at the
    // pace, in the order the links came, and none is dropped.
    void floodsArePaced()
    {
        RecordingLauncher launcher;
        m_config.fallbackBrowser = u"epiphany"_s;
        makeState(launcher);
        QStringList flood;
        for (int i = 0; i < LaunchPacer::Burst + 5; ++i) {
            flood.append(u"https://flood.example/%1"_s.arg(i));
            route(flood.last());
        }
        QVERIFY(waitForRoutes(LaunchPacer::Burst));
        // While the pacer's clock stands still, no more start.
        QVERIFY(!QTest::qWaitFor([&] { return launcher.spawned.size() > LaunchPacer::Burst; }, 300));
        m_monotonicMs += 5 * 1000 / LaunchPacer::PerSecond;
        QVERIFY(waitForRoutes(LaunchPacer::Burst + 5));
        QStringList started;
        for (const QStringList &argv : std::as_const(launcher.spawned))
            started.append(argv.last());
        QCOMPARE(started, flood);
    }

    // A link that came through the intake is in the journal until its route ends,
    // however it ends; a failure nobody waits for reaches the user as a
    // notification, once for a run of the same failure. A link routed again after a
    // restart is not counted twice.
    void journalledLinksLeaveTheJournal()
    {
        RecordingLauncher launcher;
        m_config.fallbackBrowser = u"epiphany"_s;
        makeState(launcher);
        QList<LinkJournal::Entry> entries;
        for (const QString &url : {u"https://opens.example/"_s, u"https://fails.example/"_s,
                                   u"https://fails.example/again"_s, u"https://nowhere.example/"_s,
                                   u"https://pending.example/"_s})
            entries.append({0, LinkJournal::Kind::Open, QDateTime::currentDateTime(), url,
                            std::nullopt, QString(), QString(), false});
        m_state->history().journal(entries);
        const auto routeEntry = [&](int i, bool counted = false) {
            m_state->routeURL(link(entries[i].url), std::nullopt, {}, {entries[i].id, counted});
        };
        routeEntry(0);
        QVERIFY(waitForRoutes(1));
        QCOMPARE(journalEntries(), 4);
        QCOMPARE(history().first().originalURL, entries[0].url);

        launcher.failure = u"Permission denied"_s;
        routeEntry(1);
        routeEntry(2);
        QVERIFY(waitForRoutes(3));
        QCOMPARE(journalEntries(), 2);
        QCOMPARE(m_notifications.size(), 1);
        QCOMPARE(m_notifications[0].value(1),
                 u"fails.example\nFailed to open URL: Permission denied"_s);

        m_state->setDefaultBrowser(QString());
        QTest::ignoreMessage(QtCriticalMsg, "No route found for <private> from <private>");
        const qint64 counted = m_state->history().todayForwardCount();
        routeEntry(3, true);
        QCOMPARE(m_state->history().todayForwardCount(), counted);
        QVERIFY(waitForRoutes(4));
        QCOMPARE(journalEntries(), 1);
        QCOMPARE(m_notifications.value(1).value(1),
                 u"nowhere.example\nNo rule matches it and no fallback browser is set."_s);

        // The browser runs: the link is its own and leaves the journal at once, in
        // the history already, while its verdict is pending. The verdict takes the
        // record back when the browser failed after all.
        m_state->setDefaultBrowser(u"epiphany"_s);
        launcher.failure = {};
        launcher.holdVerdicts = true;
        routeEntry(4);
        QTRY_COMPARE(launcher.heldVerdicts.size(), 1);
        QCOMPARE(journalEntries(), 0);
        QCOMPARE(history().first().originalURL, u"https://pending.example/"_s);
        QCOMPARE(m_finished->size(), 4);
        launcher.heldVerdicts.first()->addResult(ProcessLauncher::Result(u"ended at once"_s));
        launcher.heldVerdicts.first()->finish();
        QVERIFY(waitForRoutes(5));
        QCOMPARE(history().first().originalURL, u"https://opens.example/"_s);
    }

    // Asked, the user may choose the app of a handoff that is off; an app that
    // cannot start leaves the web link to the fallback browser.
    void handoffs()
    {
        m_desktop->addApp(u"zoom-client"_s, u"Zoom Workplace"_s, u"x-scheme-handler/zoommtg;"_s);
        QTRY_COMPARE(GioDesktopEntries::instance().defaultHandler(u"zoommtg"_s), u"zoom-client"_s);
        m_config.fallbackBrowser = u"epiphany"_s;
        makeState();
        m_state->setAskWhereToOpen([&](const AskRequest &request, auto reply) {
            QVERIFY(request.app && request.app->app.id == u"zoom-client"_s);
            reply(
                AskAnswer{AskAnswer::Kind::Chosen, request.app->app.id, std::nullopt, false, true});
        });
        m_state->setFallbackAsks();
        route(u"https://zoom.us/j/987654321"_s);
        QVERIFY(waitForRoutes(1));
        QCOMPARE(m_desktop->opened(u"zoom-client"_s),
                 QStringList{u"zoommtg://zoom.us/join?confno=987654321"_s});
        QCOMPARE(history().first().decidedBy, u"asked"_s);

        const QString broken = m_desktop->program(u"broken-zoom"_s, "#!/nonexistent/interpreter\n");
        m_desktop->writeEntry(u"zoom-client"_s,
                              u"[Desktop Entry]\nType=Application\nName=Zoom\nExec=%1 %u\n"
                              "MimeType=x-scheme-handler/zoommtg;\n"_s.arg(broken));
        QTRY_VERIFY(GioDesktopEntries::instance().entry(u"zoom-client"_s)->exec.contains(broken));
        m_state->setDefaultBrowser(u"epiphany"_s);
        m_state->setHandoffEnabled(u"zoom"_s, true);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"^Failed to open URL in "_s));
        route(u"https://zoom.us/j/555555555"_s);
        QVERIFY(waitForRoutes(2));
        QCOMPARE(m_desktop->opened(u"epiphany"_s), QStringList{u"https://zoom.us/j/555555555"_s});
        QCOMPARE(history().first().decidedBy, u"fallback"_s);
    }

private:
    void makeState(ProcessLauncher &launcher = GioProcessLauncher::instance());
    void route(const QString &url, std::optional<SourceApp> source = std::nullopt)
    {
        m_state->routeURL(link(url), std::move(source));
    }

    // The pacer's clock, which stands still unless a test moves it.
    qint64 m_monotonicMs = 0;

    bool waitForRoutes(int count)
    {
        return QTest::qWaitFor([&] { return m_finished->size() >= count; }, 10000)
               && m_finished->size() == count;
    }

    // What the history database holds, as another process would read it.
    QList<ForwardingRecord> history() const
    {
        HistoryDatabase reader(m_history->path(), HistoryDatabase::Access::ReadOnly);
        return HistoryStore::loadHistory(reader);
    }

    qint64 journalEntries() const { return ::journalEntries(m_history->path()); }

    std::unique_ptr<FakeDesktop> m_desktop;
    std::unique_ptr<XdgAutostart> m_autostart;
    // What the state starts with, written to its file by makeState().
    Config m_config;
    QString m_configPath;
    std::unique_ptr<ConfigFile> m_file;
    std::unique_ptr<HistoryDatabase> m_history;
    QList<QStringList> m_notifications;
    std::unique_ptr<AppState> m_state;
    std::unique_ptr<QSignalSpy> m_finished;
    std::function<bool(const Link &)> m_isShortLink;
    std::function<QFuture<Link>(const Link &)> m_expand;
};

void TestPipeline::makeState(ProcessLauncher &launcher)
{
    AppServices services{GioDesktopEntries::instance(), launcher, *m_autostart};
    services.isShortLink = [this](const Link &url) { return m_isShortLink(url); };
    services.expand = [this](const Link &url) { return m_expand(url); };
    services.notify = [this](const QString &summary, const QString &body) {
        m_notifications.append({summary, body});
    };
    services.monotonicMs = [this] { return m_monotonicMs; };
    m_state.reset();
    writeConfig(m_configPath, m_config);
    m_file = std::make_unique<ConfigFile>(m_configPath);
    m_file->load();
    m_state = std::make_unique<AppState>(*m_file, *m_history, services);
    m_finished = std::make_unique<QSignalSpy>(m_state.get(), &AppState::routeFinished);
}

QTEST_GUILESS_MAIN(TestPipeline)
#include "tst_pipeline.moc"
