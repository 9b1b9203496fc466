#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"
#include "TestSupport.h"

#include <QLockFile>
#include <QScopeGuard>
#include <QTest>
#include <QThread>

#include <sys/inotify.h>
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

    // A writer killed between creating its lock file and filling it in leaves a lock
    // that names nobody. Writes must not wait for it to age; a live writer's lock
    // is still waited for.
    void settingsLocks()
    {
        const QString path = m_files->environment.settingsPath();
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
        QCOMPARE(reopened().loadDefaultBrowserBundleID(), u"after-the-crash"_s);

        // Held: the writer looks at the lock (once to see whether it was abandoned,
        // then again each time it tries to take it) and writes nothing until it is free.
        QLockFile held(path + u".lock"_s);
        QVERIFY(held.tryLock(0));
        const int watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        const auto closeWatch = qScopeGuard([watch] { ::close(watch); });
        QVERIFY(
            ::inotify_add_watch(watch, QFile::encodeName(path + u".lock"_s).constData(), IN_OPEN)
            >= 0);
        int opened = 0;
        startWriting(u"after-the-writer"_s);
        QVERIFY(QTest::qWaitFor(
            [&] {
                alignas(inotify_event) char events[4096];
                for (ssize_t size; (size = ::read(watch, events, sizeof events)) > 0;)
                    opened += int(size / sizeof(inotify_event));
                return opened >= 3;
            },
            10000));
        QVERIFY(!written);
        held.unlock();
        QVERIFY(finished());
        QCOMPARE(reopened().loadDefaultBrowserBundleID(), u"after-the-writer"_s);
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
