#include "Models/Link.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestLink final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void components();
    void parse_data();
    void parse();
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

// What a link reads as once parsed: as received where it is valid, encoded
// where it is not, or refused with the reason.
void TestLink::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("result"); // "!" in front: the error
    const QString noScheme =
        u"!The link is not an absolute URL: it has no scheme such as \"https:\"."_s;
    const QString control = u"!The link contains a control character (such as a line break or NUL)."_s;
    const QString port = u"!The link's port is not a number from 0 to 65535."_s;
    const QString host = u"!The link's host name is not valid."_s;
    const QList<std::tuple<const char *, QString, QString>> rows{
        // Kept as received.
        {"case and order", u"HTTPS://EXAMPLE.com/Path?B=2&a=1#Top"_s, {}},
        {"percent escapes untouched", u"https://e.com/a%2fb?q=%7e%41"_s, {}},
        {"dot segments untouched", u"https://e.com/a/../b/./c"_s, {}},
        {"plus and empty items", u"https://e.com/?a=1+2&&b="_s, {}},
        {"default port kept", u"https://e.com:443/"_s, {}},
        {"no path", u"https://e.com"_s, {}},
        // Encoded.
        {"space in path", u"https://e.com/a b"_s, u"https://e.com/a%20b"_s},
        {"unicode path", u"https://e.com/Bücher?q=ü"_s, u"https://e.com/B%C3%BCcher?q=%C3%BC"_s},
        {"lone percent", u"https://e.com/100%"_s, u"https://e.com/100%25"_s},
        {"second hash", u"https://e.com/#a#b"_s, u"https://e.com/#a%23b"_s},
        {"emoji", u"https://e.com/😀"_s, u"https://e.com/%F0%9F%98%80"_s},
        {"surrounding blanks trimmed", u"  https://e.com/\n"_s, u"https://e.com/"_s},
        // A browser reads "\" as "/" in http(s) links: so must the router, or
        // the rule for one host could send the user to another.
        {"backslash is a slash", u"https://good.com\\@evil.com/"_s,
         u"https://good.com/@evil.com/"_s},
        {"backslash in query kept safe", u"https://e.com/?a=\\"_s, u"https://e.com/?a=%5C"_s},
        {"at sign in user info", u"https://a@b@c.com/"_s, u"https://a%40b@c.com/"_s},
        // Refused.
        {"empty", u"   "_s, u"!The link is empty."_s},
        {"relative", u"//example.com/x"_s, noScheme},
        {"no scheme", u"example.com"_s, noScheme},
        {"NUL", u"https://e.com/a\0b"_s, control},
        {"inner newline", u"https://e.com/a\nb"_s, control},
        {"bad port", u"https://e.com:80x/"_s, port},
        {"port too big", u"https://e.com:65536/"_s, port},
        {"space in host", u"https://e .com/"_s, host},
        {"encoded NUL in host", u"https://e%00.com/"_s, host},
        {"broken IP literal", u"https://[::1/"_s, host},
        {"lone surrogate", u"https://e.com/"_s + QChar(0xD800),
         u"!The link contains invalid characters."_s},
    };
    for (const auto &[name, text, result] : rows)
        QTest::newRow(name) << text << (result.isEmpty() ? text : result);
}

void TestLink::parse()
{
    QFETCH(QString, text);
    QFETCH(QString, result);
    const auto parsed = Link::parse(text);
    QCOMPARE(parsed ? parsed->toString() : u'!' + parsed.error().description, result);
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
    const QString noHost = u"The link has no host name."_s;
    const QList<std::tuple<const char *, QString, QString>> rows{
        {"https", u"https://e.com"_s, {}},
        {"HTTP upper case", u"HTTP://e.com/"_s, {}},
        {"file", u"file:///etc/passwd"_s,
         u"Only http and https links can be routed; this link's scheme is \"file\"."_s},
        {"javascript", u"javascript:alert(1)"_s,
         u"Only http and https links can be routed; this link's scheme is \"javascript\"."_s},
        {"no host", u"https:///x"_s, noHost},
        {"no slashes", u"https:example.com"_s, noHost}};
    for (const auto &[name, text, error] : rows)
        QTest::newRow(name) << text << error;
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
    const QList<std::pair<QString, QString>> rows{
        {u"g"_s, u"http://a/b/c/g"_s},
        {u"./g"_s, u"http://a/b/c/g"_s},
        {u"/g"_s, u"http://a/g"_s},
        {u"//g"_s, u"http://g"_s},
        {u"?y"_s, u"http://a/b/c/d;p?y"_s},
        {u"#s"_s, u"http://a/b/c/d;p?q#s"_s},
        {u"../.."_s, u"http://a/"_s},
        {u"../../../g"_s, u"http://a/g"_s},
        {u""_s, u"http://a/b/c/d;p?q"_s},
        {u"https://other.org/x"_s, u"https://other.org/x"_s},
        // Backslashes as a browser reads them.
        {u"\\\\evil.com/x"_s, u"http://evil.com/x"_s},
        {u"file:///etc/passwd"_s, u"file:///etc/passwd"_s}};
    for (const auto &[reference, expected] : rows)
        QTest::newRow(qPrintable(reference.isEmpty() ? u"empty"_s : reference))
            << reference << expected;
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
