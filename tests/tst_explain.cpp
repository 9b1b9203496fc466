#include "App/CommandLine.h"
#include "App/ExplainCommand.h"
#include "Storage/RuleStore.h"
#include "TestSupport.h"

#include <QProcess>
#include <QPromise>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

struct Result
{
    int exitCode;
    QString out;
    QString err;
};

} // namespace

class TestExplain final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void workedExamples_data();
    void workedExamples();
    void showsCleaningAndTrail();
    void noRouteAndPaused();
    void showsHostsAsCompared();
    void badInput_data();
    void badInput();
    void expandsOnlyShortLinksWhenAsked();
    void endToEnd();

private:
    Result explain(const QStringList &arguments);

    std::unique_ptr<TestEnvironment> m_environment;
    std::unique_ptr<QSettings> m_settings;
    QList<Link> m_expandCalls;
};

void TestExplain::init()
{
    m_environment = std::make_unique<TestEnvironment>();
    m_settings = m_environment->settings();
    RuleStore store(*m_settings);
    store.saveRules(workedExampleRules());
    store.saveDefaultBrowserBundleID(u"com.apple.Safari"_s);
    m_expandCalls.clear();
}

void TestExplain::cleanup()
{
    m_settings.reset();
    m_environment.reset();
}

Result TestExplain::explain(const QStringList &arguments)
{
    QString out;
    QString err;
    QTextStream outStream(&out);
    QTextStream errStream(&err);
    const ExplainCommand::Environment environment{
        *m_settings, [](const Link &url) { return url.host() == u"bit.ly"; },
        [this](const Link &url) {
            m_expandCalls.append(url);
            QPromise<Link> promise;
            promise.start();
            promise.addResult(link(u"https://docs.example.com/from-short-link"_s));
            promise.finish();
            return promise.future();
        }};
    // The command as the table declares it, over this test's settings and network.
    Command command = *CommandLine::command(u"explain"_s);
    command.run = [&](const CommandArguments &parsed, const CommandOutput &output) {
        return ExplainCommand::run(parsed, output, environment);
    };
    const int exitCode = command(arguments, {outStream, errStream, {}});
    return {exitCode, out, err};
}

void TestExplain::workedExamples_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("browser");
    QTest::addColumn<QString>("decidedBy");
    // One link per kind of answer; the router's own tests cover every case.
    QTest::newRow("combined")
        << u"https://meet.example.org/abc"_s << u"com.example.chat"_s << u"com.apple.Safari"_s
        << u"app rule for com.example.chat with pattern \"*meet.example.org*\", rule 2 of 6"_s;
    QTest::newRow("source-only") << u"https://docs.example.com/x"_s << u"com.example.chat"_s
                                 << u"com.google.Chrome"_s
                                 << u"app rule for every link from com.example.chat, rule 1 of 6"_s;
    QTest::newRow("URL rule with profile")
        << u"https://docs.example.com/guide"_s << u"com.example.mail"_s << u"com.google.Chrome"_s
        << u"URL rule with pattern \"docs.example.com\", rule 4 of 6"_s;
    QTest::newRow("fallback") << u"https://notexample.com/"_s << QString() << u"com.apple.Safari"_s
                              << u"fallback (no rule matched)"_s;
}

void TestExplain::workedExamples()
{
    QFETCH(QString, url);
    QFETCH(QString, from);
    QFETCH(QString, browser);
    QFETCH(QString, decidedBy);

    QStringList arguments{url};
    if (!from.isEmpty())
        arguments << u"--from"_s << from;
    const Result result = explain(arguments);
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.out.contains(u"\nBrowser:    "_s + browser + u'\n'), qPrintable(result.out));
    QVERIFY2(result.out.contains(u"\nDecided by: "_s + decidedBy), qPrintable(result.out));
    QCOMPARE(result.out.contains(u"Profile:    Profile 1"_s), url.endsWith(u"/guide"_s));
}

void TestExplain::showsCleaningAndTrail()
{
    const Result result = explain(
        {u"https://docs.example.com/guide?utm_source=x&id=1"_s, u"--from=com.example.mail"_s});
    QCOMPARE(result.exitCode, 0);
    const QStringList lines = result.out.split(u'\n');
    QCOMPARE(lines.value(0), u"Link:       https://docs.example.com/guide?utm_source=x&id=1"_s);
    QCOMPARE(lines.value(1), u"Cleaned:    https://docs.example.com/guide?id=1"_s);
    QCOMPARE(lines.value(2), u"Source:     com.example.mail"_s);
    QVERIFY(lines.contains(u"Router trail:"_s));
    QVERIFY(lines.contains(
        u"  route() called — url=https://docs.example.com/guide?id=1, source=com.example.mail, rules=6, fallback=com.apple.Safari"_s));
    QCOMPARE(lines.value(lines.size() - 2),
             u"  MATCHED url-only rule: pattern=docs.example.com → com.google.Chrome"_s);
    // The trail went to the output, not to the user's diagnostic file.
    QVERIFY(!QFile::exists(m_environment->diagnosticLogPath()));

    // A redirect wrapper: the link inside it on a line of its own, then cleaned.
    const Result wrapped = explain(
        {u"https://www.google.com/url?q=https%3A%2F%2Fdocs.example.com%2Fguide%3Futm_source%3Dx"_s});
    const QStringList wrappedLines = wrapped.out.split(u'\n');
    QCOMPARE(wrappedLines.value(1), u"Unwrapped:  https://docs.example.com/guide?utm_source=x"_s);
    QCOMPARE(wrappedLines.value(2), u"Cleaned:    https://docs.example.com/guide"_s);
    QVERIFY(wrapped.out.contains(u"\nBrowser:    com.google.Chrome\n"_s));

    // The fallback asks: explain says the window would appear.
    m_settings->setValue(u"fallback_asks"_s, true);
    const Result asked = explain({u"https://notexample.com/"_s});
    QCOMPARE(asked.exitCode, 0);
    QVERIFY2(asked.out.contains(u"\nBrowser:    ask (offered first: com.apple.Safari)\n"_s),
             qPrintable(asked.out));
    QVERIFY(asked.out.contains(u"\nDecided by: ask (no rule matched, and the fallback asks)"_s));
    m_settings->remove(u"fallback_asks"_s);

    m_settings->setValue(u"url_cleaning_enabled"_s, false);
    const Result unclean = explain({u"https://docs.example.com/?utm_source=x"_s});
    QVERIFY(unclean.out.contains(u"Cleaning:   off"_s));
    QVERIFY(unclean.out.contains(u"url=https://docs.example.com/?utm_source=x,"_s));
}

