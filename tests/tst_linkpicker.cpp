// The window that asks where a link opens, driven as a person drives it: by
// the keyboard first, by objectName, offscreen.
#include "App/AppState.h"
#include "TestSupport.h"
#include "Views/LinkPicker.h"

#include <QCheckBox>
#include <QClipboard>
#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestLinkPicker final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void rowsAndKeys();
    void filterAndArrows();
    void cancelCopyAndClose();
    void linksWaitInLine();
    void choicesBecomeRules_data();
    void choicesBecomeRules();

private:
    // Asks about link from source; the answer lands in m_answers.
    void ask(const QString &link, std::optional<SourceApp> source = std::nullopt,
             const QString &offeredFirst = {});
    QStringList rowNames() const;
    template<typename T> T *child(const QString &name) const
    {
        T *found = m_picker->findChild<T *>(name);
        if (!found)
            qFatal("no %s", qPrintable(name));
        return found;
    }
    void press(int key, Qt::KeyboardModifiers modifiers = {})
    {
        QTest::keyClick(child<QListWidget>(u"pickerRows"_s), Qt::Key(key), modifiers);
    }

    std::unique_ptr<AppFixture> m_app;
    std::unique_ptr<LinkPicker> m_picker;
    QList<AskAnswer> m_answers;
    QByteArray m_home;
};

void TestLinkPicker::init()
{
    m_app = std::make_unique<AppFixture>();
    m_home = qgetenv("HOME");
    qputenv("HOME", QFile::encodeName(m_app->environment.path()));
    writeFile(m_app->environment.path() + u"/.mozilla/firefox/profiles.ini"_s,
              "[Profile0]\nName=default-release\nPath=x\n\n[Profile1]\nName=Work\nPath=y\n");
    m_app->start().refreshBrowsers();
    m_picker = std::make_unique<LinkPicker>(*m_app->state, m_app->entries);
    m_answers.clear();
}

void TestLinkPicker::cleanup()
{
    m_picker.reset();
    m_app.reset();
    qputenv("HOME", m_home);
}

void TestLinkPicker::ask(const QString &url, std::optional<SourceApp> source,
                         const QString &offeredFirst)
{
    m_picker->ask(AskRequest{link(url), std::move(source), {}, offeredFirst},
                  [this](const AskAnswer &answer) { m_answers.append(answer); });
}

QStringList TestLinkPicker::rowNames() const
{
    QStringList names;
    for (const QListWidgetItem *item : m_picker->shownRows())
        names.append(item->text());
    return names;
}

