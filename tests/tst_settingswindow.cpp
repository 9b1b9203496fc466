// The tray menu and the settings window, driven offscreen by object name:
// what they show, and what a click stores.
#include "App/AppState.h"
#include "Models/DisplayText.h"
#include "Services/BrowserDiscovery.h"
#include "Storage/HistoryStore.h"
#include "Storage/SettingsKeys.h"
#include "TestSupport.h"
#include "Views/BrowsersPane.h"
#include "Views/ConfigPane.h"
#include "Views/GeneralPane.h"
#include "Views/HistoryModel.h"
#include "Views/HistoryPane.h"
#include "Views/MessageBox.h"
#include "Views/RuleListView.h"
#include "Views/SettingsWindow.h"
#include "Views/StatusItem.h"
#include "Views/ViewKit.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCheckBox>
#include <QGlyphRun>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTabWidget>
#include <QTest>
#include <QTextLayout>
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

} // namespace

class TestSettingsWindow final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void statusMenu();
    void namesInTheMenuAreShownAsWritten();
    void keyboard();
    void historyPane();
    void relativeTimes();
    void generalPane();
    void browsersPane();
    void thePauseSignHasAGlyph();
    void importAndExport();

private:
    // Runs what the menu deferred until it has closed.
    void processLater()
    {
        QCoreApplication::sendPostedEvents();
        QCoreApplication::processEvents();
    }

    std::unique_ptr<AppFixture> m_app;
};

void TestSettingsWindow::init()
{
    m_app = std::make_unique<AppFixture>();
    m_app->store->saveRules({makeRule(u"org.example.Mail"_s, std::nullopt, u"safari"_s),
                             makeRule(u"org.example.Chat"_s, std::nullopt, u"firefox"_s)});
    m_app->store->saveDefaultBrowserBundleID(u"firefox"_s);
    m_app->start();
    MessageBox::setInformQuietly(true);
}

void TestSettingsWindow::cleanup()
{
    m_app.reset();
}

