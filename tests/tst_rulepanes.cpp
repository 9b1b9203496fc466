// The App Rules and URL Rules tabs and their sheets, driven offscreen by object
// name: what they list, what a click or a key stores, and how the sheets turn
// what was typed into a rule. Profiles come from real profile files in a home
// of the test's own.
#include "App/AppState.h"
#include "Services/RunningApps.h"
#include "TestSupport.h"
#include "Views/AppRuleEditView.h"
#include "Views/LinkTester.h"
#include "Views/RuleListView.h"
#include "Views/URLRuleEditView.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPushButton>
#include <QStackedWidget>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

QStringList comboTexts(const QComboBox *combo)
{
    QStringList texts;
    for (int i = 0; i < combo->count(); ++i)
        texts.append(combo->itemText(i));
    return texts;
}

template<typename Sheet> Sheet *sheetOf(RuleListView &pane)
{
    auto *sheet = qobject_cast<Sheet *>(pane.sheet());
    if (!sheet)
        qFatal("no sheet of that kind is open");
    return sheet;
}

// Saves the sheet the way a person does; false when Save is disabled.
bool save(RuleEditView *sheet)
{
    auto *button = child<QPushButton>(sheet, u"saveButton"_s);
    if (!button->isEnabled())
        return false;
    QTest::mouseClick(button, Qt::LeftButton);
    return true;
}

bool shown(RuleEditView *sheet, const QString &name)
{
    return child<QWidget>(sheet, name)->isVisibleTo(sheet);
}

} // namespace

