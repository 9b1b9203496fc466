#include "Services/ExecLine.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestExecLine final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void split_data();
    void split();
    void fieldCodes();
    void optionsBeforeTheLink();
    void extraArguments_data();
    void extraArguments();
    void linksNeverRunAsCode_data();
    void linksNeverRunAsCode();
};

void TestExecLine::split_data()
{
    QTest::addColumn<QString>("exec");
    QTest::addColumn<QStringList>("argv");
    QTest::addColumn<QString>("error");
    QTest::newRow("plain") << u"firefox-esr %u"_s << QStringList{u"firefox-esr"_s, u"%u"_s}
                           << QString();
    QTest::newRow("blanks and tabs") << u"  a \t b  "_s << QStringList{u"a"_s, u"b"_s} << QString();
    QTest::newRow("double quotes")
        << uR"("/opt/My Browser/run" --x="a b" %U)"_s
        << QStringList{u"/opt/My Browser/run"_s, u"--x=a b"_s, u"%U"_s} << QString();
    QTest::newRow("escapes inside quotes")
        << uR"("a\"b\\c\$d\`e\n")"_s << QStringList{uR"(a"b\c$d`e\n)"_s} << QString();
    QTest::newRow("single quotes")
        << u"sh -c 'echo \"$1\"' x"_s << QStringList{u"sh"_s, u"-c"_s, u"echo \"$1\""_s, u"x"_s}
        << QString();
    QTest::newRow("unquoted backslash") << uR"(a\ b)"_s << QStringList{u"a b"_s} << QString();
    QTest::newRow("unterminated") << u"\"firefox %u"_s << QStringList()
                                  << u"The Exec line has an unterminated quote."_s;
    QTest::newRow("unterminated single")
        << u"firefox 'x"_s << QStringList() << u"The Exec line has an unterminated quote."_s;
    QTest::newRow("empty") << u"   "_s << QStringList() << u"The Exec line names no program."_s;
    QTest::newRow("empty program")
        << u"\"\" %u"_s << QStringList() << u"The Exec line names no program."_s;
}

void TestExecLine::split()
{
    QFETCH(QString, exec);
    QFETCH(QStringList, argv);
    QFETCH(QString, error);
    const auto result = ExecLine::split(exec);
    QCOMPARE(result ? QString() : result.error().description, error);
    if (result)
        QCOMPARE(*result, argv);
}

void TestExecLine::fieldCodes()
{
    DesktopEntry entry;
    entry.id = u"web"_s;
    entry.path = u"/apps/web.desktop"_s;
    entry.name = u"Web"_s;
    const QString link = u"https://e.com/?a=%41&b=%u"_s;

    QCOMPARE(ExecLine::forLink({u"web"_s, u"%U"_s, u"%u"_s}, entry, link),
             (QStringList{u"web"_s, link}));
    QCOMPARE(
        ExecLine::forLink({u"web"_s, u"--name=%c"_s, u"%%%d"_s, u"%i"_s, u"%k"_s}, entry, link),
        (QStringList{u"web"_s, u"--name=Web"_s, u"%"_s, u"/apps/web.desktop"_s, link}));
    // The link's own percent signs are never read as field codes.
    QCOMPARE(ExecLine::forLink({u"web"_s, u"--url=%u"_s}, entry, link),
             (QStringList{u"web"_s, u"--url="_s + link}));
    // A quoted phrase is what a shell reads: the link never goes into one,
    // and goes in once only.
    QCOMPARE(ExecLine::forLink({u"sh"_s, u"-c"_s, u"web %u"_s}, entry, link),
             (QStringList{u"sh"_s, u"-c"_s, u"web "_s, link}));
    QCOMPARE(ExecLine::forLink({u"web"_s, u"--a=%u"_s, u"--b=%u"_s, u"%U"_s}, entry, link),
             (QStringList{u"web"_s, u"--a="_s + link, u"--b="_s}));

    QCOMPARE(
        ExecLine::withoutFieldCodes({u"flatpak"_s, u"run"_s, u"app"_s, u"@@u"_s, u"%U"_s, u"@@"_s}),
        (QStringList{u"flatpak"_s, u"run"_s, u"app"_s}));
    QCOMPARE(ExecLine::withoutFieldCodes({u"web"_s, u"--class=%c"_s, u"100%%"_s, u"%i"_s}),
             (QStringList{u"web"_s, u"--class="_s, u"100%"_s}));
}

