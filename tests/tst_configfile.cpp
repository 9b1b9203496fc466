// The configuration file on a real disk, followed by a real inotify: edits by
// hand, by a sync tool and by git reach the running state; a broken edit loses
// nothing; writes go through symbolic links; the earlier settings move in.
#include "App/AppState.h"
#include "InstalledQuillvane.h"
#include "Services/ConfigDocument.h"
#include "Services/RoutePlanner.h"
#include "TestSupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <cstdio>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace Qt::Literals::StringLiterals;

namespace {

// Long enough for a loaded two-core machine; the file is normally seen in a
// tenth of a second.
constexpr int SeenWithinMs = 10000;

RoutingRule meetingRule(const QString &browser)
{
    RoutingRule rule = makeRule(QString(), u"meet.example.com"_s, browser);
    rule.id = QUuid::fromString(u"6C3F1A52-8D7E-4F0B-9A21-3B5E7C9D1F04"_s);
    return rule;
}

Config meetingsIn(const QString &browser)
{
    Config config;
    config.rules = {meetingRule(browser)};
    config.fallbackBrowser = u"firefox"_s;
    return config;
}

bool run(const QString &program, const QStringList &arguments, const QString &folder = {})
{
    QProcess process;
    process.setWorkingDirectory(folder);
    process.start(program, arguments);
    return process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit
           && process.exitCode() == 0;
}

bool git(const QString &folder, const QStringList &arguments)
{
    return run(u"git"_s,
               QStringList{u"-c"_s, u"user.name=Test"_s, u"-c"_s, u"user.email=test@example.org"_s}
                   + arguments,
               folder);
}

// As editors that write in place do: the same file, truncated and written.
void writeInPlace(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), bytes.size());
}

// As sync tools do: a new file beside it, renamed over it.
void writeByRename(const QString &path, const QByteArray &bytes)
{
    writeFile(path + u".sync-tmp"_s, bytes);
    QCOMPARE(std::rename(QFile::encodeName(path + u".sync-tmp"_s).constData(),
                         QFile::encodeName(path).constData()),
             0);
}

} // namespace