// What the menu computes (counts, the fallback's name, check marks) and what
// its items change; the items' wording is the menu's own business.
void TestSettingsWindow::statusMenu()
{
    HistoryStore::record(*m_app->history,
                         makeRecord(u"https://a.example/"_s, u"Mail"_s, u"Safari"_s));
    HistoryStore::record(*m_app->history, makeRecord(u"https://b.example/"_s, std::nullopt,
                                                     u"Firefox"_s, std::nullopt, 3 * 86400));
    QStringList called;
    StatusItem item(*m_app->state, m_app->entries,
                    {[&] { called.append(u"history"_s); }, [&] { called.append(u"settings"_s); },
                     [&] { called.append(u"updates"_s); }, [&] { called.append(u"quit"_s); }});
    QMenu &menu = item.menu();
    item.rebuild(menu);
    // No "Last:" before the first routing.
    QCOMPARE(texts(menu).mid(2, 3),
             (QStringList{u"Rules: 2 app, 0 URL"_s, u"Today: 1 forwarded"_s, u"--"_s}));
    const auto fallback = [&menu] { return action(menu, "fallbackAction"); };
    QCOMPARE(texts(*fallback()->menu()),
             (QStringList{u"Firefox"_s, u"Safari"_s, u"--"_s, u"Ask Every Time"_s}));
    QVERIFY(fallback()->menu()->actions()[0]->isChecked());

    // Choosing Safari changes the fallback; the next opening shows it.
    fallback()->menu()->actions()[1]->trigger();
    processLater();
    QCOMPARE(m_app->store->loadDefaultBrowserBundleID(), u"safari"_s);
    Q_EMIT menu.aboutToShow();
    QCOMPARE(fallback()->text(), u"Fallback: Safari"_s);
    QVERIFY(fallback()->menu()->actions()[1]->isChecked());

    // A fallback that is not installed: "None", nothing checked.
    m_app->state->setDefaultBrowser(u"gone"_s);
    item.rebuild(menu);
    QCOMPARE(fallback()->text(), u"Fallback: None"_s);
    for (const QAction *browser : fallback()->menu()->actions())
        QVERIFY(!browser->isChecked());

    // "Ask Every Time": checked alone, named in the title; a browser ends it.
    fallback()->menu()->findChild<QAction *>(u"fallbackAskAction"_s)->trigger();
    processLater();
    QVERIFY(SettingsKeys::read(*m_app->settings, SettingsKeys::FallbackAsks));
    item.rebuild(menu);
    QCOMPARE(fallback()->text(), u"Fallback: Ask Every Time"_s);
    QVERIFY(fallback()->menu()->findChild<QAction *>(u"fallbackAskAction"_s)->isChecked());
    fallback()->menu()->actions()[0]->trigger();
    processLater();
    QVERIFY(!m_app->state->fallbackAsks());
    QCOMPARE(m_app->store->loadDefaultBrowserBundleID(), u"firefox"_s);

    // Pausing from the menu switches the icon, and so does resuming elsewhere.
    item.updateIcon();
    QCOMPARE(item.iconState(), u"active"_s);
    action(menu, "pauseRulesAction")->trigger();
    processLater();
    QVERIFY(!m_app->state->rulesEnabled());
    QCOMPARE(item.iconState(), u"paused"_s);
    m_app->state->toggleRulesEnabled();
    QCOMPARE(item.iconState(), u"active"_s);

    action(menu, "launchAtLoginAction")->trigger();
    processLater();
    QVERIFY(m_app->autostart.enabled);
    item.rebuild(menu);
    QVERIFY(action(menu, "launchAtLoginAction")->isChecked());
    for (const char *name : {"historyAction", "settingsAction", "updatesAction", "quitAction"})
        action(menu, name)->trigger();
    QCOMPARE(called, (QStringList{u"history"_s, u"settings"_s, u"updates"_s, u"quit"_s}));

    // Routed once: the last route shows, and the rule counts follow the rules.
    m_app->state->addRule(makeRule(QString(), u"docs.example"_s, u"safari"_s));
    m_app->state->routeURL(link(u"https://docs.example/x"), std::nullopt);
    QTRY_VERIFY(!m_app->state->lastRouteLog().isEmpty());
    item.rebuild(menu);
    QCOMPARE(texts(menu).mid(2, 3), (QStringList{u"Rules: 2 app, 1 URL"_s, u"Today: 2 forwarded"_s,
                                                 u"Last: "_s + m_app->state->lastRouteLog()}));
}

// A browser's name is the desktop entry's: an "&" is not a mnemonic, and
// control characters (a terminal title sequence here) are shown, not obeyed.
void TestSettingsWindow::namesInTheMenuAreShownAsWritten()
{
    writeFile(m_app->entries.add(u"tom"_s, u"Tom & Jerry\x1b]0;pwned\x07"_s).path, {});
    m_app->state->refreshBrowsers();
    m_app->state->setDefaultBrowser(u"tom"_s);
    StatusItem item(*m_app->state, m_app->entries, {});
    QMenu &menu = item.menu();
    item.rebuild(menu);
    const QString shown = u"Tom && Jerry\\x1B]0;pwned\\x07"_s;
    QCOMPARE(action(menu, "fallbackAction")->text(), u"Fallback: "_s + shown);
    QVERIFY(texts(*action(menu, "fallbackAction")->menu()).contains(shown));
    QCOMPARE(DisplayText::escapeControls(u"a\nb\u2028c\u009b"), u"a\\x0Ab\\u{2028}c\\x9B"_s);
}