// Quillvane's own options (the user's extra arguments, a private window) go
// just before the link, wherever the entry puts it, and never between the
// markers of a Flatpak entry, which forwards what stands there as files.
void TestExecLine::optionsBeforeTheLink()
{
    DesktopEntry entry;
    const QString link = u"https://e.com/"_s;
    const QStringList options{u"--incognito"_s, u"--class=work"_s};
    QCOMPARE(ExecLine::forLink({u"web"_s, u"--new"_s, u"%U"_s, u"--last"_s}, entry, link, options),
             (QStringList{u"web"_s, u"--new"_s, u"--incognito"_s, u"--class=work"_s, link,
                          u"--last"_s}));
    QCOMPARE(ExecLine::forLink({u"web"_s}, entry, link, options),
             (QStringList{u"web"_s, u"--incognito"_s, u"--class=work"_s, link}));
    QCOMPARE(ExecLine::forLink({u"web"_s, u"--url=%u"_s}, entry, link, options),
             (QStringList{u"web"_s, u"--incognito"_s, u"--class=work"_s, u"--url="_s + link}));
    QCOMPARE(ExecLine::forLink({u"flatpak"_s, u"run"_s, u"org.mozilla.firefox"_s, u"@@u"_s,
                                u"%u"_s, u"@@"_s},
                               entry, link, {u"--private-window"_s}),
             (QStringList{u"flatpak"_s, u"run"_s, u"org.mozilla.firefox"_s,
                          u"--private-window"_s, u"@@u"_s, link, u"@@"_s}));
}

void TestExecLine::extraArguments_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    QTest::newRow("nothing") << u"  "_s << QStringList() << QString();
    QTest::newRow("quoted") << u"--user-agent=\"A B\" --x 'c d'"_s
                            << QStringList{u"--user-agent=A B"_s, u"--x"_s, u"c d"_s} << QString();
    QTest::newRow("percent sign") << u"--zoom=150%%"_s << QStringList{u"--zoom=150%"_s}
                                  << QString();
    QTest::newRow("link code") << u"--app=%u"_s << QStringList()
                               << u"“--app=%u” holds the field code %u: extra arguments cannot place the link or a file. Write %% for a percent sign."_s;
    QTest::newRow("file code") << u"%F"_s << QStringList()
                               << u"“%F” holds the field code %F: extra arguments cannot place the link or a file. Write %% for a percent sign."_s;
    QTest::newRow("unterminated") << u"--x \"a"_s << QStringList()
                                  << u"The extra arguments have an unterminated quote."_s;
}

void TestExecLine::extraArguments()
{
    QFETCH(QString, typed);
    QFETCH(QStringList, arguments);
    QFETCH(QString, error);
    const auto split = ExecLine::splitExtraArguments(typed);
    QCOMPARE(split ? QString() : split.error().description, error);
    if (split)
        QCOMPARE(*split, arguments);
}

void TestExecLine::linksNeverRunAsCode_data()
{
    QTest::addColumn<QString>("exec");
    QTest::addColumn<QString>("interpreter"); // empty: the link is data
    QTest::newRow("sh -c %u") << u"sh -c %u"_s << u"sh"_s;
    QTest::newRow("options clustered, full path") << u"/usr/bin/bash -ec %u"_s << u"bash"_s;
    QTest::newRow("behind env") << u"env LANG=C dash -c %u"_s << u"dash"_s;
    QTest::newRow("no code: the link appended as the command") << u"sh -c"_s << u"sh"_s;
    QTest::newRow("glued into the command") << u"sh -c run%u"_s << u"sh"_s;
    QTest::newRow("busybox") << u"busybox sh -c %u"_s << u"sh"_s;
    QTest::newRow("an option with a value first") << u"bash -o posix -c %u"_s << u"bash"_s;
    QTest::newRow("python") << u"python3 -c %u"_s << u"python3"_s;
    QTest::newRow("perl") << u"perl -e %u"_s << u"perl"_s;
    QTest::newRow("the link as $1") << u"sh -c 'web \"$1\"' sh %u"_s << QString();
    QTest::newRow("a script") << u"bash /opt/web.sh %u"_s << QString();
    QTest::newRow("long options") << u"bash --norc script %u"_s << QString();
    QTest::newRow("a browser") << u"firefox -c %u"_s << QString();
}

void TestExecLine::linksNeverRunAsCode()
{
    QFETCH(QString, exec);
    QFETCH(QString, interpreter);
    const QString link = u"https://e.com/;id;$IFS"_s;
    DesktopEntry entry;
    entry.path = u"/apps/x.desktop"_s;
    const QStringList command = ExecLine::forLink(*ExecLine::split(exec), entry, link);
    const auto refused = ExecLine::linkRunsAsCode(command, link, entry.path);
    if (interpreter.isEmpty()) {
        QVERIFY2(!refused, qPrintable(refused.value_or(QString())));
        return;
    }
    QVERIFY(refused);
    QCOMPARE(*refused,
             u"Quillvane does not start /apps/x.desktop: its Exec line gives the link "
             "to %1 as a command to run, and a link could then run anything."_s.arg(interpreter));
}

QTEST_GUILESS_MAIN(TestExecLine)
#include "tst_execline.moc"
