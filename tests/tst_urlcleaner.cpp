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
    void initTestCase()
    {
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
    }

    void clean_data();
    void clean()
    {
        QFETCH(QString, pathAndQuery);
        QFETCH(QString, expected);
        QCOMPARE(
            URLCleaner::clean(link(QString(u"https://Example.com"_s + pathAndQuery))).toString(),
            QString(u"https://Example.com"_s + expected));
    }

    void unwrap_data();
    void unwrap()
    {
        QFETCH(QString, wrapped);
        QFETCH(QString, expected);
        const QString real = u"https://docs.example.com/a?b=1&c=2#top"_s;
        const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(real));
        // Nested: Google inside a safe link, opened twice.
        const QString google = u"https://www.google.com/url?q="_s + encoded;
        wrapped.replace(u"$GOOGLE"_s, QString::fromLatin1(QUrl::toPercentEncoding(google)))
            .replace(u"$LINK"_s, encoded);
        QCOMPARE(URLUnwrapper::unwrap(link(wrapped)).toString(),
                 expected == u"unwrapped" ? real : wrapped);
    }
};

// The tables stand outside the class: moc reads a raw string as an ordinary one.

void TestURLCleaner::clean_data()
{
    addRows({u"pathAndQuery"_s, u"expected"_s}, uR"(
no query                         | /p                                  | /p
empty query                      | /p?                                 | /p?
kept item keeps its place        | /p?utm_source=x&id=7#top            | /p?id=7#top
all removed, no question mark    | /p?utm_source=x&fbclid=y            | /p
names compared in lower case     | /p?UTM_Source=x                     | /p
no prefix match                  | /p?utm_sourcex=1                    | /p?utm_sourcex=1
no substring match               | /p?xutm_source=1                    | /p?xutm_source=1
repeated item                    | /p?gclid=a&gclid=b&q=1              | /p?q=1
item without value               | /p?fbclid                           | /p
encoded name                     | /p?utm%5Fsource=1&a=b               | /p?a=b
kept items byte for byte         | /p?a=1+2&b=%2B%26&c&&d=%7e&mc_eid=9 | /p?a=1+2&b=%2B%26&c&&d=%7e
nothing to remove, byte for byte | /p?b=%7e&a=1+1                      | /p?b=%7e&a=1+1
fragment with question mark      | /p?_hsenc=1#a?utm_source=2          | /p#a?utm_source=2
)");
}

// Kept as they are: no http(s) destination, look-alike hosts, other paths.
void TestURLCleaner::unwrap_data()
{
    addRows({u"wrapped"_s, u"expected"_s}, uR"(
outlook safe link      | https://eur01.safelinks.protection.outlook.com/?url=$LINK&data=05%7C01&reserved=0 | unwrapped
google /url, q         | https://www.google.com/url?sa=t&q=$LINK&usg=x                | unwrapped
google.co.uk /url, url | https://www.google.co.uk/url?url=$LINK                       | unwrapped
facebook               | https://l.facebook.com/l.php?u=$LINK&h=AT0                   | unwrapped
instagram              | https://l.instagram.com/?u=$LINK&e=AT                        | unwrapped
linkedin               | https://www.linkedin.com/redir/redirect?url=$LINK&urlhash=x  | unwrapped
slack                  | https://slack-redir.net/link?url=$LINK                       | unwrapped
youtube                | https://www.youtube.com/redirect?event=v&q=$LINK             | unwrapped
steam                  | https://steamcommunity.com/linkfilter/?url=$LINK             | unwrapped
nested                 | https://nam12.safelinks.protection.outlook.com/?url=$GOOGLE  | unwrapped
javascript inside      | https://www.google.com/url?q=javascript%3Aalert(1)           | kept
relative inside        | https://l.facebook.com/l.php?u=%2Fnext                       | kept
look-alike google      | https://google.evil.com/url?q=$LINK                          | kept
look-alike outlook     | https://safelinks.protection.outlook.com.evil.com/?url=$LINK | kept
other path             | https://www.google.com/search?q=$LINK                        | kept
no member              | https://l.facebook.com/l.php?h=AT0                           | kept
)");
}

QTEST_GUILESS_MAIN(TestURLCleaner)
#include "tst_urlcleaner.moc"