// Everything a mouse can use, the keyboard reaches: Tab visits every enabled
// control of every tab, and tabs change with the usual keys wherever the
// focus is.
void TestSettingsWindow::keyboard()
{
    HistoryStore::record(*m_app->history,
                         makeRecord(u"https://a.example/"_s, u"Mail"_s, u"Safari"_s));
    SettingsWindow window(*m_app->state, {m_app->entries, {}}, [] {});
    window.show();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    QTabWidget &tabs = window.tabs();
    for (int tab = 0; tab < tabs.count(); ++tab) {
        window.selectTab(tab);
        QSet<QWidget *> controls;
        for (QWidget *widget : tabs.currentWidget()->findChildren<QWidget *>()) {
            const bool control =
                qobject_cast<QAbstractButton *>(widget) || qobject_cast<QComboBox *>(widget)
                || qobject_cast<QLineEdit *>(widget) || qobject_cast<QAbstractItemView *>(widget);
            // A field's own clear button is not a stop of its own.
            const bool part = qobject_cast<QLineEdit *>(widget->parentWidget());
            if (control && !part && widget->isVisibleTo(&window) && widget->isEnabled())
                controls.insert(widget);
        }
        if (controls.isEmpty()) // an empty state
            continue;
        tabs.tabBar()->setFocus();
        QSet<QWidget *> reached;
        for (int step = 0; step < 200 && reached.size() < controls.size(); ++step) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
            if (controls.contains(QApplication::focusWidget()))
                reached.insert(QApplication::focusWidget());
        }
        for (QWidget *control : std::as_const(controls))
            QVERIFY2(reached.contains(control),
                     qPrintable(tabs.tabText(tab) + u": "_s + control->objectName() + u" ("_s
                                + QString::fromLatin1(control->metaObject()->className())
                                + u") cannot be reached with Tab"_s));
    }

    window.selectTab(SettingsWindow::AppRulesTab);
    window.setFocus();
    QTest::keyClick(&window, Qt::Key_PageDown, Qt::ControlModifier);
    QCOMPARE(window.selectedTab(), int(SettingsWindow::UrlRulesTab));
    QTest::keyClick(&window, Qt::Key_Tab, Qt::ControlModifier);
    QCOMPARE(window.selectedTab(), int(SettingsWindow::GeneralTab));
    QTest::keyClick(&window, Qt::Key_PageUp, Qt::ControlModifier);
    QTest::keyClick(&window, Qt::Key_PageUp, Qt::ControlModifier);
    QTest::keyClick(&window, Qt::Key_PageUp, Qt::ControlModifier);
    QCOMPARE(window.selectedTab(), int(SettingsWindow::BrowsersTab));
    QTest::keyClick(&window, Qt::Key_3, Qt::AltModifier);
    QCOMPARE(window.selectedTab(), int(SettingsWindow::GeneralTab));
    // Closed and shown again: the same tab.
    window.close();
    window.show();
    QCOMPARE(window.selectedTab(), int(SettingsWindow::GeneralTab));
}