// The link shown as a person reads it, one row per browser and profile with
// the fallback's browser first, and a digit that opens its row at once.
void TestLinkPicker::rowsAndKeys()
{
    const QString longLink = u"https://xn--bcher-kva.de/"_s + QString(300, u'p') + u"?end"_s;
    ask(longLink, SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s}, u"safari"_s);
    QVERIFY(m_picker->isVisible());
    QCOMPARE(m_picker->windowTitle(), u"Open Link — Quillvane"_s);
    QCOMPARE(child<QLabel>(u"pickerHost"_s)->text(), u"bücher.de"_s);
    QLabel *shown = child<QLabel>(u"pickerLink"_s);
    QCOMPARE(shown->toolTip(), longLink);
    QVERIFY(shown->text().contains(u'…'));
    QVERIFY(shown->text().endsWith(u"?end"_s));
    QCOMPARE(child<QLabel>(u"pickerSource"_s)->text(), u"From Evolution"_s);
    QVERIFY(child<QLabel>(u"pickerWaiting"_s)->isHidden());
    QCOMPARE(rowNames(), (QStringList{u"1   Safari"_s, u"2   Firefox"_s,
                                      u"3   Firefox — default-release"_s,
                                      u"4   Firefox — Work"_s}));

    press(Qt::Key_4);
    QCOMPARE(m_answers.size(), 1);
    QCOMPARE(m_answers[0].kind, AskAnswer::Kind::Chosen);
    QCOMPARE(m_answers[0].browserID, u"firefox"_s);
    QCOMPARE(m_answers[0].profileID, u"Work"_s);
    QVERIFY(!m_answers[0].privateWindow);
    QVERIFY(!m_picker->isVisible());

    // Shift with the digit: a private window, where the browser has one.
    ask(u"https://a.example/"_s);
    QVERIFY(child<QCheckBox>(u"pickerRememberApp"_s)->isHidden());
    press(Qt::Key_1, Qt::ShiftModifier);
    QCOMPARE(m_answers[1].browserID, u"firefox"_s);
    QVERIFY(m_answers[1].privateWindow);
    ask(u"https://a.example/"_s);
    press(Qt::Key_4, Qt::ShiftModifier);
    QCOMPARE(m_answers[2].browserID, u"safari"_s);
    QVERIFY(!m_answers[2].privateWindow);
    // A digit beyond the rows opens nothing.
    ask(u"https://a.example/"_s);
    press(Qt::Key_9);
    QCOMPARE(m_answers.size(), 3);
    QVERIFY(m_picker->isVisible());
    // A click opens too.
    QListWidget *rows = child<QListWidget>(u"pickerRows"_s);
    rows->show();
    QTest::mouseClick(rows->viewport(), Qt::LeftButton, {},
                      rows->visualItemRect(m_picker->shownRows().at(1)).center());
    QCOMPARE(m_answers.size(), 4);
    QCOMPARE(m_answers[3].profileID, u"default-release"_s);
}

void TestLinkPicker::filterAndArrows()
{
    ask(u"https://a.example/"_s);
    // Typing goes to the filter, wherever the focus is; the digits follow the rows shown.
    QTest::keyClicks(child<QListWidget>(u"pickerRows"_s), u"wor"_s);
    QCOMPARE(child<QLineEdit>(u"pickerFilter"_s)->text(), u"wor"_s);
    QCOMPARE(rowNames(), QStringList{u"1   Firefox — Work"_s});
    QLineEdit *filter = child<QLineEdit>(u"pickerFilter"_s);
    filter->clear();
    QTest::keyClicks(filter, u"FIRE"_s);
    QCOMPARE(rowNames().size(), 3);
    QTest::keyClick(filter, Qt::Key_Down);
    QTest::keyClick(filter, Qt::Key_Down);
    QTest::keyClick(filter, Qt::Key_Return);
    QCOMPARE(m_answers.size(), 1);
    QCOMPARE(m_answers[0].profileID, u"Work"_s);
    // Each link starts unfiltered.
    ask(u"https://a.example/"_s);
    QVERIFY(filter->text().isEmpty());
    QCOMPARE(rowNames().size(), 4);
    QTest::keyClick(child<QListWidget>(u"pickerRows"_s), Qt::Key_Return, Qt::ShiftModifier);
    QCOMPARE(m_answers[1].browserID, u"firefox"_s);
    QVERIFY(m_answers[1].privateWindow);
}