void TestExplain::noRouteAndPaused()
{
    RuleStore store(*m_settings);
    store.saveRules({});
    store.saveDefaultBrowserBundleID(QString());
    Result result = explain({u"https://e.com/"_s});
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.out.contains(u"Decided by: no route"_s));

    store.saveDefaultBrowserBundleID(u"firefox"_s);
    store.saveRulesEnabled(false);
    result = explain({u"https://e.com/"_s});
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.out.contains(u"Browser:    firefox\n"_s));
    QVERIFY(result.out.contains(u"Decided by: fallback (rules are paused)"_s));
}

void TestExplain::showsHostsAsCompared()
{
    RuleStore store(*m_settings);
    store.saveRules({makeRule(QString(), u"bücher.de"_s, u"firefox"_s)});
    const Result result = explain({u"https://www.BÜCHER.de./x"_s});
    QCOMPARE(result.exitCode, 0);
    QVERIFY2(result.out.contains(u"\nHost:       www.xn--bcher-kva.de\n"_s),
             qPrintable(result.out));
    QVERIFY2(result.out.contains(u"\nDecided by: URL rule with pattern \"bücher.de\" (compared as "
                                 "\"xn--bcher-kva.de\"), rule 1 of 1"_s),
             qPrintable(result.out));
}

void TestExplain::badInput_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    QTest::newRow("no link") << QStringList() << u"\"quillvane explain\" needs a link."_s;
    QTest::newRow("two links") << QStringList{u"https://a.com"_s, u"https://b.com"_s}
                               << u"takes a link, not \"https://b.com\""_s;
    QTest::newRow("unknown option") << QStringList{u"--frm"_s, u"x"_s}
                                    << u"\"--frm\" is not an option of \"quillvane explain\"."_s;
    QTest::newRow("empty source") << QStringList{u"https://a.com"_s, u"--from"_s, u" "_s}
                                  << u"--from needs an application id"_s;
    QTest::newRow("missing source")
        << QStringList{u"https://a.com"_s, u"--from"_s} << u"--from needs a value."_s;
    QTest::newRow("not a web link")
        << QStringList{u"ftp://a.com/x"_s}
        << u"Only http and https links can be routed; this link's scheme is \"ftp\"."_s;
}

void TestExplain::badInput()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);
    const Result result = explain(arguments);
    QCOMPARE(result.exitCode, 2);
    QVERIFY2(result.err.startsWith(u"quillvane: "_s), qPrintable(result.err));
    QVERIFY2(result.err.contains(error), qPrintable(result.err));
    QVERIFY(result.out.isEmpty());
}

void TestExplain::expandsOnlyShortLinksWhenAsked()
{
    Result result = explain({u"https://bit.ly/x"_s});
    QVERIFY(m_expandCalls.isEmpty());
    QVERIFY(result.out.contains(u"Browser:    com.apple.Safari"_s));

    result = explain({u"https://e.com/x"_s, u"--expand"_s});
    QVERIFY(m_expandCalls.isEmpty());

    result = explain({u"https://bit.ly/x?utm_source=y"_s, u"--expand"_s});
    QCOMPARE(m_expandCalls, QList<Link>{link(u"https://bit.ly/x"_s)});
    QVERIFY(result.out.contains(u"Expanded:   https://docs.example.com/from-short-link\n"_s));
    QVERIFY(result.out.contains(u"Browser:    com.google.Chrome"_s));
}

void TestExplain::endToEnd()
{
    QProcess process;
    process.setProgram(QStringLiteral(QUILLVANE_EXECUTABLE));
    process.setArguments({u"explain"_s, u"https://docs.example.com/guide?utm_source=x"_s,
                          u"--from"_s, u"com.example.mail"_s});
    process.start();
    QVERIFY(process.waitForFinished(10000));
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    QCOMPARE(process.exitCode(), 0);
    QVERIFY2(out.contains(u"Browser:    com.google.Chrome\nProfile:    Profile 1\n"_s),
             qPrintable(out));
    QVERIFY(process.readAllStandardError().isEmpty());

    process.setArguments({u"frobnicate"_s});
    process.start();
    QVERIFY(process.waitForFinished(10000));
    QCOMPARE(process.exitCode(), 2);
}

QTEST_GUILESS_MAIN(TestExplain)
#include "tst_explain.moc"