void TestSettingsWindow::historyPane()
{
    HistoryPane pane(*m_app->state);
    pane.resize(520, 600);
    pane.show();
    auto *pages = pane.findChild<QStackedWidget *>();
    QCOMPARE(pages->currentWidget()->objectName(), u"historyEmptyState"_s);

    HistoryStore::record(*m_app->history, makeRecord(u"https://one.example/"_s, u"Mail"_s,
                                                     u"Safari"_s, u"Mail → Safari"_s));
    HistoryStore::record(*m_app->history,
                         makeRecord(u"https://two.example/"_s, std::nullopt, u"Firefox"_s));
    HistoryStore::record(*m_app->history,
                         makeRecord(u"https://three.example/a b"_s, u"Chat"_s, u"Safari"_s));
    // Loaded when the tab comes on screen.
    pane.hide();
    pane.show();
    QCOMPARE(pages->currentWidget()->objectName(), u"historyListPage"_s);
    auto *count = pane.findChild<QLabel *>(u"historyCount"_s);
    auto *filter = pane.findChild<QLineEdit *>(u"historyFilter"_s);
    QCOMPARE(count->text(), u"3 records"_s);
    const HistoryModel &model = pane.model();
    QCOMPARE(model.index(0).data(HistoryModel::UrlRole).toString(), u"https://three.example/a b"_s);
    QCOMPARE(model.index(1).data(HistoryModel::SourceNameRole).toString(), u"Unknown"_s);
    QCOMPARE(model.index(2).data(HistoryModel::RuleRole).toString(), u"Mail → Safari"_s);
    // Records name what decided, where they know it: the rule as it read, the
    // fallback, the pause (drawn as a symbol, the words without it).
    ForwardingRecord decided = makeRecord(u"https://d.example/"_s, u"Mail"_s, u"Safari"_s,
                                          u"Mail → Safari"_s);
    decided.decidedBy = u"3F2504E0-4F89-41D3-9A0C-0305E82C3301"_s;
    decided.decisionDescription = u"d.example → Safari"_s;
    ForwardingRecord paused = makeRecord(u"https://p.example/"_s, u"Mail"_s, u"Safari"_s,
                                         u"⏸ Rules paused"_s);
    HistoryModel decisions;
    decisions.setRecords({decided, paused});
    QCOMPARE(decisions.index(0).data(HistoryModel::RuleRole).toString(), u"d.example → Safari"_s);
    QCOMPARE(decisions.index(1).data(HistoryModel::RuleRole).toString(), u"Rules paused"_s);
    QVERIFY(decisions.index(1).data(HistoryModel::PausedRole).toBool());
    QCOMPARE(model.index(0).data(Qt::ToolTipRole).toString(), u"https://three.example/a b"_s);
    QVERIFY(!pane.grab().isNull()); // the rows' own drawing

    const auto typeFilter = [&](const QString &text) {
        filter->clear();
        QTest::keyClicks(filter, text);
        return count->text();
    };
    QCOMPARE(typeFilter(u"SAFARI"_s), u"2 records"_s);
    QCOMPARE(typeFilter(u"chat"_s), u"1 record"_s);
    // Not searched: bundle ids and the "Unknown" stand-in. Not trimmed.
    QCOMPARE(typeFilter(u"com."_s), u"0 records"_s);
    QCOMPARE(typeFilter(u"Unknown"_s), u"0 records"_s);
    QCOMPARE(typeFilter(u"a "_s), u"1 record"_s);
    QCOMPARE(pages->currentWidget()->objectName(), u"historyListPage"_s);

    // Clear: at once, without asking; the filter stays.
    QTest::mouseClick(pane.findChild<QToolButton *>(u"historyClear"_s), Qt::LeftButton);
    QCOMPARE(pages->currentWidget()->objectName(), u"historyEmptyState"_s);
    QVERIFY(HistoryStore::loadHistory(*m_app->history).isEmpty());
    QCOMPARE(filter->text(), u"a "_s);
    // Cleared elsewhere (the pane holds records again): the pane empties too.
    HistoryStore::record(*m_app->history,
                         makeRecord(u"https://four.example/a b"_s, u"Mail"_s, u"Safari"_s));
    filter->clear();
    pane.hide();
    pane.show();
    QCOMPARE(pages->currentWidget()->objectName(), u"historyListPage"_s);
    m_app->state->clearHistory();
    QCOMPARE(pages->currentWidget()->objectName(), u"historyEmptyState"_s);
}

void TestSettingsWindow::relativeTimes()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QCOMPARE(HistoryModel::relativeTime(now.addSecs(-3), now), u"just now"_s);
    QCOMPARE(HistoryModel::relativeTime(now.addSecs(-61), now), u"1 minute ago"_s);
    QCOMPARE(HistoryModel::relativeTime(now.addSecs(-7200), now), u"2 hours ago"_s);
    QCOMPARE(HistoryModel::relativeTime(now.addDays(-1), now), u"1 day ago"_s);
    QCOMPARE(HistoryModel::relativeTime(now.addDays(-15), now), u"2 weeks ago"_s);
    QCOMPARE(HistoryModel::relativeTime(now.addSecs(30), now), u"in the future"_s);

    HistoryModel model;
    model.setRecords({makeRecord(u"https://a.example/"_s, std::nullopt, u"Safari"_s)});
    QSignalSpy changed(&model, &HistoryModel::dataChanged);
    model.setNow(QDateTime::currentDateTimeUtc().addSecs(120));
    QCOMPARE(changed.size(), 1);
    QCOMPARE(model.index(0).data(HistoryModel::RelativeTimeRole).toString(), u"2 minutes ago"_s);
}

