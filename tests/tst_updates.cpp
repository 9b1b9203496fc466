#include "App/BuildInfo.h"
#include "App/UpdateController.h"
#include "Services/UpdateChecker.h"
#include "Services/UpdateFeed.h"
#include "Storage/SettingsKeys.h"
#include "TestSupport.h"
#include "Views/MessageBox.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
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

// One item as a publisher's tool writes it; the signature covers signedVersion.
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

} // namespace

class TestUpdates : public QObject
{
    Q_OBJECT

private:
    KeyPair m_keys;
    KeyPair m_otherKeys;
    QTemporaryDir m_settingsDir;

    QByteArray signedItem(const QString &version, const QString &notes) const
    {
        return item(version, notes, m_keys.sign(version, notes));
    }

private Q_SLOTS:
    void init() { MessageBox::setInformQuietly(true); }

    void versionsCompareNumberByNumber_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("expected");
        QTest::newRow("tens after nines") << u"1.10"_s << u"1.9"_s << 1;
        QTest::newRow("missing parts are zero") << u"1.4"_s << u"1.4.0"_s << 0;
        QTest::newRow("patch") << u"0.1.0"_s << u"0.1.1"_s << -1;
        QTest::newRow("major wins") << u"2"_s << u"1.99.99"_s << 1;
        QTest::newRow("text parts as text") << u"1.0.rc1"_s << u"1.0.rc2"_s << -1;
    }
    void versionsCompareNumberByNumber()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, expected);
        QCOMPARE(UpdateFeed::compareVersions(a, b), expected);
        QCOMPARE(UpdateFeed::compareVersions(b, a), -expected);
    }

    void offersTheNewestSignedVersionAboveTheCurrentOne()
    {
        const QByteArray document = feed({signedItem(u"1.2.0"_s, u"https://q.example/1.2"_s),
                                          signedItem(u"1.10.0"_s, u"https://q.example/1.10"_s),
                                          signedItem(u"1.9.3"_s, u"https://q.example/1.9"_s)});
        const auto offer = UpdateFeed::newestOffer(document, m_keys.publicKey, u"1.2.0"_s);
        QVERIFY2(offer, qPrintable(offer ? QString() : offer.error()));
        QCOMPARE(offer->value(), (UpdateOffer{u"1.10.0"_s, QUrl(u"https://q.example/1.10"_s)}));

        const auto current = UpdateFeed::newestOffer(document, m_keys.publicKey, u"1.10"_s);
        QVERIFY(current);
        QVERIFY(!current->has_value());
    }

    void anUntrustedItemSpoilsTheWholeFeed_data()
    {
        QTest::addColumn<QByteArray>("suspect");
        const QString notes = u"https://q.example/9"_s;
        QTest::newRow("version changed after signing")
            << item(u"9.9"_s, notes, m_keys.sign(u"1.0"_s, notes));
        QTest::newRow("notes changed after signing")
            << item(u"9.9"_s, u"https://evil.example/"_s, m_keys.sign(u"9.9"_s, notes));
        QTest::newRow("signed with another key")
            << item(u"9.9"_s, notes, m_otherKeys.sign(u"9.9"_s, notes));
        QTest::newRow("unsigned") << item(u"9.9"_s, notes, {});
        QTest::newRow("not base64") << item(u"9.9"_s, notes, "@@not-base64@@");
        QTest::newRow("short signature") << item(u"9.9"_s, notes, QByteArray(10, 'A').toBase64());
        // Even an older item: whoever could forge it could forge the others.
        QTest::newRow("old item forged")
            << item(u"0.0.1"_s, notes, m_otherKeys.sign(u"0.0.1"_s, notes));
    }
    void anUntrustedItemSpoilsTheWholeFeed()
    {
        QFETCH(QByteArray, suspect);
        const QByteArray document = feed({signedItem(u"2.0"_s, u"https://q.example/2"_s), suspect});
        const auto offer = UpdateFeed::newestOffer(document, m_keys.publicKey, u"1.0"_s);
        QVERIFY(!offer);
        QCOMPARE(offer.error(),
                 u"The update feed's signature is not valid, so nothing in it is trusted."_s);
    }

    void enclosureSignaturesAndOddNotes()
    {
        // Publishing tools also put the signature on the enclosure.
        const QString notes = u"javascript:alert(1)"_s;
        const QByteArray enclosure =
            "<item><qv:version>3.0</qv:version><qv:releaseNotesLink>" + notes.toUtf8()
            + "</qv:releaseNotesLink><enclosure url=\"https://q.example/x\" "
              "qv:edSignature=\""
            + m_keys.sign(u"3.0"_s, notes) + "\"/></item>";
        const auto offer = UpdateFeed::newestOffer(feed({enclosure}), m_keys.publicKey, u"1"_s);
        QVERIFY(offer);
        QCOMPARE(offer->value().version, u"3.0"_s);
        // Never opened: only web pages are release notes.
        QVERIFY(!offer->value().releaseNotes.isValid());
    }

    // What publishers run: an openssl key and the script in scripts/.
    void itemsSignedByThePublishingScriptVerify()
    {
        QTemporaryDir folder;
        const QString key = folder.filePath(u"key.pem"_s);
        QProcess openssl;
        openssl.start(u"openssl"_s, {u"genpkey"_s, u"-algorithm"_s, u"ed25519"_s, u"-out"_s, key});
        QVERIFY(openssl.waitForFinished() && openssl.exitCode() == 0);
        openssl.start(u"openssl"_s,
                      {u"pkey"_s, u"-in"_s, key, u"-pubout"_s, u"-outform"_s, u"DER"_s});
        QVERIFY(openssl.waitForFinished() && openssl.exitCode() == 0);
        const QByteArray publicKey = openssl.readAllStandardOutput().right(32);

        QProcess script;
        script.start(QUILLVANE_SOURCE_DIR u"/scripts/sign-update-item"_s,
                     {key, u"4.1.0"_s, u"https://q.example/notes?v=4.1"_s});
        QVERIFY(script.waitForFinished());
        QCOMPARE(script.exitCode(), 0);
        const auto offer =
            UpdateFeed::newestOffer(feed({script.readAllStandardOutput()}), publicKey, u"4.0"_s);
        QVERIFY2(offer, qPrintable(offer ? QString() : offer.error()));
        QCOMPARE(offer->value().version, u"4.1.0"_s);
        QCOMPARE(offer->value().releaseNotes, QUrl(u"https://q.example/notes?v=4.1"_s));

        // Markup in the address would change what the feed says it signed.
        script.start(QUILLVANE_SOURCE_DIR u"/scripts/sign-update-item"_s,
                     {key, u"4.1.0"_s, u"https://q.example/?a=1&b=2"_s});
        QVERIFY(script.waitForFinished());
        QCOMPARE(script.exitCode(), 2);
    }

    void damagedDocumentsAreErrors()
    {
        const auto offer =
            UpdateFeed::newestOffer("<rss><channel><item>", m_keys.publicKey, u"1"_s);
        QVERIFY(!offer);
        QVERIFY2(offer.error().startsWith(u"The update feed is not a valid document (line 1"_s),
                 qPrintable(offer.error()));
        QVERIFY(!UpdateFeed::newestOffer(QByteArray(), m_keys.publicKey, u"1"_s));
    }

    void checkerFetchesOverHttp()
    {
        TestHttpServer server;
        server.serve(u"/feed"_s, feed({signedItem(u"5.0"_s, u"https://q.example/5"_s)}));
        server.on(u"/huge"_s, {200, {}, false, QByteArray(2 * 1024 * 1024, ' ')});
        const auto run = [&](const QString &path) -> UpdateCheckResult {
            UpdateChecker checker(QUrl(server.baseUrl() + path), m_keys.publicKey, u"1.0"_s);
            QSignalSpy finished(&checker, &UpdateChecker::finished);
            const int requests = server.totalRequests();
            checker.check();
            checker.check(); // joins the running one: one request, one answer
            if (!finished.wait(10000) || checker.isChecking() || finished.size() != 1
                || server.totalRequests() != requests + 1)
                qFatal("one check, one request, one answer");
            return finished.first().first().value<UpdateCheckResult>();
        };
        UpdateCheckResult result = run(u"/feed"_s);
        QCOMPARE(int(result.outcome), int(UpdateCheckResult::Outcome::NewerVersion));
        QCOMPARE(result.offer.version, u"5.0"_s);

        result = run(u"/missing"_s);
        QCOMPARE(int(result.outcome), int(UpdateCheckResult::Outcome::Failed));
        QVERIFY2(result.error.startsWith(u"The update feed could not be loaded: "_s),
                 qPrintable(result.error));

        result = run(u"/huge"_s);
        QCOMPARE(result.error, u"The update feed is larger than 1 MB, so it was not read."_s);
    }

    void buildsWithoutAFeedPointToThePackageManager()
    {
        QSettings settings(m_settingsDir.filePath(u"updates.ini"_s), QSettings::IniFormat);
        UpdateController updates(settings, nullptr, {});
        QVERIFY(!updates.checkIfDue());
        updates.checkForUpdates();
        QTRY_COMPARE(MessageBox::lastText(),
                     u"Updates for this build are provided by your package manager."_s);
    }

    void userChecksShowEveryResult()
    {
        TestHttpServer server;
        const QString notes = u"https://q.example/notes/7"_s;
        server.serve(u"/newer"_s, feed({signedItem(u"7.0"_s, notes)}));
        server.serve(u"/same"_s, feed({signedItem(QString::fromUtf16(BuildInfo::Version), notes)}));
        server.serve(u"/forged"_s,
                     feed({item(u"7.0"_s, notes, m_otherKeys.sign(u"7.0"_s, notes))}));
        QSettings settings(m_settingsDir.filePath(u"updates.ini"_s), QSettings::IniFormat);
        QList<QUrl> opened;
        // The controller answers the user when its checker finishes, so it has to live
        // until then: the server having seen the request says nothing about the answer.
        const auto check = [&](const QString &path) {
            auto checker =
                std::make_unique<UpdateChecker>(QUrl(server.baseUrl() + path), m_keys.publicKey,
                                                QString::fromUtf16(BuildInfo::Version));
            QSignalSpy finished(checker.get(), &UpdateChecker::finished);
            UpdateController updates(settings, std::move(checker),
                                     [&](const QUrl &link) { opened.append(link); });
            updates.checkForUpdates();
            return finished.wait(10000);
        };

        MessageBox::setNextAnswer(0); // "Release Notes"
        QVERIFY(check(u"/newer"_s));
        QCOMPARE(
            MessageBox::lastDetail(),
            u"Quillvane 7.0 is now available (you have %1). Install it with your package manager."_s
                .arg(QString::fromUtf16(BuildInfo::Version)));
        QCOMPARE(opened, QList<QUrl>{QUrl(notes)});

        QVERIFY(check(u"/same"_s));
        QCOMPARE(MessageBox::lastInformTitle(), u"You're up to date!"_s);

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(u"^Update check failed: "_s));
        QVERIFY(check(u"/forged"_s));
        QCOMPARE(MessageBox::lastText(),
                 u"The update feed's signature is not valid, so nothing in it is trusted."_s);
        QCOMPARE(opened.size(), 1);
    }

    void automaticChecksRunOnceADayAndQuietly()
    {
        TestHttpServer server;
        server.serve(u"/same"_s, feed({}));
        QSettings settings(m_settingsDir.filePath(u"automatic.ini"_s), QSettings::IniFormat);
        auto checker = std::make_unique<UpdateChecker>(QUrl(server.baseUrl() + u"/same"_s),
                                                       m_keys.publicKey, u"1.0"_s);
        // Connected before the controller, so that when it fires the controller has
        // been told too by the time the wait ends.
        QSignalSpy answered(checker.get(), &UpdateChecker::finished);
        UpdateController updates(settings, std::move(checker), {});
        QDateTime now = QDateTime::fromString(u"2026-11-20T08:00:00Z"_s, Qt::ISODate);
        updates.clock = [&] { return now; };
        MessageBox::setInformQuietly(true);
        const QString informedBefore = MessageBox::lastInformTitle() + u"-untouched"_s;
        MessageBox::inform(informedBefore, {});

        QVERIFY(updates.checkIfDue());
        QVERIFY(!updates.checkIfDue()); // one at a time
        QVERIFY(answered.wait(10000));
        QCOMPARE(server.requestCount(u"/same"_s), 1);
        QCOMPARE(SettingsKeys::read(settings, SettingsKeys::LastUpdateCheck),
                 u"2026-11-20T08:00:00Z"_s);

        now = now.addSecs(23 * 3600);
        QVERIFY(!updates.checkIfDue());
        now = now.addSecs(3600);
        QVERIFY(updates.checkIfDue());
        QVERIFY(answered.wait(10000));
        QCOMPARE(server.requestCount(u"/same"_s), 2);
        // Being up to date is not worth an interruption.
        QCOMPARE(MessageBox::lastInformTitle(), informedBefore);

        // A clock that was set wrong once does not stop checks for good.
        settings.setValue(SettingsKeys::LastUpdateCheck.name, u"2099-01-01T00:00:00Z"_s);
        QVERIFY(updates.checkIfDue());
        QVERIFY(answered.wait(10000));
        QCOMPARE(server.requestCount(u"/same"_s), 3);

        settings.setValue(SettingsKeys::AutomaticUpdateChecks.name, false);
        now = now.addDays(30);
        QVERIFY(!updates.checkIfDue());
    }
};

QTEST_MAIN(TestUpdates)
#include "tst_updates.moc"
