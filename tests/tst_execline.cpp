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