void TestSettingsWindow::generalPane()
{
    GeneralPane pane(*m_app->state, m_app->entries, [] {});
    // Tall enough to show every section without scrolling.
    pane.resize(520, 1600);
    pane.show();
    QVERIFY(pane.findChild<QWidget *>(u"setAsDefaultButton"_s)->isVisible());

    auto *picker = pane.findChild<QComboBox *>(u"fallbackPicker"_s);
    // None, the browsers, and "Ask Every Time" after a separator.
    QCOMPARE(picker->count(), 5);
    QCOMPARE(picker->itemText(0), u"None"_s);
    QCOMPARE(picker->itemText(4), u"Ask Every Time"_s);
    QCOMPARE(picker->currentText(), u"Firefox"_s);
    picker->setFocus();
    QTest::keyClick(picker, Qt::Key_Down);
    QCOMPARE(m_app->store->loadDefaultBrowserBundleID(), u"safari"_s);
    QTest::keyClick(picker, Qt::Key_Home);
    QCOMPARE(m_app->store->loadDefaultBrowserBundleID(), QString());
    // Changed elsewhere: shown here.
    m_app->state->setDefaultBrowser(u"firefox"_s);
    QCOMPARE(picker->currentText(), u"Firefox"_s);
    m_app->state->setDefaultBrowser(u"not-installed"_s);
    QCOMPARE(picker->currentIndex(), -1);
    // Ask: chosen here, or elsewhere, shown here; the fallback browser stays.
    m_app->state->setDefaultBrowser(u"firefox"_s);
    QTest::keyClick(picker, Qt::Key_End);
    QVERIFY(m_app->state->fallbackAsks());
    QCOMPARE(m_app->store->loadDefaultBrowserBundleID(), u"firefox"_s);
    m_app->state->setDefaultBrowser(u"safari"_s);
    QCOMPARE(picker->currentText(), u"Safari"_s);
    m_app->state->setFallbackAsks();
    QCOMPARE(picker->currentText(), u"Ask Every Time"_s);
    m_app->state->setDefaultBrowser(u"not-installed"_s);

    auto *rules = pane.findChild<QCheckBox *>(u"rulesEnabledSwitch"_s);
    QVERIFY(rules->isChecked());
    // On the box itself (the row is wider than box and text).
    QTest::mouseClick(rules, Qt::LeftButton, {}, QPoint(8, rules->height() / 2));
    QVERIFY(!m_app->state->rulesEnabled());
    QVERIFY(!m_app->store->loadRulesEnabled());
    m_app->state->toggleRulesEnabled();
    QVERIFY(rules->isChecked());

    auto *cleaning = pane.findChild<QCheckBox *>(u"urlCleaningSwitch"_s);
    cleaning->setFocus();
    QTest::keyClick(cleaning, Qt::Key_Space);
    QVERIFY(!m_app->state->urlCleaningEnabled());
    auto *login = pane.findChild<QCheckBox *>(u"launchAtLoginSwitch"_s);
    QTest::mouseClick(login, Qt::LeftButton, {}, QPoint(8, login->height() / 2));
    QVERIFY(m_app->state->launchAtLogin());
    QVERIFY(m_app->autostart.enabled);

    // The tests' build has no update feed: the switch would do nothing, and says why.
    auto *automatic = pane.findChild<QCheckBox *>(u"automaticUpdatesSwitch"_s);
    QVERIFY(!automatic->isEnabled());
    // Still the stored setting, changed through the state and shown here.
    QVERIFY(automatic->isChecked());
    m_app->state->toggleAutomaticUpdateChecks();
    QVERIFY(!automatic->isChecked());
    QVERIFY(!SettingsKeys::read(*m_app->settings, SettingsKeys::AutomaticUpdateChecks));

    auto *unwrapping = pane.findChild<QCheckBox *>(u"urlUnwrappingSwitch"_s);
    QVERIFY(unwrapping->isChecked());
    QTest::mouseClick(unwrapping, Qt::LeftButton, {}, QPoint(8, unwrapping->height() / 2));
    QVERIFY(!m_app->state->urlUnwrappingEnabled());
    QVERIFY(!SettingsKeys::read(*m_app->settings, SettingsKeys::UrlUnwrappingEnabled));
}

