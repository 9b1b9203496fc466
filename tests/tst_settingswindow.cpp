// The tray menu and the settings window, driven offscreen by object name:
// what they show, and what a click stores.
#include "App/AppState.h"
#include "Storage/HistoryStore.h"
#include "TestSupport.h"
#include "Views/AppsPane.h"
#include "Views/BrowsersPane.h"
#include "Views/ConfigPane.h"
#include "Views/GeneralPane.h"
#include "Views/HistoryPane.h"
#include "Views/MessageBox.h"
#include "Views/SettingsWindow.h"
#include "Views/StatusItem.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QStackedWidget>
#include <QPushButton>
#include <QTest>
#include <QToolButton>

using namespace Qt::Literals::StringLiterals;

namespace {

QStringList texts(const QMenu &menu)
{
    QStringList result;
    for (const QAction *action : menu.actions())
        result.append(action->isSeparator() ? u"--"_s : action->text());
    return result;
}

QAction *action(const QMenu &menu, const char *name)
{
    for (QAction *candidate : menu.actions()) {
        if (candidate->objectName() == QLatin1StringView(name))
            return candidate;
    }
    qFatal("the menu has no %s", name);
}

// Triggers the item, then runs what the menu deferred until it has closed.
void trigger(QAction *chosen)
{
    chosen->trigger();
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
}

} // namespace

