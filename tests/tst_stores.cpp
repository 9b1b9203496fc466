#include "Storage/HistoryStore.h"
#include "Storage/RuleStore.h"
#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"
#include "TestSupport.h"

#include <QLocale>
#include <QLockFile>
#include <QScopeGuard>
#include <QTest>
#include <QThread>
#include <QTimeZone>

using namespace Qt::Literals::StringLiterals;

namespace {

RoutingRule someRule(const QString &target)
{
    return RoutingRule{QUuid::createUuid(), u"app"_s,    u"App"_s, target, target,
                       std::nullopt,        std::nullopt};
}

ForwardingRecord someRecord(const QString &url,
                            const QDateTime &when = QDateTime::currentDateTime())
{
    ForwardingRecord record;
    record.id = QUuid::createUuid();
    record.timestamp = when;
    record.originalURL = url;
    record.targetBrowserBundleID = u"firefox"_s;
    record.targetBrowserName = u"Firefox"_s;
    return record;
}

// What another process reading the settings file now would see.
std::unique_ptr<QSettings> reopened(const TestEnvironment &environment)
{
    return environment.settings();
}

} // namespace

class TestStores final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void firstRun();
    void rulesSurviveAndDamageReadsEmpty();
    void switchesAndFallback();
    void damagedValuesReadAsDefaults();
    void dayRollOver();
    void dayStringIgnoresLocale();
    void historyDamagedDataIsReplaced();
    void historyBytesAreThoseOfAFullEncoding();
    void historyTodayCount();
    void historyClear();
    void settingsLocks();

private:
    std::unique_ptr<TestEnvironment> m_environment;
    std::unique_ptr<QSettings> m_settings;
    QDateTime m_now;
};

void TestStores::init()
{
    m_environment = std::make_unique<TestEnvironment>();
    m_settings = m_environment->settings();
    m_now = QDateTime(QDate(2026, 3, 5), QTime(9, 14, 2));
}

void TestStores::cleanup()
{
    m_settings.reset();
    m_environment.reset();
}

void TestStores::firstRun()
{
    RuleStore store(*m_settings, [this] { return m_now; });
    QVERIFY(store.loadRules().isEmpty());
    QVERIFY(store.loadRulesEnabled());
    QCOMPARE(store.loadDefaultBrowserBundleID(), QString());
    QCOMPARE(store.loadTodayCount(), 0);
    // The first count read writes the count and the day, and they are on disk at once.
    auto disk = reopened(*m_environment);
    QCOMPARE(disk->value(u"today_date"_s).toString(), u"2026-03-05"_s);
    QCOMPARE(disk->value(u"today_forward_count"_s).toInt(), 0);
}

void TestStores::rulesSurviveAndDamageReadsEmpty()
{
    RuleStore store(*m_settings);
    const QList<RoutingRule> rules{someRule(u"a"_s), someRule(u"b"_s)};
    store.saveRules(rules);
    QCOMPARE(RuleStore(*reopened(*m_environment)).loadRules(), rules);

    // One invalid rule empties the list; the next save replaces the damaged data.
    QByteArray damaged = RoutingRule::listToJson(rules);
    damaged.replace("\"targetBrowserName\":\"b\"", "\"targetBrowserName\":7");
    m_settings->setValue(u"routing_rules"_s, damaged);
    QVERIFY(store.loadRules().isEmpty());
    const RoutingRule added = someRule(u"c"_s);
    store.saveRules({added});
    QCOMPARE(RuleStore(*reopened(*m_environment)).loadRules(), QList<RoutingRule>{added});
}

void TestStores::switchesAndFallback()
{
    RuleStore store(*m_settings);
    store.saveRulesEnabled(false);
    QVERIFY(!RuleStore(*reopened(*m_environment)).loadRulesEnabled());
    m_settings->remove(u"rules_enabled"_s);
    QVERIFY(store.loadRulesEnabled());

    store.saveDefaultBrowserBundleID(u"org.mozilla.firefox"_s);
    QCOMPARE(RuleStore(*reopened(*m_environment)).loadDefaultBrowserBundleID(),
             u"org.mozilla.firefox"_s);
    store.saveDefaultBrowserBundleID(QString());
    QVERIFY(m_settings->contains(u"default_browser_bundle_id"_s));
    QCOMPARE(store.loadDefaultBrowserBundleID(), QString());
}

