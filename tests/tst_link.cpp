#include "Models/Link.h"
#include "TestSupport.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestLink final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void components()
    {
        const Link parsed = link(u"HTTPS://User:Pw@Docs.Example.com:8443/a/b?x=1&y#frag"_s);
        QCOMPARE((QStringList{parsed.scheme(), parsed.userInfo(), parsed.host(), parsed.path(),
                              *parsed.query(), *parsed.fragment()}),
                 (QStringList{u"HTTPS"_s, u"User:Pw"_s, u"Docs.Example.com"_s, u"/a/b"_s,
                              u"x=1&y"_s, u"frag"_s}));
        QCOMPARE(parsed.port(), 8443);
        const Link ipv6 = link(u"http://[::1]:8080/"_s);
        QCOMPARE(ipv6.host(), u"::1"_s);
        QCOMPARE(ipv6.port(), 8080);
        const Link bare = link(u"mailto:someone@example.com"_s);
        QVERIFY(!bare.hasHost() && !bare.query() && !bare.fragment());
        QCOMPARE(bare.path(), u"someone@example.com"_s);
        const Link emptyQuery = link(u"https://e.com/p?"_s);
        QCOMPARE(emptyQuery.query(), u""_s);
        QVERIFY(emptyQuery.queryItems().isEmpty());
    }

    // What a link reads as once parsed: as received where it is valid, encoded
    // where it is not, or refused with the reason ("!" in front). A browser reads
    // "\" as "/" in http(s) links: so must the router, or the rule for one host
    // could send the user to another.
    void parse_data();
    void parse()
    {
        QFETCH(QString, text);
        QFETCH(QString, result);
        const auto parsed = Link::parse(text);
        QCOMPARE(parsed ? parsed->toString() : u'!' + parsed.error().description, result);
    }

    void hugeLinks()
    {
        const QString longPath = u"https://e.com/"_s + QString(100 * 1024, u'a');
        QCOMPARE(link(longPath).toString(), longPath);
        const auto tooLong =
            Link::parse(QString(u"https://e.com/"_s + QString(Link::MaxLength, u'a')));
        QVERIFY(!tooLong && tooLong.error().description.contains(u"longer than"_s));
        // Parsed, but too long to be one argument of a browser's command line.
        QString longest = u"https://e.com/"_s;
        longest.resize(Link::MaxLaunchableLength, u'a');
        QVERIFY(Link::parseWebLink(longest));
        QCOMPARE(Link::parseWebLink(QString(longest + u'a')).error().description,
                 u"The link is too long to hand to a browser: 130001 characters, where a browser "
                 "takes at most 130000."_s);

        QCOMPARE(Link::fromUtf8("https://e.com/\xff").error().description,
                 u"The link is not valid UTF-8 text."_s);
        QCOMPARE(Link::fromUtf8("https://e.com/\xc3\xbc")->toString(), u"https://e.com/%C3%BC"_s);
    }

    void webLinks_data();
    void webLinks()
    {
        QFETCH(QString, text);
        QFETCH(QString, error);
        const auto parsed = Link::parseWebLink(text);
        QCOMPARE(parsed ? QString() : parsed.error().description, error);
        QVERIFY(!parsed || parsed->isWebLink());
    }

    // The base is http://a/b/c/d;p?q, as in RFC 3986's examples; backslashes
    // are read as a browser reads them.
    void resolution_data();
    void resolution()
    {
        QFETCH(QString, reference);
        QFETCH(QString, expected);
        QCOMPARE(link(u"http://a/b/c/d;p?q"_s).resolved(reference)->toString(), expected);
    }
};

// The tables stand outside the class: moc reads a raw string as an ordinary one.

void TestLink::parse_data()
{
    addRows({u"text"_s, u"result"_s}, uR"(
case and order                | HTTPS://EXAMPLE.com/Path?B=2&a=1#Top | HTTPS://EXAMPLE.com/Path?B=2&a=1#Top
percent escapes untouched     | https://e.com/a%2fb?q=%7e%41   | https://e.com/a%2fb?q=%7e%41
dot segments untouched        | https://e.com/a/../b/./c       | https://e.com/a/../b/./c
plus and empty items          | https://e.com/?a=1+2&&b=       | https://e.com/?a=1+2&&b=
default port kept             | https://e.com:443/             | https://e.com:443/
no path                       | https://e.com                  | https://e.com
space in path                 | https://e.com/a b              | https://e.com/a%20b
unicode path                  | https://e.com/Bücher?q=ü       | https://e.com/B%C3%BCcher?q=%C3%BC
lone percent                  | https://e.com/100%             | https://e.com/100%25
second hash                   | https://e.com/#a#b             | https://e.com/#a%23b
emoji                         | https://e.com/😀               | https://e.com/%F0%9F%98%80
backslash is a slash          | https://good.com\@evil.com/    | https://good.com/@evil.com/
backslash in query kept safe  | https://e.com/?a=\             | https://e.com/?a=%5C
at sign in user info          | https://a@b@c.com/             | https://a%40b@c.com/
relative                      | //example.com/x                | !The link is not an absolute URL: it has no scheme such as "https:".
no scheme                     | example.com                    | !The link is not an absolute URL: it has no scheme such as "https:".
bad port                      | https://e.com:80x/             | !The link's port is not a number from 0 to 65535.
port too big                  | https://e.com:65536/           | !The link's port is not a number from 0 to 65535.
space in host                 | https://e .com/                | !The link's host name is not valid.
encoded NUL in host           | https://e%00.com/              | !The link's host name is not valid.
broken IP literal             | https://[::1/                  | !The link's host name is not valid.
)");
    const QString control =
        u"!The link contains a control character (such as a line break or NUL)."_s;
    QTest::newRow("surrounding blanks trimmed") << u"  https://e.com/\n"_s << u"https://e.com/"_s;
    QTest::newRow("empty") << u"   "_s << u"!The link is empty."_s;
    QTest::newRow("NUL") << u"https://e.com/a\0b"_s << control;
    QTest::newRow("inner newline") << u"https://e.com/a\nb"_s << control;
    QTest::newRow("lone surrogate") << QString(u"https://e.com/"_s + QChar(0xD800))
                                    << u"!The link contains invalid characters."_s;
}

void TestLink::webLinks_data()
{
    addRows({u"text"_s, u"error"_s}, uR"(
https          | https://e.com       |
HTTP uppercase | HTTP://e.com/       |
file           | file:///etc/passwd  | Only http and https links can be routed; this link's scheme is "file".
javascript     | javascript:alert(1) | Only http and https links can be routed; this link's scheme is "javascript".
no host        | https:///x          | The link has no host name.
no slashes     | https:example.com   | The link has no host name.
)");
}

void TestLink::resolution_data()
{
    addRows({u"reference"_s, u"expected"_s}, uR"(
g                   | g                   | http://a/b/c/g
./g                 | ./g                 | http://a/b/c/g
/g                  | /g                  | http://a/g
//g                 | //g                 | http://g
?y                  | ?y                  | http://a/b/c/d;p?y
#s                  | #s                  | http://a/b/c/d;p?q#s
../..               | ../..               | http://a/
../../../g          | ../../../g          | http://a/g
empty               |                     | http://a/b/c/d;p?q
absolute            | https://other.org/x | https://other.org/x
backslashes         | \\evil.com/x        | http://evil.com/x
other scheme        | file:///etc/passwd  | file:///etc/passwd
)");
}

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
