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
    void init()
    {
        m_app = std::make_unique<AppFixture>();
        m_home = qgetenv("HOME");
        qputenv("HOME", QFile::encodeName(m_app->environment.path()));
        writeFile(m_app->environment.path() + u"/.mozilla/firefox/profiles.ini"_s,
                  "[Profile0]\nName=default-release\nPath=x\n\n[Profile1]\nName=Work\nPath=y\n");
        m_app->start().browsers().refresh();
        m_picker = std::make_unique<LinkPicker>(*m_app->state, m_app->entries);
        m_answers.clear();
    }

    void cleanup()
    {
        m_picker.reset();
        m_app.reset();
        qputenv("HOME", m_home);
    }

    // The link shown as a person reads it, one row per browser and profile with
    // the fallback's browser first, and a digit that opens its row at once (with
    // Shift, in a private window where the browser has one).
    void rowsAndKeys()
    {
        const QString longLink = u"https://xn--bcher-kva.de/"_s + QString(300, u'p') + u"?end"_s;
        ask(longLink, SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s}, u"safari"_s);
        QVERIFY(m_picker->isVisible());
        // A window of one size, which tiling compositors (sway) float instead of tiling.
        QVERIFY(m_picker->minimumSize() == m_picker->maximumSize() && !m_picker->minimumSize().isEmpty());
        QCOMPARE(find<QLabel>(u"pickerHost"_s)->text(), u"bücher.de"_s);
        QLabel *shown = find<QLabel>(u"pickerLink"_s);
        QCOMPARE(shown->toolTip(), longLink);
        QVERIFY(shown->text().contains(u'…') && shown->text().endsWith(u"?end"_s));
        QVERIFY(find<QLabel>(u"pickerWaiting"_s)->isHidden());
        QCOMPARE(rowNames(),
                 (QStringList{u"1   Safari"_s, u"2   Firefox"_s, u"3   Firefox — default-release"_s,
                              u"4   Firefox — Work"_s}));
        press(Qt::Key_4);
        QCOMPARE(answer(), u"firefox Work"_s);
        QVERIFY(!m_picker->isVisible());

        ask(u"https://a.example/"_s);
        QVERIFY(find<QCheckBox>(u"pickerRememberApp"_s)->isHidden());
        press(Qt::Key_1, Qt::ShiftModifier);
        QCOMPARE(answer(), u"firefox - private"_s);
        ask(u"https://a.example/"_s);
        press(Qt::Key_4, Qt::ShiftModifier);
        QCOMPARE(answer(), u"safari -"_s);
        // A digit beyond the rows opens nothing; a click opens too.
        ask(u"https://a.example/"_s);
        press(Qt::Key_9);
        QCOMPARE(m_answers.size(), 3);
        QListWidget *rows = find<QListWidget>(u"pickerRows"_s);
        rows->show();
        QTest::mouseClick(rows->viewport(), Qt::LeftButton, {},
                          rows->visualItemRect(m_picker->shownRows().at(1)).center());
        QCOMPARE(answer(), u"firefox default-release"_s);
    }

    // Typing goes to the filter, wherever the focus is; the digits and arrows
    // follow the rows shown; each link starts unfiltered.
    void filterAndArrows()
    {
        ask(u"https://a.example/"_s);
        QTest::keyClicks(find<QListWidget>(u"pickerRows"_s), u"wor"_s);
        QLineEdit *filter = find<QLineEdit>(u"pickerFilter"_s);
        QCOMPARE(filter->text(), u"wor"_s);
        QCOMPARE(rowNames(), QStringList{u"1   Firefox — Work"_s});
        filter->clear();
        QTest::keyClicks(filter, u"FIRE"_s);
        QCOMPARE(rowNames().size(), 3);
        for (Qt::Key key : {Qt::Key_Down, Qt::Key_Down, Qt::Key_Return})
            QTest::keyClick(filter, key);
        QCOMPARE(answer(), u"firefox Work"_s);
        ask(u"https://a.example/"_s);
        QVERIFY(filter->text().isEmpty());
        QCOMPARE(rowNames().size(), 4);
        QTest::keyClick(find<QListWidget>(u"pickerRows"_s), Qt::Key_Return, Qt::ShiftModifier);
        QCOMPARE(answer(), u"firefox - private"_s);
    }

    // Escape, closing the window, or copying the link instead: nothing opens.
    void nothingOpens()
    {
        ask(u"https://a.example/one"_s);
        press(Qt::Key_Escape);
        QCOMPARE(answer(), u"cancelled"_s);
        QVERIFY(!m_picker->isVisible());
        ask(u"https://a.example/two"_s);
        press(Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(answer(), u"cancelled"_s);
        QCOMPARE(QGuiApplication::clipboard()->text(), u"https://a.example/two"_s);
        ask(u"https://a.example/three"_s);
        m_picker->close();
        QCOMPARE(m_answers.size(), 3);
        QCOMPARE(answer(), u"cancelled"_s);
        QVERIFY(!m_picker->isVisible());
        QVERIFY(m_app->state->rules().isEmpty());
    }

    // Links that arrive meanwhile wait in the same window, in order.
    void linksWaitInLine()
    {
        for (const QString &url :
             {u"https://one.example/"_s, u"https://two.example/"_s, u"https://three.example/"_s})
            ask(url);
        QCOMPARE(m_picker->waiting(), 3);
        QLabel *waiting = find<QLabel>(u"pickerWaiting"_s);
        QLabel *host = find<QLabel>(u"pickerHost"_s);
        QVERIFY(!waiting->isHidden());
        QCOMPARE(host->text(), u"one.example"_s);
        press(Qt::Key_1);
        QVERIFY(m_picker->isVisible());
        QCOMPARE(host->text(), u"two.example"_s);
        m_picker->close();
        QCOMPARE(host->text(), u"three.example"_s);
        QVERIFY(waiting->isHidden());
        press(Qt::Key_4);
        QVERIFY(!m_picker->isVisible());
        QCOMPARE(m_answers.size(), 3);
        QCOMPARE(m_answers[1].kind, AskAnswer::Kind::Cancelled);
        QCOMPARE(answer(), u"safari -"_s);
    }

    void choicesBecomeRules_data()
    {
        QTest::addColumn<bool>("byHost");
        QTest::addColumn<bool>("byApp");
        QTest::newRow("host") << true << false;
        QTest::newRow("app") << false << true;
        QTest::newRow("both") << true << true;
    }

    // A ticked box makes a URL rule, an app rule, or one rule for both, with the
    // browser, profile and private window chosen; the next link from there is
    // the rule's.
    void choicesBecomeRules()
    {
        QFETCH(bool, byHost);
        QFETCH(bool, byApp);
        const SourceApp evolution{u"org.gnome.Evolution"_s, u"Evolution"_s};
        ask(u"https://xn--bcher-kva.de/page"_s, evolution);
        QCheckBox *host = find<QCheckBox>(u"pickerRememberHost"_s);
        QCheckBox *app = find<QCheckBox>(u"pickerRememberApp"_s);
        host->setChecked(byHost);
        app->setChecked(byApp);
        press(Qt::Key_3, Qt::ShiftModifier);
        QCOMPARE(m_app->state->rules().size(), 1);
        const RoutingRule rule = m_app->state->rules().first();
        QCOMPARE(rule.sourceAppId, byApp ? evolution.desktopId : QString());
        QCOMPARE(rule.sourceAppName, byApp ? evolution.name : QString());
        QCOMPARE(rule.urlPattern, byHost ? std::optional(u"bücher.de"_s) : std::nullopt);
        QCOMPARE((QStringList{rule.targetBrowserId, rule.targetBrowserName,
                              rule.targetProfileID.value_or(QString())}),
                 (QStringList{u"firefox"_s, u"Firefox"_s, u"Work"_s}));
        QVERIFY(rule.openInPrivateWindow);
        const RouteSettings settings = m_app->state->routeSettings();
        RoutePlan plan = RoutePlanner::prepare(link(u"https://xn--bcher-kva.de/other"_s), evolution,
                                               settings, RoutePolicy::linkTest());
        RoutePlanner::decide(plan, settings, RoutePolicy::linkTest());
        QCOMPARE(plan.result, (RouteResult{u"firefox"_s, u"Work"_s, true}));
    }

private:
    void ask(const QString &url, std::optional<SourceApp> source = std::nullopt,
             const QString &offeredFirst = {})
    {
        m_picker->ask(AskRequest{link(url), std::move(source), {}, offeredFirst},
                      [this](const AskAnswer &answer) { m_answers.append(answer); });
    }

    QStringList rowNames() const
    {
        QStringList names;
        for (const QListWidgetItem *item : m_picker->shownRows())
            names.append(item->text());
        return names;
    }

    // The last answer: its kind, browser, profile and private window, in a line.
    QString answer() const
    {
        if (m_answers.isEmpty())
            return u"none"_s;
        const AskAnswer &last = m_answers.last();
        return last.kind == AskAnswer::Kind::Cancelled
                   ? u"cancelled"_s
                   : last.browserID + u' ' + last.profileID.value_or(u"-"_s)
                         + (last.privateWindow ? u" private"_s : QString());
    }

    template<typename T> T *find(const QString &name) const
    {
        return child<T>(m_picker.get(), name);
    }

    void press(int key, Qt::KeyboardModifiers modifiers = {})
    {
        QTest::keyClick(find<QListWidget>(u"pickerRows"_s), Qt::Key(key), modifiers);
    }

    std::unique_ptr<AppFixture> m_app;
    std::unique_ptr<LinkPicker> m_picker;
    QList<AskAnswer> m_answers;
    QByteArray m_home;
};

QTEST_MAIN(TestLinkPicker)
#include "tst_linkpicker.moc"
