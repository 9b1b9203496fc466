#include "Services/URLCleaner.h"
#include "Services/URLUnwrapper.h"
#include "TestSupport.h"

#include <QLoggingCategory>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestURLCleaner final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void clean_data();
    void clean();
    void unwrap_data();
    void unwrap();
};

void TestURLCleaner::initTestCase()
{
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
}

void TestURLCleaner::clean_data()
{
    QTest::addColumn<QString>("pathAndQuery");
    QTest::addColumn<QString>("expected");
    QTest::newRow("no query") << u"/p"_s << u"/p"_s;
    QTest::newRow("empty query") << u"/p?"_s << u"/p?"_s;
    QTest::newRow("kept item keeps its place") << u"/p?utm_source=x&id=7#top"_s << u"/p?id=7#top"_s;
    QTest::newRow("all removed, no question mark") << u"/p?utm_source=x&fbclid=y"_s << u"/p"_s;
    QTest::newRow("names compared in lower case") << u"/p?UTM_Source=x"_s << u"/p"_s;
    QTest::newRow("no prefix match") << u"/p?utm_sourcex=1"_s << u"/p?utm_sourcex=1"_s;
    QTest::newRow("no substring match") << u"/p?xutm_source=1"_s << u"/p?xutm_source=1"_s;
    QTest::newRow("repeated item") << u"/p?gclid=a&gclid=b&q=1"_s << u"/p?q=1"_s;
    QTest::newRow("item without value") << u"/p?fbclid"_s << u"/p"_s;
    QTest::newRow("encoded name") << u"/p?utm%5Fsource=1&a=b"_s << u"/p?a=b"_s;
    QTest::newRow("kept items byte for byte")
        << u"/p?a=1+2&b=%2B%26&c&&d=%7e&mc_eid=9"_s << u"/p?a=1+2&b=%2B%26&c&&d=%7e"_s;
    QTest::newRow("nothing to remove, byte for byte") << u"/p?b=%7e&a=1+1"_s << u"/p?b=%7e&a=1+1"_s;
    QTest::newRow("fragment with question mark")
        << u"/p?_hsenc=1#a?utm_source=2"_s << u"/p#a?utm_source=2"_s;
}

void TestURLCleaner::clean()
{
    QFETCH(QString, pathAndQuery);
    QFETCH(QString, expected);
    const Link cleaned = URLCleaner::clean(link(QString(u"https://Example.com"_s + pathAndQuery)));
    QCOMPARE(cleaned.toString(), QString(u"https://Example.com"_s + expected));
}

void TestURLCleaner::unwrap_data()
{
    QTest::addColumn<QString>("wrapped");
    QTest::addColumn<QString>("expected");
    const QString real = u"https://docs.example.com/a?b=1&c=2#top"_s;
    const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(real));
    QTest::newRow("outlook safe link")
        << u"https://eur01.safelinks.protection.outlook.com/?url=%1&data=05%7C01&reserved=0"_s.arg(
               encoded)
        << real;
    QTest::newRow("google /url, q") << u"https://www.google.com/url?sa=t&q=%1&usg=x"_s.arg(encoded)
                                    << real;
    QTest::newRow("google.co.uk /url, url")
        << u"https://www.google.co.uk/url?url=%1"_s.arg(encoded) << real;
    QTest::newRow("facebook") << u"https://l.facebook.com/l.php?u=%1&h=AT0"_s.arg(encoded)
                              << real;
    QTest::newRow("instagram") << u"https://l.instagram.com/?u=%1&e=AT"_s.arg(encoded) << real;
    QTest::newRow("linkedin") << u"https://www.linkedin.com/redir/redirect?url=%1&urlhash=x"_s.arg(
                                     encoded)
                              << real;
    QTest::newRow("slack") << u"https://slack-redir.net/link?url=%1"_s.arg(encoded) << real;
    QTest::newRow("youtube") << u"https://www.youtube.com/redirect?event=v&q=%1"_s.arg(encoded)
                             << real;
    QTest::newRow("steam") << u"https://steamcommunity.com/linkfilter/?url=%1"_s.arg(encoded)
                           << real;
    // Nested: Google inside a safe link, opened twice.
    const QString google = u"https://www.google.com/url?q=%1"_s.arg(encoded);
    QTest::newRow("nested")
        << u"https://nam12.safelinks.protection.outlook.com/?url=%1"_s.arg(
               QString::fromLatin1(QUrl::toPercentEncoding(google)))
        << real;

    // Kept as they are: no http(s) destination, look-alike hosts, other paths.
    QTest::newRow("javascript inside")
        << u"https://www.google.com/url?q=javascript%3Aalert(1)"_s
        << u"https://www.google.com/url?q=javascript%3Aalert(1)"_s;
    QTest::newRow("relative inside") << u"https://l.facebook.com/l.php?u=%2Fnext"_s
                                     << u"https://l.facebook.com/l.php?u=%2Fnext"_s;
    QTest::newRow("look-alike google")
        << u"https://google.evil.com/url?q=%1"_s.arg(encoded)
        << u"https://google.evil.com/url?q=%1"_s.arg(encoded);
    QTest::newRow("look-alike outlook")
        << u"https://safelinks.protection.outlook.com.evil.com/?url=%1"_s.arg(encoded)
        << u"https://safelinks.protection.outlook.com.evil.com/?url=%1"_s.arg(encoded);
    QTest::newRow("other path") << u"https://www.google.com/search?q=%1"_s.arg(encoded)
                                << u"https://www.google.com/search?q=%1"_s.arg(encoded);
    QTest::newRow("no member") << u"https://l.facebook.com/l.php?h=AT0"_s
                               << u"https://l.facebook.com/l.php?h=AT0"_s;
}

void TestURLCleaner::unwrap()
{
    QFETCH(QString, wrapped);
    QFETCH(QString, expected);
    QCOMPARE(URLUnwrapper::unwrap(link(wrapped)).toString(), expected);
}

QTEST_GUILESS_MAIN(TestURLCleaner)
#include "tst_urlcleaner.moc"
