#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusVirtualObject>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>
#include <QThread>

using namespace Qt::Literals::StringLiterals;

// The host as a browser runs it: messages framed by their length, both ways.
class NativeHost
{
public:
    explicit NativeHost(const QString &program)
    {
        m_process.start(program, {});
        if (!m_process.waitForStarted())
            qFatal("the native host did not start");
    }
    ~NativeHost()
    {
        m_process.closeWriteChannel();
        m_process.waitForFinished();
    }

    void send(const QByteArray &message) { m_process.write(frame(message)); }
    static QByteArray frame(const QByteArray &message)
    {
        const quint32 size = quint32(message.size());
        return QByteArray(reinterpret_cast<const char *>(&size), sizeof size) + message;
    }
    QProcess &process() { return m_process; }

    // The next answer; an empty object when the host ended without one.
    QJsonObject answer()
    {
        quint32 size = 0;
        if (!waitFor(sizeof size))
            return {};
        m_process.read(reinterpret_cast<char *>(&size), sizeof size);
        if (!waitFor(size))
            return {};
        return QJsonDocument::fromJson(m_process.read(size)).object();
    }
    QJsonObject ask(const QByteArray &message)
    {
        send(message);
        return answer();
    }

private:
    bool waitFor(qint64 bytes)
    {
        while (m_process.bytesAvailable() < bytes) {
            if (m_process.state() != QProcess::Running && m_process.bytesAvailable() < bytes)
                return false;
            m_process.waitForReadyRead(30000);
        }
        return true;
    }

    QProcess m_process;
};


// Quillvane as the host meets it, holding a link handed over until a link is
// checked: only a host that does not wait for one answer before asking the
// next question gets both.
class HoldingQuillvane final : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        QDBusConnection bus(connection);
        if (message.member() == u"Open") {
            m_held = message;
            return true;
        }
        bus.send(message.createReply(true));
        if (m_held.type() == QDBusMessage::MethodCallMessage)
            bus.send(std::exchange(m_held, {}).createReply());
        return true;
    }

private:
    QDBusMessage m_held;
};

class TestNativeHost final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
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
            {"{\"id\":\"1\",\"type\":\"status\"}", "\"id\""},
            {"{\"id\":1}", "\"type\""},
            {"{\"id\":1,\"type\":\"delete\"}", "answers"},
            {"{\"id\":1,\"type\":\"status\",\"extra\":1}", "does not know"},
            {"{\"id\":1,\"type\":\"status\",\"url\":\"https://a.example/\"}", "take a link"},
            {"{\"id\":1,\"type\":\"leaves\"}", "\"url\""},
            {"{\"id\":1,\"type\":\"open\",\"url\":42}", "\"url\""},
            {"{\"id\":1,\"type\":\"open\",\"url\":\"javascript:void%200\"}", "http and https"},
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

    // A link handed over while Quillvane starts (which may take seconds) holds
    // up no check of a page about to load.
    void answersWhatIsAnsweredFirst()
    {
        QThread thread;
        HoldingQuillvane quillvane;
        quillvane.moveToThread(&thread);
        thread.start();
        const auto stop = qScopeGuard([&] {
            QDBusConnection::disconnectFromBus(u"q"_s);
            thread.quit();
            thread.wait();
        });
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"q"_s);
        QVERIFY(bus.registerVirtualObject(u"/work/vorpa/Quillvane"_s, &quillvane));
        QVERIFY(bus.registerService(u"work.vorpa.Quillvane"_s));
        NativeHost host(QStringLiteral(QUILLVANE_NATIVE_HOST));
        host.send("{\"id\":1,\"type\":\"open\",\"url\":\"https://a.example/\"}");
        host.send("{\"id\":2,\"type\":\"leaves\",\"url\":\"https://a.example/\"}");
        const QJsonObject leaves = host.answer();
        QCOMPARE(leaves[u"id"_s], 2);
        QCOMPARE(leaves[u"leaves"_s], true);
        QCOMPARE(host.answer(), (QJsonObject{{u"id"_s, 1}, {u"ok"_s, true},
                                             {u"quillvane"_s, u"running"_s}}));
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