class TestSettingsWindow final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_app = std::make_unique<AppFixture>();
        m_app->initial.rules = {makeRule(u"org.example.Mail"_s, std::nullopt, u"safari"_s),
                                 makeRule(u"org.example.Chat"_s, std::nullopt, u"firefox"_s)};
        m_app->initial.fallbackBrowser = u"firefox"_s;
        m_app->start();
        MessageBox::setInformQuietly(true);
    }

    void cleanup() { m_app.reset(); }
    // What the menu computes each time it opens (counts, check marks, the
    // fallback's name), and what its items store.
    void statusMenu()
    {
        record(u"https://a.example/"_s, u"Mail"_s, u"Safari"_s);
        record(u"https://b.example/"_s, std::nullopt, u"Firefox"_s, std::nullopt, 3 * 86400);
        StatusItem item(*m_app->state, m_app->entries, {});
        QMenu &menu = item.menu();
        const auto fallbacks = [&menu] { return action(menu, "fallbackAction")->menu(); };
        const auto shown = [&] {
            Q_EMIT menu.aboutToShow();
            QStringList parts{action(menu, "fallbackAction")->text()};
            for (const QAction *entry : fallbacks()->actions())
                parts << (entry->isChecked() ? u"✓ "_s + entry->text() : QString());
            return parts.join(u'|');
        };
        Q_EMIT menu.aboutToShow();
        // No "Last:" before the first routing.
        QCOMPARE(texts(menu).mid(2, 3),
                 (QStringList{u"Rules: 2 app, 0 URL"_s, u"Today: 1 forwarded"_s, u"--"_s}));
        trigger(fallbacks()->actions()[1]);
        QCOMPARE(m_app->stored().fallbackBrowser, u"safari"_s);
        // "Ask Every Time": checked alone; a browser ends it.
        trigger(fallbacks()->findChild<QAction *>(u"fallbackAskAction"_s));
        QVERIFY(m_app->stored().fallbackAsks);
        QCOMPARE(shown(), u"Fallback: Ask Every Time||||✓ Ask Every Time"_s);
        trigger(fallbacks()->actions()[0]);
        QVERIFY(!m_app->stored().fallbackAsks);
        QCOMPARE(m_app->stored().fallbackBrowser, u"firefox"_s);
        trigger(action(menu, "pauseRulesAction"));
        QCOMPARE(QString::number(m_app->stored().rulesEnabled) + item.iconState(),
                 u"0paused"_s);

        // A browser's name is the desktop entry's: an "&" is not a mnemonic, and
        // control characters (a terminal title sequence here) are shown, not obeyed.
        writeFile(m_app->entries.add(u"tom"_s, u"Tom & Jerry\x1b]0;pwned\x07"_s).path, {});
        m_app->state->browsers().refresh();
        m_app->state->setDefaultBrowser(u"tom"_s);
        QVERIFY(shown().startsWith(u"Fallback: Tom && Jerry\\x1B]0;pwned\\x07|"_s));
    }

    void historyPane()
    {
        HistoryPane pane(*m_app->state);
        pane.resize(520, 600);
        const auto shown = [&pane] {
            // Loaded when the tab comes on screen.
            pane.hide();
            pane.show();
            return pane.findChild<QStackedWidget *>()->currentWidget()->objectName();
        };
        record(u"https://one.example/"_s, u"Mail"_s, u"Safari"_s, u"Mail → Safari"_s);
        record(u"https://two.example/"_s, std::nullopt, u"Firefox"_s);
        record(u"https://three.example/a b"_s, u"Chat"_s, u"Safari"_s);
        QCOMPARE(shown(), u"historyListPage"_s);
        auto *count = child<QLabel>(&pane, u"historyCount"_s);
        auto *filter = child<QLineEdit>(&pane, u"historyFilter"_s);
        QCOMPARE(count->text(), u"3 records"_s);
        // Searched: names, case ignored, untrimmed.
        for (const auto &[typed, found] :
             {std::pair{u"SAFARI"_s, u"2 records"_s}, {u"a "_s, u"1 record"_s}}) {
            filter->clear();
            QTest::keyClicks(filter, typed);
            QCOMPARE(count->text(), found);
        }

        // Clear: at once, without asking; the filter stays.
        QTest::mouseClick(child<QToolButton>(&pane, u"historyClear"_s), Qt::LeftButton);
        QCOMPARE(pane.findChild<QStackedWidget *>()->currentWidget()->objectName(),
                 u"historyEmptyState"_s);
        QVERIFY(HistoryStore::loadHistory(*m_app->history).isEmpty());
        QCOMPARE(filter->text(), u"a "_s);
    }

    // Each control stores its setting; one changed elsewhere is shown here.
    void generalPane()
    {
        GeneralPane pane(*m_app->state, m_app->entries, [] {});
        pane.resize(520, 1600); // every section on screen, without scrolling
        pane.show();
        QVERIFY(child<QWidget>(&pane, u"setAsDefaultButton"_s)->isVisible());
        auto *picker = child<QComboBox>(&pane, u"fallbackPicker"_s);
        const auto box = [&pane](const char *name) {
            return child<QCheckBox>(&pane, QString::fromLatin1(name));
        };
        picker->setFocus();
        QTest::keyClick(picker, Qt::Key_Down);
        QCOMPARE(m_app->stored().fallbackBrowser, u"safari"_s);
        QTest::keyClick(picker, Qt::Key_Home);
        QCOMPARE(m_app->stored().fallbackBrowser, QString());
        // Ask: the fallback browser stays.
        m_app->state->setDefaultBrowser(u"firefox"_s);
        QTest::keyClick(picker, Qt::Key_End);
        QVERIFY(m_app->stored().fallbackAsks);
        QCOMPARE(m_app->stored().fallbackBrowser, u"firefox"_s);

        for (const char *name : {"rulesEnabledSwitch", "urlCleaningSwitch", "urlUnwrappingSwitch",
                                 "launchAtLoginSwitch", "preferRunningSwitch",
                                 "linksLeaveBrowsersSwitch"})
            clickBox(box(name));
        QVERIFY(!m_app->stored().rulesEnabled && m_app->autostart.enabled
                && m_app->stored().preferRunningBrowser && !m_app->stored().linksLeaveBrowsers
                && !m_app->stored().urlCleaningEnabled
                && !m_app->stored().urlUnwrappingEnabled);
        // The tests' build has no update feed: its switch is shown, disabled.
        QVERIFY(box("automaticUpdatesSwitch")->isChecked()
                && !box("automaticUpdatesSwitch")->isEnabled());
        m_app->state->toggle(&Config::automaticUpdateChecks);
        QVERIFY(!box("automaticUpdatesSwitch")->isChecked());
    }

    void browsersPane()
    {
        BrowsersPane pane(*m_app->state, m_app->entries);
        pane.show();
        auto *list = child<QListWidget>(&pane, u"browsersList"_s);
        QCOMPARE(list->count(), 2);
        pane.selectBrowser(u"firefox"_s);

        // Hidden: out of the lists that offer browsers, still in this one.
        auto *shown = child<QCheckBox>(&pane, u"browserShownCheck"_s);
        QVERIFY(shown->isChecked());
        clickBox(shown);
        QVERIFY(m_app->state->browserPreference(u"firefox"_s).hidden);
        QCOMPARE(list->count(), 2);

        // Arguments that would place the link are refused with the reason, and
        // what was stored stays.
        auto *arguments = child<QLineEdit>(&pane, u"browserArgumentsField"_s);
        auto *error = child<QLabel>(&pane, u"browserArgumentsError"_s);
        const auto type = [arguments](const QString &text) {
            arguments->setText(text);
            Q_EMIT arguments->editingFinished();
        };
        const QString typed = u"--new-window \"--class=Work Mail\""_s;
        type(typed);
        QVERIFY(error->isHidden());
        QCOMPARE(m_app->state->launchOptions(u"firefox"_s).extraArguments,
                 (QStringList{u"--new-window"_s, u"--class=Work Mail"_s}));
        type(u"--app=%u"_s);
        QVERIFY(!error->isHidden() && error->text().contains(u"%u"_s));
        // Kept in the settings file, beside the rules.
        QCOMPARE(m_app->stored().browserPreferences,
                 (QList<BrowserPreference>{{u"firefox"_s, true, typed}}));
        clickBox(shown);
        type({});
        // Nothing set is nothing stored.
        QVERIFY(m_app->stored().browserPreferences.isEmpty());
    }

    // A handoff's switch stores; a change made elsewhere shows; an app installed
    // meanwhile shows when the tab does. Quillvane is no app to hand links to.
    void appsPane()
    {
        m_app->entries.add(u"us.zoom.Zoom"_s, u"Zoom Workplace"_s, false);
        m_app->entries.add(u"work.vorpa.Quillvane"_s, u"Quillvane"_s, false);
        m_app->entries.schemeHandlers = {{u"zoommtg"_s, u"us.zoom.Zoom"_s},
                                         {u"spotify"_s, u"work.vorpa.Quillvane"_s}};
        AppsPane pane(*m_app->state, m_app->entries);
        pane.show();
        auto *zoom = child<QCheckBox>(&pane, u"handoffSwitch_zoom"_s);
        clickBox(zoom);
        QCOMPARE(m_app->state->config().handoffs, QStringList{u"zoom"_s});
        m_app->state->setHandoffEnabled(u"zoom"_s, false);
        QVERIFY(!zoom->isChecked());
        const auto app = [&pane] { return child<QLabel>(&pane, u"handoffApp_spotify"_s)->text(); };
        QVERIFY(!app().contains(u"Quillvane"_s));
        m_app->entries.add(u"spotify"_s, u"Spotify"_s, false);
        m_app->entries.schemeHandlers.insert(u"spotify"_s, u"spotify"_s);
        pane.hide();
        pane.show();
        QCOMPARE(app(), u"Opens in Spotify"_s);
    }

    void importAndExport();

