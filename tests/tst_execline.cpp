#include "Services/ExecLine.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestExecLine final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What the Desktop Entry Specification's quoting makes of an Exec line, the
    // arguments shown joined by " ; " (or the error).
    void split_data();
    void split()
    {
        QFETCH(QString, exec);
        QFETCH(QString, argv);
        const auto result = ExecLine::split(exec);
        QCOMPARE(result ? result->join(u" ; "_s) : result.error().description, argv);
    }

    void fieldCodes()
    {
        DesktopEntry entry;
        entry.id = u"web"_s;
        entry.path = u"/apps/web.desktop"_s;
        entry.name = u"Web"_s;
        const QString link = u"https://e.com/?a=%41&b=%u"_s;
        const auto forLink = [&](const QStringList &argv) {
            return ExecLine::forLink(argv, entry, link);
        };
        QCOMPARE(forLink({u"web"_s, u"%U"_s, u"%u"_s}), (QStringList{u"web"_s, link}));
        QCOMPARE(forLink({u"web"_s, u"--name=%c"_s, u"%%%d"_s, u"%i"_s, u"%k"_s}),
                 (QStringList{u"web"_s, u"--name=Web"_s, u"%"_s, u"/apps/web.desktop"_s, link}));
        // The link's own percent signs are never read as field codes.
        QCOMPARE(forLink({u"web"_s, u"--url=%u"_s}), (QStringList{u"web"_s, u"--url="_s + link}));
        // A quoted phrase is what a shell reads: the link never goes into one,
        // and goes in once only.
        QCOMPARE(forLink({u"sh"_s, u"-c"_s, u"web %u"_s}),
                 (QStringList{u"sh"_s, u"-c"_s, u"web "_s, link}));
        QCOMPARE(forLink({u"web"_s, u"--a=%u"_s, u"--b=%u"_s, u"%U"_s}),
                 (QStringList{u"web"_s, u"--a="_s + link, u"--b="_s}));
    }

    // Quillvane's own options (the user's extra arguments, a private window) go
    // just before the link, wherever the entry puts it, and never between the
    // markers of a Flatpak entry, which forwards what stands there as files.
    void optionsBeforeTheLink()
    {
        const QString link = u"https://e.com/"_s;
        const auto forLink = [&](const QString &exec, const QStringList &options) {
            return ExecLine::forLink(*ExecLine::split(exec), DesktopEntry(), link, options)
                .join(u' ');
        };
        const QStringList options{u"--incognito"_s, u"--class=work"_s};
        QCOMPARE(forLink(u"web --new %U --last"_s, options),
                 u"web --new --incognito --class=work https://e.com/ --last"_s);
        QCOMPARE(forLink(u"web"_s, options), u"web --incognito --class=work https://e.com/"_s);
        QCOMPARE(forLink(u"web --url=%u"_s, options),
                 u"web --incognito --class=work --url=https://e.com/"_s);
        QCOMPARE(forLink(u"flatpak run org.mozilla.firefox @@u %u @@"_s, {u"--private-window"_s}),
                 u"flatpak run org.mozilla.firefox --private-window @@u https://e.com/ @@"_s);
        // After "--" an option would be an operand.
        QCOMPARE(forLink(u"chromium -- %U"_s, {u"--incognito"_s}),
                 u"chromium --incognito -- https://e.com/"_s);
    }

    void extraArguments_data();
    void extraArguments()
    {
        QFETCH(QString, typed);
        QFETCH(QString, arguments);
        const auto split = ExecLine::splitExtraArguments(typed);
        QCOMPARE(split ? split->join(u" ; "_s) : split.error().description, arguments);
    }

    // The link given to an interpreter as code to run is refused, however the
    // Exec line hides it; a link given as data is not.
    void linksNeverRunAsCode_data();
    void linksNeverRunAsCode()
    {
        QFETCH(QString, exec);
        QFETCH(QString, interpreter);
        const QString link = u"https://e.com/;id;$IFS"_s;
        DesktopEntry entry;
        entry.path = u"/apps/x.desktop"_s;
        const auto refused = ExecLine::linkRunsAsCode(
            ExecLine::forLink(*ExecLine::split(exec), entry, link), link, entry.path);
        QCOMPARE(refused.value_or(QString()),
                 interpreter.isEmpty()
                     ? QString()
                     : u"Quillvane does not start /apps/x.desktop: its Exec line gives the link "
                       "to %1 as a command to run, and a link could then run anything."_s.arg(
                           interpreter));
    }
};

