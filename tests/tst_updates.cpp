// The signed update feed: what it offers, and what it refuses.
#include "Services/UpdateFeed.h"
#include "TestSupport.h"

#include <QTest>

#include <sodium.h>

using namespace Qt::Literals::StringLiterals;

namespace {

struct KeyPair
{
    QByteArray publicKey{crypto_sign_PUBLICKEYBYTES, Qt::Uninitialized};
    QByteArray secretKey{crypto_sign_SECRETKEYBYTES, Qt::Uninitialized};

    KeyPair()
    {
        if (sodium_init() < 0)
            qFatal("libsodium cannot start");
        crypto_sign_keypair(reinterpret_cast<unsigned char *>(publicKey.data()),
                            reinterpret_cast<unsigned char *>(secretKey.data()));
    }
    QByteArray sign(const QString &version, const QString &notes) const
    {
        const QByteArray text = UpdateFeed::signedText(version, notes);
        QByteArray signature(crypto_sign_BYTES, Qt::Uninitialized);
        crypto_sign_detached(reinterpret_cast<unsigned char *>(signature.data()), nullptr,
                             reinterpret_cast<const unsigned char *>(text.constData()), text.size(),
                             reinterpret_cast<const unsigned char *>(secretKey.constData()));
        return signature.toBase64();
    }
};

// One item as a publisher's tool writes it.
QByteArray item(const QString &version, const QString &notes, const QByteArray &signature)
{
    return "<item><title>Quillvane " + version.toUtf8() + "</title><qv:version>" + version.toUtf8()
           + "</qv:version><qv:releaseNotesLink>" + notes.toUtf8()
           + "</qv:releaseNotesLink><qv:edSignature>" + signature + "</qv:edSignature></item>";
}

QByteArray feed(const QList<QByteArray> &items)
{
    return "<?xml version=\"1.0\"?><rss version=\"2.0\" "
           "xmlns:qv=\"https://vorpa.work/xml-namespaces/quillvane-update\"><channel>"
           "<title>Quillvane</title>"
           + items.join() + "</channel></rss>";
}

const QString Untrusted =
    u"The update feed's signature is not valid, so nothing in it is trusted."_s;

} // namespace

class TestUpdates : public QObject
{
    Q_OBJECT

private:
    KeyPair m_keys;
    KeyPair m_otherKeys;

    QByteArray signedItem(const QString &version,
                          const QString &notes = u"https://q.example/n"_s) const
    {
        return item(version, notes, m_keys.sign(version, notes));
    }

    // The version offered, "none", or the error.
    QString offer(const QByteArray &document, const QString &current,
                  const QByteArray &key = {}) const
    {
        const auto offer =
            UpdateFeed::newestOffer(document, key.isEmpty() ? m_keys.publicKey : key, current);
        return !offer ? offer.error() : offer->has_value() ? offer->value().version : u"none"_s;
    }

private Q_SLOTS:
    // The newest signed version above the current one, with its release notes
    // (only web pages: a notes link of another scheme is never opened);
    // publishing tools may put the signature on the enclosure.
    void offersTheNewestSignedVersion()
    {
        const QByteArray document =
            feed({signedItem(u"1.2.0"_s), signedItem(u"1.10.0"_s, u"https://q.example/1.10"_s),
                  signedItem(u"1.9.3"_s)});
        QCOMPARE(offer(document, u"1.2.0"_s), u"1.10.0"_s);
        QCOMPARE(UpdateFeed::newestOffer(document, m_keys.publicKey, u"1.2"_s)->value(),
                 (UpdateOffer{u"1.10.0"_s, QUrl(u"https://q.example/1.10"_s)}));
        QCOMPARE(offer(document, u"1.10"_s), u"none"_s);
        const QString notes = u"javascript:alert(1)"_s;
        const QByteArray enclosure =
            "<item><qv:version>3.0</qv:version><qv:releaseNotesLink>" + notes.toUtf8()
            + "</qv:releaseNotesLink><enclosure url=\"https://q.example/x\" "
              "qv:edSignature=\""
            + m_keys.sign(u"3.0"_s, notes) + "\"/></item>";
        const auto enclosed = UpdateFeed::newestOffer(feed({enclosure}), m_keys.publicKey, u"1"_s);
        QCOMPARE(enclosed->value().version, u"3.0"_s);
        QVERIFY(!enclosed->value().releaseNotes.isValid());
    }

    // One item that cannot be trusted spoils the feed, even an older one:
    // whoever could forge it could forge the others.
    void anUntrustedItemSpoilsTheWholeFeed()
    {
        const QString notes = u"https://q.example/9"_s;
        for (const QByteArray &suspect :
             {item(u"9.9"_s, notes, m_keys.sign(u"1.0"_s, notes)),
              item(u"9.9"_s, u"https://evil.example/"_s, m_keys.sign(u"9.9"_s, notes)),
              item(u"9.9"_s, notes, m_otherKeys.sign(u"9.9"_s, notes)), item(u"9.9"_s, notes, {}),
              item(u"9.9"_s, notes, "@@not-base64@@"),
              item(u"9.9"_s, notes, QByteArray(10, 'A').toBase64()),
              item(u"0.0.1"_s, notes, m_otherKeys.sign(u"0.0.1"_s, notes))})
            QCOMPARE(offer(feed({signedItem(u"2.0"_s), suspect}), u"1.0"_s), Untrusted);
        QVERIFY2(offer("<rss><channel><item>", u"1"_s)
                     .startsWith(u"The update feed is not a valid document (line 1"_s),
                 qPrintable(offer("<rss><channel><item>", u"1"_s)));
        QVERIFY(!UpdateFeed::newestOffer(QByteArray(), m_keys.publicKey, u"1"_s));
    }
};

QTEST_GUILESS_MAIN(TestUpdates)
#include "tst_updates.moc"