private:
    void record(const QString &url, std::optional<QString> source, const QString &browser,
                std::optional<QString> rule = std::nullopt, qint64 secondsAgo = 0)
    {
        HistoryStore::record(*m_app->history, makeRecord(url, source, browser, rule, secondsAgo));
    }

    std::unique_ptr<AppFixture> m_app;
};

void TestSettingsWindow::importAndExport()
{
    ConfigPane pane(*m_app->state);
    const QString folder = m_app->environment.path();
    // What the user is told: the title, then the text. The file is read on
    // another thread; the button is back when it has been.
    const auto *importButton = child<QPushButton>(&pane, u"importButton"_s);
    const auto importing = [&](const QByteArray &contents) -> QString {
        writeFile(folder + u"/import.json"_s, contents);
        pane.chooseImportFile = [folder]() -> QString { return folder + u"/import.json"_s; };
        pane.importConfig();
        if (!QTest::qWaitFor([&] { return importButton->isEnabled(); }, 20000))
            return u"still reading"_s;
        return MessageBox::lastInformTitle() + u": "_s + MessageBox::lastText();
    };
    QVERIFY(importing("{ this is not json").startsWith(u"Import Failed: "_s));

    // A document that would send links to Quillvane itself, by its id or
    // through an entry that runs its forwarder: refused before anything is asked.
    m_app->entries.add(u"relay"_s).exec = u"env A=1 /usr/bin/quillvane-open %u"_s;
    ConfigManager::ExportData looping;
    looping.exportDate = QDateTime::currentDateTimeUtc();
    looping.rules = {makeRule(QString(), u"a.example"_s, u"relay"_s)};
    QVERIFY(importing(ConfigManager::encode(looping))
                .contains(u"sends links to “relay” (a rule's browser), which hands them back"_s));
    looping.rules = {};
    looping.fallbackBrowserId = u"WORK.VORPA.QUILLVANE"_s;
    QVERIFY(importing(ConfigManager::encode(looping))
                .contains(u"sends links to “WORK.VORPA.QUILLVANE” (the fallback"_s));
    QCOMPARE(m_app->state->rules().size(), 2);

    // Three rules against two: asked, and "Cancel" keeps them.
    ConfigManager::ExportData data;
    data.exportDate = QDateTime::currentDateTimeUtc();
    data.rules = {makeRule(QString(), u"a.example"_s, u"safari"_s),
                  makeRule(QString(), u"b.example"_s, u"safari"_s),
                  makeRule(u"org.example.Mail"_s, std::nullopt, u"firefox"_s)};
    MessageBox::setNextAnswer(1);
    importing(ConfigManager::encode(data));
    QCOMPARE(m_app->state->rules().size(), 2);
    MessageBox::setNextAnswer(0);
    importing(ConfigManager::encode(data));
    QCOMPARE(m_app->stored().rules, data.rules);

    // Arguments, profiles and private windows are each shown, and taken only
    // when agreed to: "Rules Only" leaves them out.
    data.browserPreferences = QList{BrowserPreference{u"safari"_s, false, u"--remote-debugging-port=9222"_s}};
    data.rules[0].targetProfileID = u"Work"_s;
    data.rules[1].openInPrivateWindow = true;
    MessageBox::setNextAnswer(1);
    importing(ConfigManager::encode(data));
    for (const QString &item : {u"• Safari starts with the arguments: --remote-debugging-port=9222"_s,
                                u"• 1 rule(s) open Safari in the profile “Work” (not found here)"_s,
                                u"• 1 rule(s) open a private window: b.example → safari"_s})
        QVERIFY2(MessageBox::lastDetail().contains(item), qPrintable(MessageBox::lastDetail()));
    QCOMPARE(m_app->stored().rules, ConfigManager::withoutLaunchSettings(data).rules);
    QVERIFY(m_app->state->launchOptions(u"safari"_s).extraArguments.isEmpty());
    MessageBox::setNextAnswer(0);
    importing(ConfigManager::encode(data));
    QCOMPARE(m_app->stored().rules, data.rules);
    QCOMPARE(m_app->state->launchOptions(u"safari"_s).extraArguments,
             QStringList{u"--remote-debugging-port=9222"_s});

    // Export replaces an existing file and names only the file.
    const QString target = folder + u"/out/Quillvane-config.json"_s;
    writeFile(target, "old");
    pane.chooseExportFile = [target] { return target; };
    pane.exportConfig();
    QCOMPARE(ConfigManager::importFromJSON(readFile(target))->rules, data.rules);
    // A folder that cannot be written to.
    pane.chooseExportFile = [folder]() -> QString { return folder + u"/missing/dir/x.json"_s; };
    pane.exportConfig();
    QVERIFY(MessageBox::lastInformTitle() == u"Export Failed"
            && MessageBox::lastText().contains(u"missing"_s));
}

QTEST_MAIN(TestSettingsWindow)
#include "tst_settingswindow.moc"