void TestStores::damagedValuesReadAsDefaults()
{
    // A settings file edited by hand or damaged on disk: nothing stops the program.
    {
        QFile file(m_environment->settingsPath());
        QDir().mkpath(QFileInfo(file).path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(
            "[General]\nrules_enabled=perhaps\ntoday_forward_count=lots\nurl_cleaning_enabled=0\n"
            "url_expansion_enabled=yes\nrouting_rules=\"not "
            "json\"\nforwarding_history=@ByteArray(\\xff\\0\\x1)\n"
            "default_browser_bundle_id=a, b\n\x01\x02\xff garbage line without equals\n");
        file.write("huge=" + QByteArray(2 * 1024 * 1024, 'x') + '\n');
    }
    auto opened = m_environment->settings();
    QSettings &settings = *opened;
    RuleStore store(settings, [this] { return m_now; });
    QVERIFY(store.loadRulesEnabled());
    QVERIFY(store.loadRules().isEmpty());
    QCOMPARE(store.loadDefaultBrowserBundleID(), QString());
    QVERIFY(!SettingsKeys::read(settings, SettingsKeys::UrlCleaningEnabled));
    QVERIFY(SettingsKeys::read(settings, SettingsKeys::UrlExpansionEnabled));
    QTest::ignoreMessage(
        QtCriticalMsg,
        QRegularExpression(u"^Failed to decode history data: The data is not valid JSON"_s));
    QVERIFY(HistoryStore::loadHistory(settings).isEmpty());
    settings.setValue(u"today_date"_s, u"2026-03-05"_s);
    QCOMPARE(store.loadTodayCount(), 0);
}

void TestStores::dayRollOver()
{
    RuleStore store(*m_settings, [this] { return m_now; });
    QCOMPARE(store.incrementTodayCount(), 1);
    QCOMPARE(store.incrementTodayCount(), 2);
    QCOMPARE(store.loadTodayCount(), 2);
    m_now = m_now.addDays(1);
    QCOMPARE(store.loadTodayCount(), 0);
    QCOMPARE(store.incrementTodayCount(), 1);
    QCOMPARE(reopened(*m_environment)->value(u"today_date"_s).toString(), u"2026-03-06"_s);
}

void TestStores::dayStringIgnoresLocale()
{
    const QLocale saved;
    QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
    const QString day = RuleStore::dayString(QDateTime(QDate(2026, 3, 5), QTime(12, 0)));
    QLocale::setDefault(saved);
    QCOMPARE(day, u"2026-03-05"_s);
}

void TestStores::historyDamagedDataIsReplaced()
{
    m_settings->setValue(u"forwarding_history"_s, QByteArray("[{\"id\":\"nope\"}]"));
    QTest::ignoreMessage(QtCriticalMsg,
                         QRegularExpression(u"^Failed to decode history data: History record 1"_s));
    HistoryStore::record(*m_settings, someRecord(u"https://e.com/"_s));
    const QList<ForwardingRecord> history = HistoryStore::loadHistory(*m_settings);
    QCOMPARE(history.size(), 1);
    QCOMPARE(history.first().originalURL, u"https://e.com/"_s);
}

void TestStores::historyBytesAreThoseOfAFullEncoding()
{
    // Recording builds the stored JSON from the previous bytes; it must be exactly
    // what encoding the whole list gives, through growth and trimming alike.
    // The number of stored records, or -1 when the bytes differ from a full encoding.
    const auto check = [this]() -> qsizetype {
        const QByteArray stored =
            reopened(*m_environment)->value(u"forwarding_history"_s).toByteArray();
        const auto decoded = ForwardingRecord::listFromJson(stored);
        if (!decoded || stored != ForwardingRecord::listToJson(*decoded))
            return -1;
        return decoded->size();
    };
    HistoryStore::record(*m_settings, someRecord(u"https://first.example/\"quoted\""_s));
    HistoryStore::record(*m_settings, someRecord(u"https://second.example/ü"_s));
    QCOMPARE(check(), 2);

    QList<ForwardingRecord> almostFull;
    for (int i = 0; i < HistoryStore::MaxRecords - 1; ++i)
        almostFull.append(someRecord(u"https://e.com/%1"_s.arg(i)));
    m_settings->setValue(u"forwarding_history"_s, ForwardingRecord::listToJson(almostFull));
    HistoryStore::record(*m_settings, someRecord(u"https://fills.example/"_s));
    QCOMPARE(check(), 500);
    for (int i = 0; i < 3; ++i) {
        QTest::ignoreMessage(QtInfoMsg, "History exceeds 500 records, trimming oldest entries");
        HistoryStore::record(*m_settings, someRecord(u"https://more.example/%1"_s.arg(i)));
    }
    QCOMPARE(check(), 500);
    const QList<ForwardingRecord> history = HistoryStore::loadHistory(*reopened(*m_environment));
    QCOMPARE(history.first().originalURL, u"https://more.example/2"_s);
    QCOMPARE(history.at(3).originalURL, u"https://fills.example/"_s);
    QCOMPARE(history.last().originalURL, u"https://e.com/495"_s);
}

void TestStores::historyTodayCount()
{
    const QDate today(2026, 3, 5);
    HistoryStore::record(*m_settings,
                         someRecord(u"a"_s, QDateTime(today.addDays(-1), QTime(23, 59, 59))));
    HistoryStore::record(*m_settings, someRecord(u"b"_s, QDateTime(today, QTime(0, 0, 1))));
    HistoryStore::record(*m_settings, someRecord(u"c"_s, QDateTime(today, QTime(23, 59, 59))));
    QCOMPARE(HistoryStore::todayCount(*m_settings, today), 2);
}

void TestStores::historyClear()
{
    QTest::ignoreMessage(QtInfoMsg, "Forwarding history cleared");
    HistoryStore::clearHistory(*m_settings);
    HistoryStore::record(*m_settings, someRecord(u"a"_s));
    QTest::ignoreMessage(QtInfoMsg, "Forwarding history cleared");
    HistoryStore::clearHistory(*m_settings);
    QVERIFY(!reopened(*m_environment)->contains(u"forwarding_history"_s));
}

// A writer killed between creating its lock file and filling it in leaves a lock
// that names nobody. Writes must not wait for it to age; a live writer's lock
// is still waited for.
void TestStores::settingsLocks()
{
    const QString path = m_environment->settingsPath();
    std::atomic<bool> written = false;
    std::unique_ptr<QThread> writer;
    // (After any lock held below is released.)
    const auto join = qScopeGuard([&] {
        if (writer)
            writer->wait();
    });
    // Writes the fallback from a thread of its own, as another process would.
    const auto startWriting = [&](const QString &fallback) {
        written = false;
        writer.reset(QThread::create([&, fallback] {
            RuleStore(*UserSettings::open(path)).saveDefaultBrowserBundleID(fallback);
            written = true;
        }));
        writer->start();
    };
    const auto finished = [&] {
        // (Stuck behind an abandoned lock, QSettings would wait 30 s for it to go stale.)
        const bool done = QTest::qWaitFor([&] { return written.load(); }, 10000);
        writer->wait();
        return done;
    };

    // Empty, as a killed writer leaves it (so fresh here that the cleanup first
    // gives a writer the time to fill it in).
    writeFile(path + u".lock"_s, {});
    QTest::ignoreMessage(QtWarningMsg,
                         QRegularExpression(u"^Removing the abandoned settings lock .*"_s));
    startWriting(u"after-the-crash"_s);
    QVERIFY(finished());
    QVERIFY(!QFile::exists(path + u".lock"_s));
    QCOMPARE(RuleStore(*reopened(*m_environment)).loadDefaultBrowserBundleID(),
             u"after-the-crash"_s);

    QLockFile held(path + u".lock"_s);
    QVERIFY(held.tryLock(0));
    startWriting(u"after-the-writer"_s);
    QTest::qWait(300);
    QVERIFY(!written);
    held.unlock();
    QVERIFY(finished());
    QCOMPARE(RuleStore(*reopened(*m_environment)).loadDefaultBrowserBundleID(),
             u"after-the-writer"_s);
}

QTEST_GUILESS_MAIN(TestStores)
#include "tst_stores.moc"
