#include "Models/Link.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestLink final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void components();
    void textIsKeptAsReceived_data();
    void textIsKeptAsReceived();
    void invalidCharactersAreEncoded_data();
    void invalidCharactersAreEncoded();
    void badInputIsRefused_data();
    void badInputIsRefused();
    void hugeLinks();
    void webLinks_data();
    void webLinks();
    void resolution_data();
    void resolution();
};

void TestLink::components()
{
    const auto parsed = Link::parse(u"HTTPS://User:Pw@Docs.Example.com:8443/a/b?x=1&y#frag"_s);
    QVERIFY(parsed);
    QCOMPARE(parsed->scheme(), u"HTTPS"_s);
    QCOMPARE(parsed->userInfo(), u"User:Pw"_s);
    QCOMPARE(parsed->host(), u"Docs.Example.com"_s);
    QCOMPARE(parsed->port(), 8443);
    QCOMPARE(parsed->path(), u"/a/b"_s);
    QCOMPARE(parsed->query(), u"x=1&y"_s);
    QCOMPARE(parsed->fragment(), u"frag"_s);

    const auto ipv6 = Link::parse(u"http://[::1]:8080/"_s);
    QVERIFY(ipv6);
    QCOMPARE(ipv6->host(), u"::1"_s);
    QCOMPARE(ipv6->port(), 8080);

    const auto bare = Link::parse(u"mailto:someone@example.com"_s);
    QVERIFY(bare);
    QVERIFY(!bare->hasHost());
    QCOMPARE(bare->path(), u"someone@example.com"_s);
    QCOMPARE(bare->query(), std::nullopt);
    QCOMPARE(bare->fragment(), std::nullopt);

    const auto emptyQuery = Link::parse(u"https://e.com/p?"_s);
    QCOMPARE(emptyQuery->query(), u""_s);
    QVERIFY(emptyQuery->queryItems().isEmpty());
}

void TestLink::textIsKeptAsReceived_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("case and order") << u"HTTPS://EXAMPLE.com/Path?B=2&a=1#Top"_s;
    QTest::newRow("percent escapes untouched") << u"https://e.com/a%2fb?q=%7e%41"_s;
    QTest::newRow("dot segments untouched") << u"https://e.com/a/../b/./c"_s;
    QTest::newRow("plus and empty items") << u"https://e.com/?a=1+2&&b="_s;
    QTest::newRow("default port kept") << u"https://e.com:443/"_s;
    QTest::newRow("no path") << u"https://e.com"_s;
}

void TestLink::textIsKeptAsReceived()
{
    QFETCH(QString, text);
    const auto parsed = Link::parse(text);
    QVERIFY(parsed);
    QCOMPARE(parsed->toString(), text);
}

void TestLink::invalidCharactersAreEncoded_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    QTest::newRow("space in path") << u"https://e.com/a b"_s << u"https://e.com/a%20b"_s;
    QTest::newRow("unicode path") << u"https://e.com/Bücher?q=ü"_s
                                  << u"https://e.com/B%C3%BCcher?q=%C3%BC"_s;
    QTest::newRow("lone percent") << u"https://e.com/100%"_s << u"https://e.com/100%25"_s;
    QTest::newRow("second hash") << u"https://e.com/#a#b"_s << u"https://e.com/#a%23b"_s;
    QTest::newRow("emoji") << u"https://e.com/😀"_s << u"https://e.com/%F0%9F%98%80"_s;
    QTest::newRow("surrounding blanks trimmed") << u"  https://e.com/\n"_s << u"https://e.com/"_s;
    // A browser reads "\" as "/" in http(s) links: so must the router, or the
    // rule for one host could send the user to another.
    QTest::newRow("backslash is a slash")
        << u"https://good.com\\@evil.com/"_s << u"https://good.com/@evil.com/"_s;
    QTest::newRow("backslash in query kept safe")
        << u"https://e.com/?a=\\"_s << u"https://e.com/?a=%5C"_s;
    QTest::newRow("at sign in user info") << u"https://a@b@c.com/"_s << u"https://a%40b@c.com/"_s;
}

void TestLink::invalidCharactersAreEncoded()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);
    const auto parsed = Link::parse(text);
    QVERIFY2(parsed, qPrintable(parsed ? QString() : parsed.error().description));
    QCOMPARE(parsed->toString(), expected);
}