// The tables stand outside the class: moc reads a raw string as an ordinary one.

void TestExecLine::split_data()
{
    addRows({u"exec"_s, u"argv"_s}, uR"(
plain                  | firefox-esr %u                     | firefox-esr ; %u
double quotes          | "/opt/My Browser/run" --x="a b" %U | /opt/My Browser/run ; --x=a b ; %U
escapes inside quotes  | "a\"b\\c\$d\`e\n"                  | a"b\c$d`e\n
single quotes          | sh -c 'echo "$1"' x                | sh ; -c ; echo "$1" ; x
unquoted backslash     | a\ b                               | a b
unterminated           | "firefox %u                        | The Exec line has an unterminated quote.
unterminated single    | firefox 'x                         | The Exec line has an unterminated quote.
empty                  |                                    | The Exec line names no program.
empty program          | "" %u                              | The Exec line names no program.
)");
    QTest::newRow("blanks and tabs") << u"  a \t b  "_s << u"a ; b"_s;
}

void TestExecLine::extraArguments_data()
{
    const QString fieldCode = u"holds the field code %1: extra arguments cannot place the "
                              "link or a file. Write %% for a percent sign."_s;
    addRows({u"typed"_s, u"arguments"_s}, uR"(
nothing      |                               |
quoted       | --user-agent="A B" --x 'c d'  | --user-agent=A B ; --x ; c d
percent sign | --zoom=150%%                  | --zoom=150%
link code    | --app=%u                      | “--app=%u” $U
file code    | %F                            | “%F” $F
unterminated | --x "a                        | The extra arguments have an unterminated quote.
)"_s.replace(u"$U"_s, fieldCode.arg(u"%u"_s))
                                              .replace(u"$F"_s, fieldCode.arg(u"%F"_s)));
}

void TestExecLine::linksNeverRunAsCode_data()
{
    addRows({u"exec"_s, u"interpreter"_s}, uR"(
sh -c %u                         | sh -c %u                    | sh
options clustered, full path     | /usr/bin/bash -ec %u        | bash
behind env                       | env LANG=C dash -c %u       | dash
no code: the link is the command | sh -c                       | sh
glued into the command           | sh -c run%u                 | sh
busybox                          | busybox sh -c %u            | sh
an option with a value first     | bash -o posix -c %u         | bash
python                           | python3 -c %u               | python3
perl                             | perl -e %u                  | perl
the link as $1                   | sh -c 'web "$1"' sh %u      |
exec "$@" of a fixed command     | sh -c 'exec web "$@"' sh %u |
a script                         | bash /opt/web.sh %u         |
long options                     | bash --norc script %u       |
a browser                        | firefox -c %u               |
after --                         | sh -c -- %u                 | sh
the link evaluated as $1         | sh -c 'eval "$1"' sh %u     | sh
the link as the script read      | bash %u                     | bash
the script from standard input   | bash -s %u                  |
env -S                           | env -S "sh -c" %u           | sh
env -S glued, with options       | env -iS"LANG=C dash -ec" %u | dash
env --split-string=              | env --split-string='sh -c' %u | sh
nohup                            | nohup sh -c %u              | sh
setsid and nice                  | setsid -f nice -n 5 sh -c %u | sh
ionice, stdbuf and timeout       | ionice -c 3 stdbuf -oL timeout -s KILL 10 sh -c %u | sh
flatpak-spawn to the host        | flatpak-spawn --host --env=A=1 --directory /tmp sh -c %u | sh
a wrapper Quillvane does not know | sudo -u web sh -c %u       | sh
a program named like a shell, as data | web --profile sh %u    |
)");
}

QTEST_GUILESS_MAIN(TestExecLine)
#include "tst_execline.moc"