// Nothing opens: Escape, closing the window, or copying the link instead.
void TestLinkPicker::cancelCopyAndClose()
{
    ask(u"https://a.example/one"_s);
    press(Qt::Key_Escape);
    QCOMPARE(m_answers.size(), 1);
    QCOMPARE(m_answers[0].kind, AskAnswer::Kind::Cancelled);
    QVERIFY(!m_picker->isVisible());

    ask(u"https://a.example/two"_s);
    press(Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(m_answers[1].kind, AskAnswer::Kind::Cancelled);
    QCOMPARE(QGuiApplication::clipboard()->text(), u"https://a.example/two"_s);

    ask(u"https://a.example/three"_s);
    m_picker->close();
    QCOMPARE(m_answers[2].kind, AskAnswer::Kind::Cancelled);
    QVERIFY(!m_picker->isVisible());
    QVERIFY(m_app->state->rules().isEmpty());
}

void TestLinkPicker::linksWaitInLine()
{
    for (const QString &url : {u"https://one.example/"_s, u"https://two.example/"_s,
                               u"https://three.example/"_s})
        ask(url);
    QCOMPARE(m_picker->waiting(), 3);
    QLabel *waiting = child<QLabel>(u"pickerWaiting"_s);
    QCOMPARE(waiting->text(), u"3 links waiting"_s);
    QVERIFY(!waiting->isHidden());
    QCOMPARE(child<QLabel>(u"pickerHost"_s)->text(), u"one.example"_s);
    press(Qt::Key_1);
    // The next, in order, in the same window.
    QVERIFY(m_picker->isVisible());
    QCOMPARE(child<QLabel>(u"pickerHost"_s)->text(), u"two.example"_s);
    QCOMPARE(waiting->text(), u"2 links waiting"_s);
    m_picker->close();
    QCOMPARE(child<QLabel>(u"pickerHost"_s)->text(), u"three.example"_s);
    QVERIFY(waiting->isHidden());
    press(Qt::Key_4);
    QVERIFY(!m_picker->isVisible());
    QCOMPARE(m_answers.size(), 3);
    QCOMPARE(m_answers[0].kind, AskAnswer::Kind::Chosen);
    QCOMPARE(m_answers[1].kind, AskAnswer::Kind::Cancelled);
    QCOMPARE(m_answers[2].browserID, u"safari"_s);
}

void TestLinkPicker::choicesBecomeRules_data()
{
    QTest::addColumn<bool>("byHost");
    QTest::addColumn<bool>("byApp");
    QTest::addColumn<QString>("source");
    QTest::addColumn<std::optional<QString>>("pattern");
    QTest::newRow("host") << true << false << QString() << std::optional(u"bücher.de"_s);
    QTest::newRow("app") << false << true << u"org.gnome.Evolution"_s
                         << std::optional<QString>();
    QTest::newRow("both") << true << true << u"org.gnome.Evolution"_s
                          << std::optional(u"bücher.de"_s);
}

void TestLinkPicker::choicesBecomeRules()
{
    QFETCH(bool, byHost);
    QFETCH(bool, byApp);
    QFETCH(QString, source);
    QFETCH(std::optional<QString>, pattern);
    ask(u"https://xn--bcher-kva.de/page"_s,
        SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s});
    QCheckBox *host = child<QCheckBox>(u"pickerRememberHost"_s);
    QCheckBox *app = child<QCheckBox>(u"pickerRememberApp"_s);
    QCOMPARE(host->text(), u"Always open links from bücher.de here"_s);
    QCOMPARE(app->text(), u"Always open links from Evolution here"_s);
    host->setChecked(byHost);
    app->setChecked(byApp);
    press(Qt::Key_3, Qt::ShiftModifier);
    QCOMPARE(m_app->state->rules().size(), 1);
    const RoutingRule rule = m_app->state->rules().first();
    QCOMPARE(rule.sourceAppBundleID, source);
    QCOMPARE(rule.sourceAppName, byApp ? u"Evolution"_s : QString());
    QCOMPARE(rule.urlPattern, pattern);
    QCOMPARE(rule.targetBrowserBundleID, u"firefox"_s);
    QCOMPARE(rule.targetBrowserName, u"Firefox"_s);
    QCOMPARE(rule.targetProfileID, u"Work"_s);
    QVERIFY(rule.openInPrivateWindow);

    // The next link from there is not asked about: the rule decides it.
    const RouteSettings settings = m_app->state->routeSettings();
    RoutePlan plan = RoutePlanner::prepare(link(u"https://xn--bcher-kva.de/other"_s),
                                           SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s},
                                           settings, RoutePolicy::linkTest());
    RoutePlanner::decide(plan, settings, RoutePolicy::linkTest());
    QCOMPARE(plan.result->browserBundleID, u"firefox"_s);
    QCOMPARE(plan.result->profileID, u"Work"_s);
}

QTEST_MAIN(TestLinkPicker)
#include "tst_linkpicker.moc"