void TestSettingsWindow::browsersPane()
{
    BrowsersPane pane(*m_app->state, m_app->entries);
    pane.show();
    auto *list = pane.findChild<QListWidget *>(u"browsersList"_s);
    QCOMPARE(list->count(), 2);
    pane.selectBrowser(u"firefox"_s);
    QVERIFY(pane.findChild<QLabel *>(u"browserPrivateWindow"_s)->text().contains(
        u"--private-window"_s));

    // Hidden: out of the lists that offer browsers, still in this one.
    auto *shown = pane.findChild<QCheckBox *>(u"browserShownCheck"_s);
    QVERIFY(shown->isChecked());
    QTest::mouseClick(shown, Qt::LeftButton, {}, QPoint(8, shown->height() / 2));
    QVERIFY(m_app->state->browserPreference(u"firefox"_s).hidden);
    QCOMPARE(m_app->state->shownBrowsers().size(), 1);
    QCOMPARE(m_app->state->shownBrowsers(u"firefox"_s).size(), 2);
    QCOMPARE(list->count(), 2);
    QCOMPARE(pane.selectedBrowser(), u"firefox"_s);

    // Arguments that would place the link are refused with the reason, and
    // what was stored stays.
    auto *arguments = pane.findChild<QLineEdit *>(u"browserArgumentsField"_s);
    auto *error = pane.findChild<QLabel *>(u"browserArgumentsError"_s);
    arguments->setText(u"--new-window \"--class=Work Mail\""_s);
    Q_EMIT arguments->editingFinished();
    QVERIFY(error->isHidden());
    QCOMPARE(m_app->state->launchOptions(u"firefox"_s).extraArguments,
             (QStringList{u"--new-window"_s, u"--class=Work Mail"_s}));
    arguments->setText(u"--app=%u"_s);
    Q_EMIT arguments->editingFinished();
    QVERIFY(!error->isHidden());
    QVERIFY(error->text().contains(u"%u"_s));
    QCOMPARE(m_app->state->browserPreference(u"firefox"_s).extraArguments,
             u"--new-window \"--class=Work Mail\""_s);
    // Kept in the settings file, beside the rules.
    QCOMPARE(m_app->store->loadBrowserPreferences(),
             (QList<BrowserPreference>{
                 {u"firefox"_s, true, u"--new-window \"--class=Work Mail\""_s}}));
    QTest::mouseClick(shown, Qt::LeftButton, {}, QPoint(8, shown->height() / 2));
    arguments->clear();
    Q_EMIT arguments->editingFinished();
    // Nothing set is nothing stored.
    QVERIFY(m_app->store->loadBrowserPreferences().isEmpty());
}

// The pause sign of "⏸ Pause Rules" is missing from the default Debian fonts;
// Quillvane's own font supplies it, where a box would be drawn instead.
void TestSettingsWindow::thePauseSignHasAGlyph()
{
    ViewKit::installSymbolFont();
    QTextLayout layout(u"⏸ Pause Rules"_s, QApplication::font());
    layout.beginLayout();
    layout.createLine();
    layout.endLayout();
    bool found = false;
    for (const QGlyphRun &run : layout.glyphRuns(0, 1)) {
        const QList<quint32> indexes = run.glyphIndexes();
        found = found || (!indexes.isEmpty() && indexes.first() != 0);
    }
    QVERIFY2(found, "U+23F8 has no glyph in any font Qt falls back to");
}