void TestLink::badInputIsRefused_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    QTest::newRow("empty") << u"   "_s << u"The link is empty."_s;
    QTest::newRow("relative")
        << u"//example.com/x"_s
        << u"The link is not an absolute URL: it has no scheme such as \"https:\"."_s;
    QTest::newRow("no scheme")
        << u"example.com"_s
        << u"The link is not an absolute URL: it has no scheme such as \"https:\"."_s;
    QTest::newRow("NUL")
        << u"https://e.com/a\0b"_s
        << u"The link contains a control character (such as a line break or NUL)."_s;
    QTest::newRow("inner newline")
        << u"https://e.com/a\nb"_s
        << u"The link contains a control character (such as a line break or NUL)."_s;
    QTest::newRow("bad port") << u"https://e.com:80x/"_s
                              << u"The link's port is not a number from 0 to 65535."_s;
    QTest::newRow("port too big") << u"https://e.com:65536/"_s
                                  << u"The link's port is not a number from 0 to 65535."_s;
    QTest::newRow("space in host")
        << u"https://e .com/"_s << u"The link's host name is not valid."_s;
    QTest::newRow("encoded NUL in host")
        << u"https://e%00.com/"_s << u"The link's host name is not valid."_s;
    QTest::newRow("broken IP literal")
        << u"https://[::1/"_s << u"The link's host name is not valid."_s;
    QTest::newRow("lone surrogate")
        << (u"https://e.com/"_s + QChar(0xD800)) << u"The link contains invalid characters."_s;
}

void TestLink::badInputIsRefused()
{
    QFETCH(QString, text);
    QFETCH(QString, error);
    const auto parsed = Link::parse(text);
    QVERIFY(!parsed);
    QCOMPARE(parsed.error().description, error);
}

void TestLink::hugeLinks()
{
    const QString longPath = u"https://e.com/"_s + QString(100 * 1024, u'a');
    const auto hundredKiB = Link::parse(longPath);
    QVERIFY(hundredKiB);
    QCOMPARE(hundredKiB->toString().size(), longPath.size());

    const auto tooLong = Link::parse(QString(u"https://e.com/"_s + QString(Link::MaxLength, u'a')));
    QVERIFY(!tooLong);
    QVERIFY(tooLong.error().description.contains(u"longer than"_s));

    // Parsed, but too long to be one argument of a browser's command line.
    QString longest = u"https://e.com/"_s;
    longest.resize(Link::MaxLaunchableLength, u'a');
    QVERIFY(Link::parseWebLink(longest));
    const auto unlaunchable = Link::parseWebLink(QString(longest + u'a'));
    QCOMPARE(unlaunchable.error().description,
             u"The link is too long to hand to a browser: 130001 characters, where a browser "
             "takes at most 130000."_s);

    QVERIFY(!Link::fromUtf8("https://e.com/\xff\xfe"));
    QCOMPARE(Link::fromUtf8("https://e.com/\xff").error().description,
             u"The link is not valid UTF-8 text."_s);
    QCOMPARE(Link::fromUtf8("https://e.com/\xc3\xbc")->toString(), u"https://e.com/%C3%BC"_s);
}

void TestLink::webLinks_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    QTest::newRow("https") << u"https://e.com"_s << QString();
    QTest::newRow("HTTP upper case") << u"HTTP://e.com/"_s << QString();
    QTest::newRow("file")
        << u"file:///etc/passwd"_s
        << u"Only http and https links can be routed; this link's scheme is \"file\"."_s;
    QTest::newRow("javascript")
        << u"javascript:alert(1)"_s
        << u"Only http and https links can be routed; this link's scheme is \"javascript\"."_s;
    QTest::newRow("no host") << u"https:///x"_s << u"The link has no host name."_s;
    QTest::newRow("no slashes") << u"https:example.com"_s << u"The link has no host name."_s;
}

void TestLink::webLinks()
{
    QFETCH(QString, text);
    QFETCH(QString, error);
    const auto parsed = Link::parseWebLink(text);
    QCOMPARE(parsed ? QString() : parsed.error().description, error);
    if (parsed)
        QVERIFY(parsed->isWebLink());
}

void TestLink::resolution_data()
{
    QTest::addColumn<QString>("reference");
    QTest::addColumn<QString>("expected");
    // The base is http://a/b/c/d;p?q, as in RFC 3986's examples.
    QTest::newRow("g") << u"g"_s << u"http://a/b/c/g"_s;
    QTest::newRow("./g") << u"./g"_s << u"http://a/b/c/g"_s;
    QTest::newRow("/g") << u"/g"_s << u"http://a/g"_s;
    QTest::newRow("//g") << u"//g"_s << u"http://g"_s;
    QTest::newRow("?y") << u"?y"_s << u"http://a/b/c/d;p?y"_s;
    QTest::newRow("#s") << u"#s"_s << u"http://a/b/c/d;p?q#s"_s;
    QTest::newRow("../..") << u"../.."_s << u"http://a/"_s;
    QTest::newRow("../../../g") << u"../../../g"_s << u"http://a/g"_s;
    QTest::newRow("empty") << u""_s << u"http://a/b/c/d;p?q"_s;
    QTest::newRow("absolute") << u"https://other.org/x"_s << u"https://other.org/x"_s;
    QTest::newRow("backslashes as a browser reads them")
        << u"\\\\evil.com/x"_s << u"http://evil.com/x"_s;
    QTest::newRow("other scheme") << u"file:///etc/passwd"_s << u"file:///etc/passwd"_s;
}

void TestLink::resolution()
{
    QFETCH(QString, reference);
    QFETCH(QString, expected);
    const auto resolved = Link::parse(u"http://a/b/c/d;p?q"_s)->resolved(reference);
    QVERIFY(resolved);
    QCOMPARE(resolved->toString(), expected);
}

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