class TestRulePanes final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup()
    {
        m_app.reset();
        qputenv("HOME", m_home);
    }

    // Rules made elsewhere (automation) are shown at once, each where it
    // belongs; a click or Return edits a row, its bin or Delete deletes it at
    // once, and Escape closes a sheet without saving.
    // URL rules are grouped by the domain one owner registered.
    void rootDomains()
    {
        for (const auto &[pattern, root] : {std::pair{u"*docs.example.com/api*"_s, u"example.com"_s},
                                            {u"docs.example.co.uk"_s, u"example.co.uk"_s},
                                            {u"https://localhost/x"_s, u"localhost"_s}})
            QCOMPARE(RuleListView::rootDomain(pattern), root);
    }

    void rowsFollowTheRules()
    {
        AppRuleListView apps(*m_app->state, services());
        URLRuleListView pane(*m_app->state, services());
        const auto state = [&] {
            return u"%1, %2, page %3"_s
                .arg(child<QLabel>(&apps, u"appRulesCount"_s)->text(),
                     child<QLabel>(&pane, u"urlRulesCount"_s)->text())
                .arg(pane.findChild<QStackedWidget *>()->currentIndex());
        };
        QCOMPARE(state(), u"0 rules, 0 rules, page 0"_s); // the invitation
        m_app->state->addRule(makeRule(u"org.example.Mail"_s, u"docs.example"_s, u"firefox"_s));
        m_app->state->addRule(makeRule({}, u"a.example"_s, u"safari"_s));
        m_app->state->addRule(makeRule({}, u"b.example"_s, u"safari"_s));
        QCOMPARE(state(), u"1 rule, 2 rules, page 1"_s);

        pane.resize(520, 480);
        pane.show();
        QVERIFY(QTest::qWaitForWindowExposed(&pane));
        QListView &list = pane.list();
        const QModelIndex first = list.model()->index(0, 0);
        QTest::mouseClick(list.viewport(), Qt::LeftButton, {}, list.visualRect(first).center());
        auto *sheet = sheetOf<URLRuleEditView>(pane);
        QCOMPARE(child<QLineEdit>(sheet, u"patternField"_s)->text(), u"a.example"_s);
        QTest::keyClick(sheet, Qt::Key_Escape);
        QTRY_VERIFY(!pane.sheet());
        QCOMPARE(stored().size(), 3);
        QTest::mouseClick(list.viewport(), Qt::LeftButton, {},
                          pane.deleteButtonRect(first).center());
        QVERIFY(!pane.sheet());
        QCOMPARE(stored().last().urlPattern, u"b.example"_s);
        list.setFocus();
        list.setCurrentIndex(list.model()->index(0, 0));
        QTest::keyClick(&list, Qt::Key_Delete);
        QCOMPARE(state(), u"1 rule, 0 rules, page 0"_s);
    }

    // What is typed is saved trimmed, without the scheme (saying so under the
    // field, with the pattern as it will be saved); blanks alone cannot be saved.
    void urlPatternIsNormalised_data();
    void urlPatternIsNormalised()
    {
        QFETCH(QString, typed);
        QFETCH(QString, saved);
        QFETCH(QString, note);
        URLRuleListView pane(*m_app->state, services());
        pane.showAddSheet();
        auto *sheet = sheetOf<URLRuleEditView>(pane);
        sheet->selectBrowser(u"safari"_s);
        typed.replace(u"\\t"_s, u"\t"_s).replace(u"\\n"_s, u"\n"_s).replace(u'_', u' ');
        child<QLineEdit>(sheet, u"patternField"_s)->setText(typed);
        QCOMPARE(shown(sheet, u"patternNote"_s), !note.isEmpty());
        QCOMPARE(shown(sheet, u"patternHelp"_s), note.isEmpty());
        if (!note.isEmpty())
            QVERIFY(child<QLabel>(sheet, u"patternNote"_s)->text().contains(u"<b>"_s + note));
        QCOMPARE(save(sheet), !saved.isEmpty());
        QCOMPARE(stored().value(0).urlPattern.value_or(QString()), saved.replace(u'_', u' '));
    }

    void urlSheetCreatesAndEdits()
    {
        URLRuleListView pane(*m_app->state, services());
        pane.showAddSheet();
        auto *sheet = sheetOf<URLRuleEditView>(pane);
        QTest::keyClicks(child<QLineEdit>(sheet, u"patternField"_s), u"docs.example"_s);
        QVERIFY(!save(sheet)); // no browser yet
        sheet->selectBrowser(u"safari"_s);
        QVERIFY(save(sheet));
        QTRY_VERIFY(!pane.sheet());
        QCOMPARE(stored().value(0).targetBrowserName, u"Safari"_s);

        // A rule whose browser was uninstalled keeps it, saved under its id.
        RoutingRule old = makeRule({}, u"old.example"_s, u"gone-browser"_s);
        old.targetBrowserName = u"Gone"_s;
        m_app->state->addRule(old);
        pane.showEditSheet(old);
        sheet = sheetOf<URLRuleEditView>(pane);
        QCOMPARE(child<QComboBox>(sheet, u"browserPicker"_s)->currentText(),
                 u"Gone (not installed)"_s);
        child<QLineEdit>(sheet, u"patternField"_s)->setText(u"new.example"_s);
        QVERIFY(save(sheet));
        old.urlPattern = u"new.example"_s;
        old.targetBrowserName = u"gone-browser"_s;
        QCOMPARE(stored(), (QList{stored().value(0), old}));
        // Deleted by automation while its sheet is open: saving does not bring it back.
        pane.showEditSheet(old);
        sheet = sheetOf<URLRuleEditView>(pane);
        m_app->state->deleteRule(old);
        QVERIFY(save(sheet));
        QCOMPARE(stored().size() * 10 + m_app->state->rules().size(), 11);
    }

    void appSheetFromRunningAndManual()
    {
        AppRuleListView pane(*m_app->state, services());
        pane.showAddSheet();
        auto *sheet = sheetOf<AppRuleEditView>(pane);
        auto *source = child<QComboBox>(sheet, u"sourcePicker"_s);
        QCOMPARE(source->count(), 3); // the invitation, then what runs
        sheet->selectBrowser(u"firefox"_s);
        QVERIFY(!save(sheet));
        source->setCurrentIndex(1);
        // Evolution quits before Save: saved under its id.
        m_running.removeFirst();
        QVERIFY(save(sheet));
        QCOMPARE(stored().value(0).sourceAppName, u"org.gnome.Evolution"_s);

        // By hand: a name defaults to the id; an id of blanks is saved as typed.
        pane.showAddSheet();
        sheet = sheetOf<AppRuleEditView>(pane);
        child<QComboBox>(sheet, u"sourcePicker"_s)->setCurrentIndex(1);
        QTest::mouseClick(child<QCheckBox>(sheet, u"manualSwitch"_s), Qt::LeftButton, {},
                          QPoint(8, 8));
        sheet->selectBrowser(u"safari"_s);
        QVERIFY(!save(sheet)); // only the active mode counts
        QTest::keyClicks(child<QLineEdit>(sheet, u"manualBundleID"_s), u"   "_s);
        QVERIFY(save(sheet));
        QCOMPARE(stored().value(1).sourceAppName, u"   "_s);

        // Editing a rule of an application that does not run: by hand, with what
        // the rule has; saved without a pattern and under its id.
        RoutingRule music = makeRule(u"org.example.Music"_s, u"music.example"_s, u"safari"_s);
        music.sourceAppName = u"Music"_s;
        m_app->state->addRule(music);
        pane.showEditSheet(music);
        sheet = sheetOf<AppRuleEditView>(pane);
        QVERIFY(child<QCheckBox>(sheet, u"manualSwitch"_s)->isChecked());
        QCOMPARE(child<QLineEdit>(sheet, u"manualBundleID"_s)->text() + u' '
                     + child<QLineEdit>(sheet, u"manualAppName"_s)->text(),
                 u"org.example.Music Music"_s);
        QVERIFY(save(sheet));
        const RoutingRule saved = stored().last();
        QVERIFY(saved.id == music.id && !saved.urlPattern);
    }

    // The profiles of the browser chosen; the private window where Quillvane
    // knows the browser's option; a hidden browser offered only to the rule that
    // names it already; "Ask Every Time" with neither.
    void profilesAndPrivateWindows()
    {
        RoutingRule work = makeRule({}, u"work.example"_s, u"google-chrome"_s, u"Profile 1"_s);
        m_app->state->addRule(work);
        URLRuleListView pane(*m_app->state, services());
        pane.showEditSheet(work);
        auto *sheet = sheetOf<URLRuleEditView>(pane);
        auto *profile = child<QComboBox>(sheet, u"profilePicker"_s);
        QCOMPARE(comboTexts(profile),
                 (QStringList{u"Default (no specific profile)"_s, u"Person 1"_s, u"Work"_s}));
        QCOMPARE(profile->currentText(), u"Work"_s);
        QVERIFY(!shown(sheet, u"profileNote"_s));
        sheet->selectBrowser(u"firefox"_s);
        QCOMPARE(comboTexts(profile), (QStringList{u"Default (no specific profile)"_s,
                                                   u"default-release"_s, u"Testing"_s}));
        QCOMPARE(profile->currentIndex(), 0);
        profile->setCurrentIndex(2);
        child<QCheckBox>(sheet, u"privateWindowCheck"_s)->setChecked(true);
        // Ticked, then a browser without profiles nor a private window: not saved as private.
        sheet->selectBrowser(u"safari"_s);
        QVERIFY(shown(sheet, u"profileNote"_s) && !shown(sheet, u"privateWindowCheck"_s));
        QVERIFY(!sheet->privateWindowChosen());
        sheet->selectBrowser(u"firefox"_s);
        profile->setCurrentIndex(2);
        QVERIFY(save(sheet));
        QVERIFY(stored().first().targetProfileID == u"Testing"
                && stored().first().openInPrivateWindow);

        m_app->state->setBrowserPreference({u"firefox"_s, true, {}});
        pane.showAddSheet();
        sheet = sheetOf<URLRuleEditView>(pane);
        QVERIFY(child<QComboBox>(sheet, u"browserPicker"_s)->findData(u"firefox"_s) < 0);
        sheet->reject();
        pane.showEditSheet(stored().first());
        sheet = sheetOf<URLRuleEditView>(pane);
        QCOMPARE(sheet->selectedBrowserId(), u"firefox"_s);
        QVERIFY(child<QCheckBox>(sheet, u"privateWindowCheck"_s)->isChecked());
        sheet->reject();

        // "Ask Every Time", from the app sheet.
        AppRuleListView apps(*m_app->state, services());
        apps.showAddSheet();
        auto *appSheet = sheetOf<AppRuleEditView>(apps);
        child<QComboBox>(appSheet, u"sourcePicker"_s)->setCurrentIndex(1);
        auto *browsers = child<QComboBox>(appSheet, u"browserPicker"_s);
        QCOMPARE(browsers->itemText(browsers->count() - 1), u"Ask Every Time"_s);
        browsers->setCurrentIndex(browsers->count() - 1);
        QVERIFY(appSheet->asksWhereToOpen() && !shown(appSheet, u"privateWindowCheck"_s));
        QVERIFY(save(appSheet));
        const RoutingRule asking = stored().last();
        QVERIFY(asking.askWhereToOpen && asking.targetBrowserId.isEmpty());
        apps.showEditSheet(asking);
        QVERIFY(sheetOf<AppRuleEditView>(apps)->asksWhereToOpen());
    }

    void linkTester()
    {
        m_app->state->addRule(makeRule({}, u"docs.example"_s, u"google-chrome"_s, u"Profile 1"_s));
        m_app->state->addRule(makeRule(u"org.example.Mail"_s, std::nullopt, u"safari"_s));
        const auto verdict = [&](const QString &typed) {
            return LinkTester::verdict(*m_app->state, typed);
        };
        QCOMPARE(verdict(u"  "_s), QString());
        QCOMPARE(verdict(u"ftp://files.example/"_s), verdict(u"docs.example"_s)); // not web links
        // App rules need an application; with none, the URL rules and the fallback decide.
        QCOMPARE(verdict(u"https://docs.example/guide?utm_source=news&id=4"_s),
                 u"Opens in Google Chrome, profile \"Profile 1\" — URL rule \"docs.example\".\n"
                 "Checked as https://docs.example/guide?id=4 (tracking parameters removed)."_s);
        QCOMPARE(verdict(u"https://other.example/"_s),
                 u"Opens in Firefox — the fallback browser: no URL rule matches."_s);
    }