class TestConfigFile final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { m_app = std::make_unique<AppFixture>(); }
    void cleanup() { m_app.reset(); }

    void problemsSayWhere_data();
    void problemsSayWhere()
    {
        QFETCH(QByteArray, text);
        QFETCH(QString, where);
        const auto decoded = ConfigDocument::decode(text, u"config.json"_s);
        QVERIFY(!decoded);
        QVERIFY2(decoded.error().text().startsWith(u"config.json:"_s + where),
                 qPrintable(decoded.error().text()));
    }

    // However the file changes on disk, the running state follows within
    // moments, and so does the next link.
    void changesOnDiskArriveLive_data()
    {
        QTest::addColumn<QString>("how");
        for (const char *how : {"in place", "sync rename", "git checkout", "link retargeted"})
            QTest::newRow(how) << QString::fromLatin1(how);
    }
    void changesOnDiskArriveLive()
    {
        QFETCH(QString, how);
        const QString path = m_app->environment.configPath();
        const QString repo = m_app->environment.path() + u"/dotfiles"_s;
        const QByteArray first = ConfigDocument::encode(meetingsIn(u"firefox"_s));
        const QByteArray second = ConfigDocument::encode(meetingsIn(u"chromium"_s));
        if (how == u"git checkout" || how == u"link retargeted") {
            // A dotfiles repository, linked into place as stow does.
            writeFile(repo + u"/quillvane/config.json"_s, second);
            QVERIFY(git(repo, {u"init"_s, u"-q"_s}));
            QVERIFY(git(repo, {u"add"_s, u"."_s}) && git(repo, {u"commit"_s, u"-qm"_s, u"2"_s}));
            QVERIFY(git(repo, {u"tag"_s, u"second"_s}));
            writeFile(repo + u"/quillvane/config.json"_s, first);
            QVERIFY(git(repo, {u"commit"_s, u"-qam"_s, u"1"_s}));
            writeFile(repo + u"/other/config.json"_s, second);
            QVERIFY(QDir().mkpath(QFileInfo(path).path()));
            QVERIFY(QFile::link(repo + u"/quillvane/config.json"_s, path));
        } else {
            writeFile(path, first);
        }
        AppState &state = m_app->start();
        m_app->config->watch();
        QCOMPARE(routeOf(u"https://meet.example.com/abc"_s), u"firefox"_s);

        QSignalSpy changes(&state, &AppState::configChanged);
        if (how == u"in place")
            writeInPlace(path, second);
        else if (how == u"sync rename")
            writeByRename(path, second);
        else if (how == u"git checkout")
            QVERIFY(git(repo, {u"checkout"_s, u"-q"_s, u"second"_s}));
        else
            QVERIFY(run(u"ln"_s, {u"-sfn"_s, repo + u"/other/config.json"_s, path}));
        QTRY_COMPARE_WITH_TIMEOUT(routeOf(u"https://meet.example.com/abc"_s), u"chromium"_s,
                                  SeenWithinMs);
        QCOMPARE(changes.size(), 1);
        QVERIFY(!m_app->config->problem());
        // Quillvane's own write is not taken for someone else's when the watch
        // reports it.
        state.toggle(&Config::urlExpansionEnabled);
        QVERIFY(QFileInfo(path).isSymLink() == (how == u"git checkout" || how == u"link retargeted"));
        QVERIFY(m_app->stored().urlExpansionEnabled);
        m_app->config->reload();
        QCOMPARE(changes.size(), 2);
    }

    // A broken edit while Quillvane runs: it says where, routes as before,
    // refuses the window's change without touching the file, and takes the
    // file again once it is corrected.
    void aBrokenEditLosesNothing()
    {
        const QString path = m_app->environment.configPath();
        m_app->initial = meetingsIn(u"firefox"_s);
        AppState &state = m_app->start();
        m_app->config->watch();
        QByteArray broken = ConfigDocument::encode(meetingsIn(u"chromium"_s));
        broken.insert(broken.indexOf('\n') + 1, "    \"colour\": \"blue\",\n");
        writeInPlace(path, broken);
        QTRY_VERIFY_WITH_TIMEOUT(m_app->config->problem().has_value(), SeenWithinMs);
        QCOMPARE(m_app->config->problem()->text(),
                 path + u":2:5: unknown member \"colour\"."_s);
        QVERIFY2(m_app->notifications.last().value(1).contains(path + u":2:5"_s),
                 qPrintable(m_app->notifications.last().join(u'\n')));
        QCOMPARE(routeOf(u"https://meet.example.com/"_s), u"firefox"_s);

        QSignalSpy cleaning(&state, &AppState::configChanged);
        state.toggle(&Config::urlCleaningEnabled);
        QVERIFY(state.config().urlCleaningEnabled);
        // The window's box is told to show what is in force again.
        QCOMPARE(cleaning.size(), 1);
        QCOMPARE(m_app->notifications.last().value(0), u"Quillvane could not save a change"_s);
        QCOMPARE(readFile(path), broken);

        broken.replace("    \"colour\": \"blue\",\n", "");
        writeByRename(path, broken);
        QTRY_COMPARE_WITH_TIMEOUT(routeOf(u"https://meet.example.com/"_s), u"chromium"_s,
                                  SeenWithinMs);
        QVERIFY(!m_app->config->problem());
        state.toggle(&Config::urlCleaningEnabled);
        QVERIFY(!m_app->stored().urlCleaningEnabled);
    }

    // A sync tool writes while the window changes something: the window's
    // change is applied to the synced version, and both are kept.
    void anEditAndAWindowChangeAtOnce()
    {
        m_app->initial = meetingsIn(u"firefox"_s);
        AppState &state = m_app->start();
        m_app->config->watch();
        Config synced = meetingsIn(u"firefox"_s);
        synced.rules.append(makeRule(QString(), u"docs.example.com"_s, u"chromium"_s));
        writeByRename(m_app->environment.configPath(), ConfigDocument::encode(synced));
        // Before the watch has said anything.
        const RoutingRule added = makeRule(u"org.gnome.Evolution"_s, std::nullopt, u"chromium"_s);
        state.addRule(added);
        const QList<RoutingRule> all{synced.rules[0], synced.rules[1], added};
        QCOMPARE(state.rules(), all);
        QCOMPARE(m_app->stored().rules, all);
        // What the watch does when it reports the sync tool's rename and the
        // write after it: nothing is undone.
        m_app->config->reload();
        QCOMPARE(state.rules(), all);
    }

    // Deleted while Quillvane runs: nothing is written until the next change,
    // which writes the file again whole, the rules and the fallback with it.
    void deletedWhileRunning()
    {
        m_app->initial = meetingsIn(u"firefox"_s);
        AppState &state = m_app->start();
        QVERIFY(QFile::remove(m_app->environment.configPath()));
        m_app->config->reload();
        QCOMPARE(state.rules(), m_app->initial.rules);
        QVERIFY(!QFileInfo::exists(m_app->environment.configPath()));
        state.toggle(&Config::urlExpansionEnabled);
        QCOMPARE(m_app->stored().rules, m_app->initial.rules);
        QVERIFY(m_app->stored().fallbackBrowser == u"firefox"
                && m_app->stored().urlExpansionEnabled);
    }

    // Writes go to a link's target and leave the link, keep the file's mode,
    // and leave nothing beside it; what is not a regular file is refused.
    void writesKeepLinksAndModes()
    {
        const QString path = m_app->environment.configPath();
        const QString target = m_app->environment.path() + u"/dotfiles/config.json"_s;
        writeConfig(target, meetingsIn(u"firefox"_s));
        QVERIFY(QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner
                                                  | QFile::ReadGroup));
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QVERIFY(QFile::link(target, path));
        m_app->start().toggle(&Config::urlCleaningEnabled);
        QVERIFY(QFileInfo(path).isSymLink());
        QVERIFY(!readConfig(target).urlCleaningEnabled);
        struct stat info = {};
        QCOMPARE(::stat(QFile::encodeName(target).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, mode_t(0640));
        QCOMPARE(QDir(QFileInfo(target).path()).entryList(QDir::Files | QDir::Hidden),
                 QStringList{u"config.json"_s});

        // A disk that fills up (a file size limit here) in the middle of a
        // write: the file stays whole, and the change waits in memory.
        const QByteArray before = readFile(target);
        rlimit saved{};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
        const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limited = saved;
        limited.rlim_cur = before.size() + 100;
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limited), 0);
        const auto failed = m_app->config->update([](Config &config) {
            config.rules.append(makeRule(QString(), u"full.example"_s, u"firefox"_s));
        });
        ::setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, previousHandler);
        QVERIFY(failed && failed->startsWith(u"Could not write "_s));
        QCOMPARE(readFile(target), before);
        QCOMPARE(m_app->state->rules().size(), 2);
        m_app->state->toggle(&Config::urlCleaningEnabled);
        QCOMPARE(readConfig(target).rules.size(), 2);

        for (const QString &kind : {u"FIFO"_s, u"folder"_s}) {
            const QString odd = m_app->environment.path() + u"/odd-"_s + kind;
            if (kind == u"FIFO")
                QCOMPARE(::mkfifo(QFile::encodeName(odd).constData(), 0600), 0);
            else
                QVERIFY(QDir().mkpath(odd));
            ConfigFile file(odd);
            file.load();
            QVERIFY2(file.problem() && file.problem()->what.contains(u"not a regular file"_s),
                     qPrintable(kind));
            const auto refused = file.update([](Config &config) { config.rulesEnabled = false; });
            QVERIFY(refused && refused->contains(u"does not write over"_s));
        }
    }

    // The first start of this version: everything an earlier version's file
    // held comes across, the old file is kept aside, and it happens once.
    void migrationTakesEverything()
    {
        const QString legacy = m_app->environment.legacyPath();
        Config expected;
        RoutingRule work = makeRule(u"org.gnome.Evolution"_s, std::nullopt, u"chromium"_s,
                                    u"Profile 1"_s);
        RoutingRule bank = makeRule(QString(), u"bank.example"_s, u"firefox"_s);
        bank.openInPrivateWindow = true;
        RoutingRule asking = makeRule(QString(), u"*.example.org/share/*"_s, QString());
        asking.askWhereToOpen = true;
        expected.rules = {work, bank, asking};
        expected.rulesEnabled = false;
        expected.fallbackBrowser = u"firefox-esr"_s;
        expected.fallbackAsks = true;
        expected.urlCleaningEnabled = false;
        expected.urlExpansionEnabled = true;
        expected.urlUnwrappingEnabled = false;
        expected.preferRunningBrowser = true;
        expected.automaticUpdateChecks = false;
        expected.browserPreferences = {{u"chromium"_s, false, u"--class=\"Work\""_s},
                                       {u"org.gnome.Epiphany"_s, true, {}}};
        expected.handoffs = {u"zoom"_s, u"spotify"_s};
        {
            // As the earlier versions wrote it: data values as @ByteArray(…).
            QSettings old(legacy, QSettings::IniFormat);
            old.setValue(u"routing_rules"_s, RoutingRule::listToJson(expected.rules));
            old.setValue(u"browser_preferences"_s,
                         BrowserPreference::listToJson(expected.browserPreferences));
            old.setValue(u"handoffs_enabled"_s, QByteArray(R"(["zoom","spotify"])"));
            for (const auto &[key, value] :
                 {std::pair{"rules_enabled", false}, {"fallback_asks", true},
                  {"url_cleaning_enabled", false}, {"url_expansion_enabled", true},
                  {"url_unwrapping_enabled", false}, {"prefer_running_browser", true},
                  {"update_automatic_checks", false}})
                old.setValue(QLatin1StringView(key), value);
            old.setValue(u"default_browser_bundle_id"_s, expected.fallbackBrowser);
            old.setValue(u"update_last_check"_s, u"2026-11-20T10:00:00Z"_s);
        }
        const QByteArray oldBytes = readFile(legacy);
        QVERIFY(oldBytes.contains("@ByteArray("));

        for (int start = 0; start < 2; ++start) {
            ConfigFile file(m_app->environment.configPath(), legacy);
            file.load();
            expected.schema = ConfigDocument::installedSchema();
            QCOMPARE(file.config(), expected);
            QCOMPARE(readConfig(m_app->environment.configPath()), expected);
            QVERIFY(!QFileInfo::exists(legacy));
            QCOMPARE(readFile(legacy + u".migrated"_s), oldBytes);
        }
    }

    // The schema that the file names describes it: the example and what
    // Quillvane writes follow it, and it knows every handoff.
    void schemaDescribesTheFile()
    {
        const QString schema = QUILLVANE_SOURCE_DIR "/data/config/config.schema.json"_L1;
        const QString example = QUILLVANE_SOURCE_DIR "/data/config/config.example.json"_L1;
        QVERIFY(ConfigFile::peek(example));
        Config full = meetingsIn(u"chromium"_s);
        RoutingRule asking = makeRule(u"org.gnome.Evolution"_s, u"*.example.org/*"_s, QString(),
                                      u"Profile 2"_s);
        asking.askWhereToOpen = asking.openInPrivateWindow = true;
        full.rules.append(asking);
        full.browserPreferences = {{u"chromium"_s, true, u"--incognito"_s}};
        for (const Handoffs::Handoff &handoff : Handoffs::builtIn())
            full.handoffs.append(handoff.id);
        m_app->initial = full;
        m_app->start().toggle(&Config::rulesEnabled);
        const QString written = m_app->environment.configPath();
        // A file Quillvane makes names the schema.
        const QString fresh = m_app->environment.path() + u"/fresh.json"_s;
        ConfigFile(fresh).load();
        QVERIFY(readFile(fresh).contains("\"$schema\": \"file:///"));

        const QJsonObject described = QJsonDocument::fromJson(readFile(schema)).object();
        const QJsonArray known = described.value(u"properties"_s)
                                     .toObject()
                                     .value(u"handoffs_enabled"_s)
                                     .toObject()
                                     .value(u"items"_s)
                                     .toObject()
                                     .value(u"enum"_s)
                                     .toArray();
        QCOMPARE(known, QJsonArray::fromStringList(full.handoffs));

        const auto validate = [&schema](const QStringList &files) {
            const QString check = u"import json, sys, jsonschema\n"
                                  "schema = json.load(open(sys.argv[1]))\n"
                                  "jsonschema.Draft7Validator.check_schema(schema)\n"
                                  "for path in sys.argv[2:]:\n"
                                  "    jsonschema.validate(json.load(open(path)), schema)\n"_s;
            return InstalledQuillvane::run(u"/usr/bin/python3"_s,
                                           QStringList{u"-c"_s, check, schema} + files);
        };
        const auto valid = validate({example, written, fresh});
        QVERIFY2(valid.exitCode == 0, qPrintable(valid.err));
        // And the schema refuses what Quillvane refuses.
        writeFile(written + u".bad"_s, R"({"rules_enabled": "yes"})");
        QCOMPARE(validate({written + u".bad"_s}).exitCode, 1);
    }