void TestSettingsWindow::importAndExport()
{
    ConfigPane pane(*m_app->state);
    const QString folder = m_app->environment.path();

    // Cancelled: nothing said, nothing changed.
    MessageBox::inform(QString(), QString());
    pane.chooseImportFile = [] { return QString(); };
    pane.importConfig();
    QCOMPARE(MessageBox::lastInformTitle(), QString());

    const auto importing = [&](const QByteArray &contents) {
        QFile file(folder + u"/import.json"_s);
        file.open(QIODevice::WriteOnly);
        file.write(contents);
        file.close();
        pane.chooseImportFile = [file = file.fileName()] { return file; };
        pane.importConfig();
    };
    importing("{ this is not json");
    QCOMPARE(MessageBox::lastInformTitle(), u"Import Failed"_s);
    importing(
        R"({"version": 2, "exportDate": "2026-01-01T00:00:00Z", "rules": [], "urlCleaningEnabled": true})");
    QVERIFY(MessageBox::lastText().contains(u"version: 2"_s));
    QCOMPARE(m_app->state->rules().size(), 2);

    // A document that would send links to Quillvane itself, by its id or
    // through an entry that runs its forwarder: refused before anything is asked.
    m_app->entries.add(u"relay"_s).exec = u"env A=1 /usr/bin/quillvane-open %u"_s;
    ConfigManager::ExportData looping;
    looping.exportDate = QDateTime::currentDateTimeUtc();
    looping.rules = {makeRule(QString(), u"a.example"_s, u"relay"_s)};
    importing(ConfigManager::encode(looping));
    QCOMPARE(MessageBox::lastInformTitle(), u"Import Failed"_s);
    QCOMPARE(MessageBox::lastText(),
             u"The configuration sends links to “relay” (a rule's browser), which hands them back "
             "to Quillvane: they would go round for ever. Nothing was imported."_s);
    looping.rules = {};
    looping.defaultBrowserBundleID = u"WORK.VORPA.QUILLVANE"_s;
    importing(ConfigManager::encode(looping));
    QVERIFY2(MessageBox::lastText().startsWith(
                 u"The configuration sends links to “WORK.VORPA.QUILLVANE” (the fallback"_s),
             qPrintable(MessageBox::lastText()));
    QCOMPARE(m_app->state->rules().size(), 2);

    // Three rules against two: asked, and "Cancel" keeps them.
    ConfigManager::ExportData data;
    data.exportDate = QDateTime::currentDateTimeUtc();
    data.rules = {makeRule(QString(), u"a.example"_s, u"safari"_s),
                  makeRule(QString(), u"b.example"_s, u"safari"_s),
                  makeRule(u"org.example.Mail"_s, std::nullopt, u"firefox"_s)};
    MessageBox::setNextAnswer(1);
    importing(ConfigManager::encode(data));
    QCOMPARE(MessageBox::lastDetail(),
             u"This will replace your current 2 rule(s) with 3 imported rule(s). Continue?"_s);
    QCOMPARE(m_app->state->rules().size(), 2);
    MessageBox::setNextAnswer(0);
    importing(ConfigManager::encode(data));
    QCOMPARE(m_app->store->loadRules(), data.rules);

    // Export replaces an existing file and names only the file.
    const QString target = folder + u"/out/Quillvane-config.json"_s;
    QDir().mkpath(folder + u"/out"_s);
    QFile old(target);
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write("old");
    old.close();
    pane.chooseExportFile = [target] { return target; };
    pane.exportConfig();
    QCOMPARE(MessageBox::lastText(),
             u"Configuration with 3 rule(s) exported to Quillvane-config.json."_s);
    QFile written(target);
    QVERIFY(written.open(QIODevice::ReadOnly));
    QCOMPARE(ConfigManager::importFromJSON(written.readAll())->rules, data.rules);

    // A folder that cannot be written to.
    pane.chooseExportFile = [folder]() -> QString { return folder + u"/missing/dir/x.json"_s; };
    pane.exportConfig();
    QCOMPARE(MessageBox::lastInformTitle(), u"Export Failed"_s);
    QVERIFY(MessageBox::lastText().contains(u"missing"_s));
}

QTEST_MAIN(TestSettingsWindow)
#include "tst_settingswindow.moc"
