#include "Services/Handoffs.h"
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

    void handoff_data();
    void handoff()
    {
        QFETCH(QString, web);
        QFETCH(QString, expected);
        const auto match = Handoffs::match(link(web));
        QCOMPARE(match ? match->handoff->id + u' ' + match->link.toString() : u"none"_s, expected);
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
google.co.uk /url, url | https://www.google.co.uk/url?url=$LINK                       | unwrapped
nested                 | https://nam12.safelinks.protection.outlook.com/?url=$GOOGLE  | unwrapped
javascript inside      | https://www.google.com/url?q=javascript%3Aalert(1)           | kept
relative inside        | https://l.facebook.com/l.php?u=%2Fnext                       | kept
look-alike google      | https://google.evil.com/url?q=$LINK                          | kept
look-alike outlook     | https://safelinks.protection.outlook.com.evil.com/?url=$LINK | kept
other path             | https://www.google.com/search?q=$LINK                        | kept
no member              | https://l.facebook.com/l.php?h=AT0                           | kept
)");
}

// Links as the services share them, then odd ones and look-alikes.
void TestURLCleaner::handoff_data()
{
    addRows({u"web"_s, u"expected"_s}, uR"(
zoom meeting             | https://us02web.zoom.us/j/85012345678?pwd=aBcD1234efGh.1 | zoom zoommtg://zoom.us/join?confno=85012345678&pwd=aBcD1234efGh.1
zoom, extras dropped     | https://acme.zoom.us/j/98765432101?uname=Ann&pwd=x%2By#success | zoom zoommtg://zoom.us/join?confno=98765432101&pwd=x%2By
zoom, upper-case host    | https://US06WEB.Zoom.US./j/123456789                     | zoom zoommtg://zoom.us/join?confno=123456789
zoom webinar             | https://zoom.us/w/123456789                              | none
zoom personal name       | https://zoom.us/my/ann.smith                             | none
zoom look-alike          | https://zoom.us.example.com/j/123456789                  | none
zoom suffix look-alike   | https://notzoom.us/j/123456789                           | none
teams meeting            | https://teams.microsoft.com/l/meetup-join/19%3ameeting_NjU5%40thread.v2/0?context=%7b%22Tid%22%3a%22a1%22%7d | teams msteams:/l/meetup-join/19%3ameeting_NjU5%40thread.v2/0?context=%7b%22Tid%22%3a%22a1%22%7d
teams web app            | https://teams.microsoft.com/v2/                          | none
spotify, regional        | https://open.spotify.com/intl-de/album/1DFixLWuPkv3KT3TnV35m3 | spotify spotify:album:1DFixLWuPkv3KT3TnV35m3
spotify unknown kind     | https://open.spotify.com/user/spotify                    | none
spotify, id not a token  | https://open.spotify.com/track/a%2Fb                     | none
slack thread             | https://app.slack.com/client/T024BE7LD/C0123ABCD/thread/C0-1 | slack slack://channel?team=T024BE7LD&id=C0123ABCD
slack workspace page     | https://acme.slack.com/archives/C0123ABCD               | none
discord message          | https://discord.com/channels/81384788765712384/381870553235193857/1012 | discord discord://-/channels/81384788765712384/381870553235193857/1012
discord invitation       | https://discord.com/invite/abc                           | none
discord look-alike       | https://discord.com.example.net/channels/1/2             | none
telegram name            | https://t.me/durov                                       | telegram tg://resolve?domain=durov
telegram invitation      | https://t.me/joinchat/AAAAAEkk2WdoDrB4                   | none
telegram post            | https://t.me/durov/123                                   | none
telegram short name      | https://t.me/abc                                         | none
element room, # encoded  | https://matrix.to/#/#matrix:matrix.org                   | element element://vector/webapp/#/%23matrix:matrix.org
element, nothing named   | https://matrix.to/                                       | none
steam store              | https://store.steampowered.com/app/620/Portal_2/?l=en    | steam steam://openurl/https://store.steampowered.com/app/620/Portal_2/?l=en
steam look-alike         | https://steampowered.com.example/app/1                   | none
)");
}

QTEST_GUILESS_MAIN(TestURLCleaner)
#include "tst_urlcleaner.moc"
