#include "NativeHost.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;


class TestNativeHost final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Browsing goes on without Quillvane: a link stays, and the options page
    // can say why.
    void withoutQuillvane()
    {
        NativeHost host(QStringLiteral(QUILLVANE_NATIVE_HOST));
        QCOMPARE(host.ask("{\"id\":1,\"type\":\"status\"}"),
                 (QJsonObject{{u"id"_s, 1}, {u"ok"_s, true}, {u"quillvane"_s, u"not running"_s}}));
        const QJsonObject leaves = host.ask("{\"id\":2,\"type\":\"leaves\",\"url\":\"https://a.example/\"}");
        QCOMPARE(leaves[u"ok"_s], true);
        QCOMPARE(leaves[u"leaves"_s], false);
        QCOMPARE(leaves[u"quillvane"_s], u"not running"_s);
    }

    // Whatever a page or a broken extension sends, the host answers why it
    // refused and goes on answering.
    void refusesAllButLinkRequests_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<QString>("why");
        const QByteArray longLink = "https://a.example/" + QByteArray(130000, 'a');
        const std::pair<const char *, const char *> rows[] = {
            {"not JSON", "not JSON"},
            {"[1]", "not a JSON object"},
            {"{\"type\":\"status\"}", "\"id\""},
            {"{\"id\":-1,\"type\":\"status\"}", "\"id\""},
            {"{\"id\":1.5,\"type\":\"status\"}", "\"id\""},
            {"{\"id\":\"1\",\"type\":\"status\"}", "\"id\""},
            {"{\"id\":1}", "\"type\""},
            {"{\"id\":1,\"type\":\"delete\"}", "answers"},
            {"{\"id\":1,\"type\":\"status\",\"extra\":1}", "does not know"},
            {"{\"id\":1,\"type\":\"status\",\"url\":\"https://a.example/\"}", "take a link"},
            {"{\"id\":1,\"type\":\"leaves\"}", "\"url\""},
            {"{\"id\":1,\"type\":\"open\",\"url\":42}", "\"url\""},
            {"{\"id\":1,\"type\":\"open\",\"url\":\"javascript:void%200\"}", "http and https"},
            {"{\"id\":1,\"type\":\"open\",\"url\":\"file:///etc/passwd\"}", "http and https"},
            {"{\"id\":1,\"type\":\"open\",\"url\":\"data:text/html,x\"}", "http and https"},
            {"{\"id\":1,\"type\":\"open\",\"url\":\"https://a.example/ -x\"}", "spaces"},
            {"{\"id\":1,\"type\":\"open\",\"url\":\"-https://a.example/\"}", "http and https"},
        };
        for (const auto &[message, why] : rows)
            QTest::newRow(message) << QByteArray(message) << QString::fromUtf8(why);
        QTest::newRow("a control character")
            << QByteArray("{\"id\":1,\"type\":\"open\",\"url\":\"https://a.example/\\u0007\"}")
            << u"control"_s;
        QTest::newRow("a link too long to launch")
            << QByteArray("{\"id\":1,\"type\":\"open\",\"url\":\"" + longLink + "\"}")
            << u"longer than a browser"_s;
    }

    void refusesAllButLinkRequests()
    {
        QFETCH(QByteArray, message);
        QFETCH(QString, why);
        NativeHost host(QStringLiteral(QUILLVANE_NATIVE_HOST));
        const QJsonObject refused = host.ask(message);
        QCOMPARE(refused[u"ok"_s], false);
        QVERIFY2(refused[u"error"_s].toString().contains(why),
                 qPrintable(refused[u"error"_s].toString()));
        QCOMPARE(host.ask("{\"id\":7,\"type\":\"status\"}")[u"id"_s], 7);
    }

    // A message is whole only with all its bytes, however they arrive; a length
    // beyond any request ends the conversation, and so does the browser.
    void framing()
    {
        NativeHost host(QStringLiteral(QUILLVANE_NATIVE_HOST));
        const QByteArray status = NativeHost::frame("{\"id\":1,\"type\":\"status\"}");
        host.process().write(status.first(2));
        host.process().waitForBytesWritten();
        host.process().write(status.sliced(2) + NativeHost::frame("{\"id\":2,\"type\":\"status\"}"));
        QCOMPARE(host.answer()[u"id"_s], 1);
        QCOMPARE(host.answer()[u"id"_s], 2);

        const quint32 huge = 1u << 30;
        host.process().write(QByteArray(reinterpret_cast<const char *>(&huge), sizeof huge));
        QCOMPARE(host.answer()[u"ok"_s], false);
        QVERIFY(host.process().waitForFinished(30000));
        QCOMPARE(host.process().exitCode(), 1);

        NativeHost closed(QStringLiteral(QUILLVANE_NATIVE_HOST));
        closed.process().closeWriteChannel();
        QVERIFY(closed.process().waitForFinished(30000));
        QCOMPARE(closed.process().exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(TestNativeHost)
#include "tst_nativehost.moc"
