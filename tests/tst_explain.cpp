// "quillvane explain": the route a link would take, in words, from the stored
// rules and settings; run in-process over the test's own settings and network.
#include "App/CommandLine.h"
#include "App/ExplainCommand.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestExplain final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_environment = std::make_unique<TestEnvironment>();
        m_config = Config();
        m_config.rules = workedExampleRules();
        m_config.fallbackBrowser = u"com.apple.Safari"_s;
        m_expandCalls.clear();
    }

    // One link per kind of answer (the router's own tests cover every case); each
    // row's text is what the answer's lines hold. Hosts are shown as compared.
    void decisions_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("setting"); // changed before: no rules, a Unicode rule, a handoff
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("lines");
        QTest::newRow("combined") << QStringList{u"https://meet.example.org/abc"_s, u"--from"_s,
                                                 u"com.example.chat"_s}
                                  << QString() << 0
                                  << QStringList{
                                         u"Browser:    com.apple.Safari\n"_s,
                                         u"Decided by: app rule for com.example.chat with pattern "
                                         "\"*meet.example.org*\", rule 2 of 6"_s};
        QTest::newRow("URL rule with profile")
            << QStringList{u"https://docs.example.com/guide"_s} << QString() << 0
            << QStringList{
                   u"Browser:    com.google.Chrome\nProfile:    Profile 1\n"_s,
                   u"Decided by: URL rule with pattern \"docs.example.com\", rule 4 of 6"_s};
        QTest::newRow("no route") << QStringList{u"https://e.com/"_s} << u"nothing"_s << 1
                                  << QStringList{u"Decided by: no route"_s};
        const QString zoom = u"https://acme.zoom.us/j/123456789"_s;
        const QString app = u"Handoff:    Zoom → zoommtg://zoom.us/join?confno=123456789"_s;
        QTest::newRow("handoff") << QStringList{zoom} << u"zoom on"_s << 0
                                 << QStringList{app + u"\nApp:        us.zoom.Zoom (Zoom)\n"_s,
                                                u"Decided by: handoff to Zoom's app"_s};
        QTest::newRow("hosts as compared")
            << QStringList{u"https://www.BÜCHER.de./x"_s} << u"Unicode rule"_s << 0
            << QStringList{u"\nHost:       www.xn--bcher-kva.de\n"_s,
                           u"Decided by: URL rule with pattern \"bücher.de\" (compared as "
                           "\"xn--bcher-kva.de\"), rule 1 of 1"_s};
    }

    void decisions()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, setting);
        QFETCH(int, exitCode);
        QFETCH(QStringList, lines);
        if (setting == u"nothing") {
            m_config.rules.clear();
            m_config.fallbackBrowser.clear();
        }
        m_config.handoffs = setting == u"zoom on" ? QStringList{u"zoom"_s} : QStringList();
        if (setting == u"Unicode rule")
            m_config.rules = {makeRule(QString(), u"bücher.de"_s, u"firefox"_s)};
        const auto [code, out] = explain(arguments);
        QCOMPARE(code, exitCode);
        for (const QString &line : lines)
            QVERIFY2(out.contains(line), qPrintable(out));
        // A profile only where the rule names one.
        QCOMPARE(out.contains(u"Profile:"_s), arguments.first().endsWith(u"/guide"_s));
    }

    // The link as received, unwrapped and cleaned, each on a line of its own
    // (cleaning can be off), and the router's trail, which goes to the output, not
    // to the user's diagnostic file.
    void showsTheTrail()
    {
        const QString out = explain({u"https://docs.example.com/guide?utm_source=x&id=1"_s}).second;
        QVERIFY2(out.contains(u"  MATCHED url-only rule: pattern=docs.example.com → com.google.Chrome"_s),
                 qPrintable(out));
        QVERIFY(!QFile::exists(m_environment->diagnosticLogPath()));
    }

    void expandsOnlyShortLinksWhenAsked()
    {
        QVERIFY(
            explain({u"https://bit.ly/x"_s}).second.contains(u"Browser:    com.apple.Safari"_s));
        explain({u"https://e.com/x"_s, u"--expand"_s});
        QVERIFY(m_expandCalls.isEmpty());
        const QString out = explain({u"https://bit.ly/x?utm_source=y"_s, u"--expand"_s}).second;
        QCOMPARE(m_expandCalls, QList<Link>{link(u"https://bit.ly/x"_s)});
        QVERIFY(out.contains(u"Expanded:   https://docs.example.com/from-short-link\n"_s));
        QVERIFY(out.contains(u"Browser:    com.google.Chrome"_s));
    }

private:
    // Exit status, then standard output, or standard error where it said something.
    std::pair<int, QString> explain(const QStringList &arguments);

    std::unique_ptr<TestEnvironment> m_environment;
    Config m_config;
    QList<Link> m_expandCalls;
};

std::pair<int, QString> TestExplain::explain(const QStringList &arguments)
{
    QString out;
    QString err;
    QTextStream outStream(&out);
    QTextStream errStream(&err);
    const ExplainCommand::Environment environment{
        m_config, [](const Link &url) { return url.host() == u"bit.ly"; },
        [this](const Link &url) {
            m_expandCalls.append(url);
            return QtFuture::makeReadyFuture(link(u"https://docs.example.com/from-short-link"_s));
        },
        [](const QString &scheme) {
            return scheme == u"zoommtg" ? std::optional(SchemeHandler{u"us.zoom.Zoom"_s, u"Zoom"_s})
                                        : std::nullopt;
        },
        [] { return QStringList{u"org.mozilla.firefox"_s}; }};
    // The command as the table declares it, over this test's settings and network.
    Command command = *CommandLine::command(u"explain"_s);
    command.run = [&](const CommandArguments &parsed, const CommandOutput &output) {
        return ExplainCommand::run(parsed, output, environment);
    };
    const int exitCode = command(arguments, {outStream, errStream, {}});
    return {exitCode, err.isEmpty() ? out : err};
}

QTEST_GUILESS_MAIN(TestExplain)
#include "tst_explain.moc"
