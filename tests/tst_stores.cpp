#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"
#include "TestSupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QTest>
#include <QThread>

#include <atomic>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

class TestStores final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_files = std::make_unique<SettingsFixture>(); }

    void cleanup() { m_files.reset(); }

    void rulesSurviveAndDamageIsLeftOut()
    {
        RuleStore store(*m_files->settings);
        const QList<RoutingRule> rules{makeRule(u"app"_s, std::nullopt, u"a"_s),
                                       makeRule(u"app"_s, std::nullopt, u"b"_s),
                                       makeRule(u"app"_s, std::nullopt, u"c"_s)};
        store.saveRules(rules);
        QCOMPARE(reopened().loadRules(), rules);
        QVERIFY(!store.lastLoadDamage());
        // One invalid rule is left out, not the list, and the store says so.
        m_files->settings->setValue(u"routing_rules"_s,
                                    RoutingRule::listToJson(rules).replace(
                                        "\"targetBrowserName\":\"b\"", "\"targetBrowserName\":7"));
        QCOMPARE(store.loadRules(), (QList<RoutingRule>{rules[0], rules[2]}));
        QCOMPARE(store.lastLoadDamage()->skipped, 1);
        m_files->settings->setValue(u"routing_rules"_s, QByteArray("not json"));
        QVERIFY(store.loadRules().isEmpty());
        QCOMPARE(store.lastLoadDamage()->skipped, -1);
    }

    // A settings file edited by hand or damaged on disk: nothing stops the program.
    void damagedValuesReadAsDefaults()
    {
        writeFile(
            m_files->environment.settingsPath(),
            "[General]\nrules_enabled=perhaps\ntoday_forward_count=lots\nurl_cleaning_enabled=0\n"
            "url_expansion_enabled=yes\nrouting_rules=\"not json\"\n"
            "forwarding_history=@ByteArray(\\xff\\0\\x1)\ndefault_browser_bundle_id=a, b\n"
            "\x01\x02\xff garbage line without equals\nhuge="
                + QByteArray(2 * 1024 * 1024, 'x') + '\n');
        auto settings = m_files->environment.settings();
        RuleStore store(*settings);
        QVERIFY(store.loadRulesEnabled());
        QVERIFY(store.loadRules().isEmpty());
        QCOMPARE(store.loadDefaultBrowserBundleID(), QString());
        QVERIFY(!SettingsKeys::read(*settings, SettingsKeys::UrlCleaningEnabled));
        QVERIFY(SettingsKeys::read(*settings, SettingsKeys::UrlExpansionEnabled));
        QCOMPARE(SettingsKeys::read(*settings, SettingsKeys::TodayForwardCount), 0);
    }

    // Whatever stands in the settings lock's place, a write goes through, and
    // soon: an empty lock a killed writer left (QSettings would wait 30 s for it
    // to age), or a FIFO, a folder or a link to /dev/zero (QSettings would wait
    // on them for ever, signals and all).
    void settingsLocks_data()
    {
        addRows({u"lock"_s, u"said"_s}, uR"(
left empty by a killed writer | empty  | ^Removing the abandoned settings lock
a FIFO                        | fifo   | ^The settings lock .* was not a regular file; it was moved aside
a folder                      | folder | ^The settings lock .* was not a regular file
a link to /dev/zero           | zero   | ^The settings lock .* was not a regular file
)");
    }
    void settingsLocks()
    {
        QFETCH(QString, lock);
        QFETCH(QString, said);
        const QString path = m_files->environment.settingsPath();
        const QByteArray lockPath = QFile::encodeName(path + u".lock"_s);
        writeFile(path, {});
        if (lock == u"empty")
            writeFile(path + u".lock"_s, {});
        else if (lock == u"fifo")
            QCOMPARE(::mkfifo(lockPath.constData(), 0600), 0);
        else if (lock == u"folder")
            QVERIFY(QDir().mkpath(path + u".lock/inside"_s));
        else
            QCOMPARE(::symlink("/dev/zero", lockPath.constData()), 0);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(said));
        // From a thread of its own, as another process would, so that a write
        // that hangs fails the test instead of stopping it.
        std::atomic<bool> written = false;
        std::unique_ptr<QThread> writer(QThread::create([&] {
            RuleStore(*UserSettings::open(path)).saveDefaultBrowserBundleID(u"written"_s);
            written = true;
        }));
        writer->start();
        const bool done = QTest::qWaitFor([&] { return written.load(); }, 10000);
        if (!done) {
            // Frees a writer stuck on the FIFO, so that the test can end.
            ::close(::open(lockPath.constData(), O_WRONLY | O_NONBLOCK));
            writer->terminate();
        }
        writer->wait();
        QVERIFY2(done, "the write waited on the lock");
        QCOMPARE(reopened().loadDefaultBrowserBundleID(), u"written"_s);
    }

private:
    // What another process reading the settings file now would see.
    RuleStore reopened()
    {
        m_reopened = m_files->environment.settings();
        return RuleStore(*m_reopened);
    }

    std::unique_ptr<SettingsFixture> m_files;
    std::unique_ptr<QSettings> m_reopened;
};

QTEST_GUILESS_MAIN(TestStores)
#include "tst_stores.moc"