private:
    RuleEditServices services()
    {
        return {m_app->entries, [this] { return m_running; }};
    }

    QList<RoutingRule> stored() const
    {
        return m_app->stored().rules;
    }

    std::unique_ptr<AppFixture> m_app;
    QList<RunningAppInfo> m_running;
    QByteArray m_home;
};

void TestRulePanes::init()
{
    m_app = std::make_unique<AppFixture>();
    // Profile files live in the test's home.
    m_home = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(m_app->environment.path()));
    writeFile(m_app->entries.add(u"google-chrome"_s, u"Google Chrome"_s).path, {});
    writeFile(
        m_app->environment.path() + u"/config/google-chrome/Local State"_s,
        R"({"profile":{"info_cache":{"Default":{"name":"Person 1"},"Profile 1":{"name":"Work"}}}})");
    writeFile(m_app->environment.path() + u"/.mozilla/firefox/profiles.ini"_s,
              "[Profile0]\nName=default-release\nPath=x\n\n[Profile1]\nName=Testing\nPath=y\n");
    m_running = {{u"org.gnome.Evolution"_s, u"Evolution"_s}, {u"org.example.Chat"_s, u"Chat"_s}};
    m_app->initial.fallbackBrowser = u"firefox"_s;
    m_app->start().browsers().refresh();
}

// Typed (blanks as "_", tabs and line breaks escaped: they arrive by pasting);
// saved (empty: Save stays disabled); the note's pattern (empty: no note).
void TestRulePanes::urlPatternIsNormalised_data()
{
    addRows({u"typed"_s, u"saved"_s, u"note"_s}, uR"(
blanks, upper-case scheme | __HTTPS://Example.com/Org__     | Example.com/Org       | Example.com/Org
one prefix only           | https://http://a.example.com    | http://a.example.com  | http://a.example.com
only the scheme           | https://                        |                       | </b>
wildcards stay            | *example.org*                   | *example.org*         |
inner blanks, case stay   | \tDocs.Example/A_B/\n           | Docs.Example/A_B/     |
blanks only               | ___                             |                       |
)");
}

QTEST_MAIN(TestRulePanes)
#include "tst_rulepanes.moc"