private:
    // Where the running state would open the link now.
    QString routeOf(const QString &url) const
    {
        const RouteSettings settings = m_app->state->routeSettings();
        const RoutePolicy policy = RoutePolicy::automation();
        RoutePlan plan = RoutePlanner::prepare(link(url), std::nullopt, settings, policy);
        RoutePlanner::decide(plan, settings, policy);
        return plan.result ? plan.result->browserId : QString();
    }

    std::unique_ptr<AppFixture> m_app;
};

// Outside the class: moc reads a raw string as an ordinary one.
void TestConfigFile::problemsSayWhere_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QString>("where");
    const QByteArray rule = R"({"id": "6C3F1A52-8D7E-4F0B-9A21-3B5E7C9D1F04", "sourceAppBundleID": "",
        "sourceAppName": "", "targetBrowserBundleID": "a", "targetBrowserName": "A")";
    QTest::newRow("syntax") << QByteArray("{\n    \"rules_enabled\": tru\n}\n")
                            << u"2:22: illegal value"_s;
    QTest::newRow("unknown member") << QByteArray("{\n    \"colour\": \"blue\"\n}")
                                    << u"2:5: unknown member \"colour\"."_s;
    QTest::newRow("after a wide character") << QByteArray("{\"défaut\": 1}")
                                            << u"1:2: unknown member \"défaut\"."_s;
    QTest::newRow("wrong type") << QByteArray("{\n  \"url_cleaning_enabled\": \"yes\"\n}")
                                << u"2:27: \"url_cleaning_enabled\" must be true or false."_s;
    QTest::newRow("a rule's member")
        << QByteArray("{\"routing_rules\": [\n" + rule + ",\n \"openInPrivateWindow\": \"yes\"}]}")
        << u"4:25: Rule 1's \"openInPrivateWindow\" must be true or false."_s;
    QTest::newRow("a rule's unknown member")
        << QByteArray("{\"routing_rules\": [\n" + rule + ",\n \"browser\": 1}]}")
        << u"4:2: Rule 1 has an unknown member \"browser\"."_s;
    QTest::newRow("a rule lacking a member")
        << QByteArray("{\"routing_rules\": [{}, {\"id\": 1}]}")
        << u"1:20: Rule 1 has no \"id\"."_s;
    QTest::newRow("one id twice") << QByteArray("{\"routing_rules\": [\n" + rule + ", \"urlPattern\": \"x\"},\n"
                                                + rule + ", \"urlPattern\": \"y\"}]}")
                                  << u"4:8: Rule 2 has the id of rule 1."_s;
    QTest::newRow("unknown handoff")
        << QByteArray("{\"handoffs_enabled\": [\"zoom\", \"teleporter\"]}")
        << u"1:31: no handoff is called \"teleporter\""_s;
    QTest::newRow("arguments placing the link")
        << QByteArray(R"({"browser_preferences": [{"browserBundleID": "x", "extraArguments": "%u"}]})")
        << u"1:69: Browser setting 1's extra arguments:"_s;
    QTest::newRow("not an object") << QByteArray("[]") << u"1:1: the configuration must be"_s;
    QTest::newRow("the last of equal names")
        << QByteArray("{\"rules_enabled\": true,\n \"rules_enabled\": 1}")
        << u"2:19: \"rules_enabled\" must be true or false."_s;
}

QTEST_GUILESS_MAIN(TestConfigFile)
#include "tst_configfile.moc"
