// Short links expanded against a real local HTTP server: the walks it may
// take, the servers that misbehave, and the places it must never reach.
#include "Services/URLExpander.h"
#include "TestSupport.h"

#include <QLoggingCategory>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class TestURLExpander final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        // Each test as if it ran alone, whatever ran before it.
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
        m_server = std::make_unique<TestHttpServer>();
        m_server->on(u"/hang"_s, {200, {}, true, {}, false});
        m_server->on(u"/drip"_s, {200, {}, false, {}, true});
        m_server->on(u"/huge"_s, {302,
                                  {{"X-Padding", QByteArray(10 * 1024 * 1024, 'a')},
                                   {"Location", "/after-huge"}},
                                  false,
                                  {},
                                  false});
        m_server->serve(u"/tls"_s, {});
    }

    void cleanup() { m_server.reset(); }
    void walks_data()
    {
        // What the server answers: "path status [location]" each.
        QTest::addColumn<QStringList>("answers");
        QTest::addColumn<QString>("ends"); // relative to the server
        QTest::addColumn<int>("requests");
        QTest::newRow("final answer at once") << QStringList{u"/a 200"_s} << u"/a"_s << 1;
        QTest::newRow("chain, relative locations")
            << QStringList{u"/a 301 /dir/b?x=1"_s, u"/dir/b?x=1 302 c#frag"_s, u"/dir/c 200"_s}
            << u"/dir/c#frag"_s << 3;
        QStringList six;
        for (int i = 1; i <= 6; ++i)
            six.append(u"/r%1 302 /r%2"_s.arg(i).arg(i + 1));
        QTest::newRow("five requests at most") << six << u"/r6"_s << 5;
        QTest::newRow("every 3xx is a redirect")
            << QStringList{u"/a 304 /b"_s, u"/b 399 /c"_s, u"/c 300 /d"_s, u"/d 404"_s} << u"/d"_s
            << 4;
        QTest::newRow("no location") << QStringList{u"/a 302"_s} << u"/a"_s << 1;
        QTest::newRow("loop") << QStringList{u"/a 302 /a"_s} << u"/a"_s << 5;
        // The web only: other schemes, and a link without a host, end the walk.
        for (const QString &away : {u"file:///etc/passwd"_s, u"javascript:alert(1)"_s,
                                    u"data:text/html,<script>x</script>"_s, u"https:///nothing"_s})
            QTest::newRow(qPrintable(away.left(10)))
                << QStringList{u"/a 302 /b"_s, u"/b 302 "_s + away} << u"/b"_s << 2;
    }

    void walks()
    {
        QFETCH(QStringList, answers);
        QFETCH(QString, ends);
        QFETCH(int, requests);
        for (const QString &answer : answers) {
            const QStringList parts = answer.split(u' ');
            if (parts.size() > 2)
                m_server->redirect(parts[0], parts[1].toInt(), parts.mid(2).join(u' ').toUtf8());
            else
                m_server->on(parts[0], {parts[1].toInt(), {}, false, {}});
        }
        // What the system log says of the walk names no query or fragment.
        static QStringList logged;
        static QtMessageHandler qtTest = nullptr;
        logged.clear();
        qtTest = qInstallMessageHandler(
            [](QtMsgType type, const QMessageLogContext &context, const QString &message) {
                logged.append(message);
                qtTest(type, context, message);
            });
        const QString ended = expand(answers.first().section(u' ', 0, 0));
        qInstallMessageHandler(qtTest);
        QCOMPARE(ended, start(ends));
        QCOMPARE(m_server->methods(), QList<QByteArray>(requests, "HEAD"));
        static const QRegularExpression named(u"[?#][^…]"_s);
        QVERIFY2(logged.size() >= 2 && logged.filter(named).isEmpty(),
                 qPrintable(logged.join(u'\n')));
    }

    void failureAfterRedirectsKeepsTheLastTarget()
    {
        // A port on which nothing listens any more.
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost));
        const QByteArray deadEnd =
            "http://127.0.0.1:" + QByteArray::number(probe.serverPort()) + "/gone";
        probe.close();
        m_server->redirect(u"/a"_s, 301, "/b");
        m_server->redirect(u"/b"_s, 302, deadEnd);
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(u"^Expansion failed at step 2: "_s));
        QCOMPARE(expand(u"/a"_s), QString::fromUtf8(deadEnd));
    }

    // Servers that stall, drip, shout or speak the wrong protocol: each walk ends
    // with the link it had.
    void hostileServers_data()
    {
        QTest::addColumn<QString>("path");
        // Whether the walk can only end at its deadline: a fast machine reads the
        // whole 10 MB header before then, a slow one does not.
        QTest::addColumn<bool>("timesOut");
        QTest::newRow("never answers") << u"/hang"_s << true;
        QTest::newRow("trickles bytes") << u"/drip"_s << true;
        QTest::newRow("10 MB header") << u"/huge"_s << false;
        QTest::newRow("TLS to a plain server") << u"/tls"_s << true;
    }

    void hostileServers()
    {
        QFETCH(QString, path);
        QFETCH(bool, timesOut);
        QString url = start(path);
        if (path == u"/tls")
            url.replace(u"http://"_s, u"https://"_s);
        // Each ends by its deadline, and says so when it is what ended it.
        if (timesOut)
            QTest::ignoreMessage(QtCriticalMsg,
                                 "Expansion failed at step 0: The request timed out.");
        QFuture<Link> future = URLExpander::expand(link(url), testNetwork());
        QVERIFY(QTest::qWaitFor([&] { return future.isFinished(); },
                                URLExpander::MaxRequests * URLExpander::RequestTimeoutMs));
        QCOMPARE(future.result().toString(), url);
    }

    void oddLocations_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::addColumn<QString>("reached"); // relative to the server; empty: stays at /b
        QTest::newRow("short IPv4") << QByteArray("http://127.1:%PORT%/odd") << u"/odd"_s;
        QTest::newRow("percent-encoded path")
            << QByteArray("/%E2%82%AC%20x") << u"/%E2%82%AC%20x"_s;
        QTest::newRow("raw UTF-8 path") << QByteArray("/\xe2\x82\xac") << u"/%E2%82%AC"_s;
        QTest::newRow("NUL") << QByteArray("/a\x00b", 4) << QString();
        QTest::newRow("not UTF-8") << QByteArray("/\xff\xfe") << QString();
        // Decoded, as browsers do: the same host.
        QTest::newRow("percent-encoded host")
            << QByteArray("http://%31%32%37.0.0.1:%PORT%/host") << u"/host"_s;
        QTest::newRow("blank") << QByteArray("   ") << QString();
    }

    void oddLocations()
    {
        QFETCH(QByteArray, location);
        QFETCH(QString, reached);
        m_server->redirect(u"/a"_s, 302, "/b");
        m_server->redirect(u"/b"_s, 302,
                           location.replace("%PORT%", QByteArray::number(m_server->port())));
        m_server->serve(reached.isEmpty() ? u"/unused"_s : reached, {});
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.URLExpander=false"_s);
        const QString result = expand(u"/a"_s);
        if (reached.isEmpty()) {
            QCOMPARE(result, start(u"/b"_s));
        } else {
            QCOMPARE(QUrl(result).path(QUrl::FullyEncoded), reached);
            QCOMPARE(m_server->requestCount(reached), 1);
        }
    }

    void shortLinksAndPublicAddresses()
    {
        QVERIFY(URLExpander::isShortLink(link(u"https://BIT.LY/abc"_s)));
        for (const QString &other :
             {u"https://www.bit.ly/abc"_s, u"https://notbit.ly/abc"_s, u"mailto:bit.ly"_s})
            QVERIFY2(!URLExpander::isShortLink(link(other)), qPrintable(other));

        for (const char *address : {"93.184.216.34", "8.8.8.8", "172.32.0.1", "2606:4700::1111",
                                    "::ffff:8.8.8.8", "64:ff9b::808:808"})
            QVERIFY2(URLExpander::isPublicAddress(QHostAddress(QLatin1StringView(address))),
                     address);
        for (const QString &address :
             u"127.0.0.1 127.8.9.10 10.1.2.3 172.31.255.255 192.168.1.1 169.254.169.254 "
             "100.64.0.1 0.0.0.0 224.0.0.1 255.255.255.255 198.18.0.1 ::1 :: ::127.0.0.1 "
             "fe80::1 fd00::1 ff02::1 ::ffff:10.0.0.1 ::ffff:127.0.0.1 64:ff9b::7f00:1 "
             "2002:7f00:1:: 2001:db8::1"_s.split(u' '))
            QVERIFY2(!URLExpander::isPublicAddress(QHostAddress(address)), qPrintable(address));
    }

    // A redirect may name a service of the user's own machine or network, however
    // written: the walk stops there and the service never hears of it.
    void neverReachesLocalServices_data()
    {
        QTest::addColumn<QByteArray>("location");
        QTest::newRow("address") << QByteArray("http://127.0.0.2:%PORT%/admin");
        QTest::newRow("IPv4 in IPv6") << QByteArray("http://[::ffff:127.0.0.2]:%PORT%/admin");
        QTest::newRow("name") << QByteArray("http://printer.lan:%PORT%/admin");
        QTest::newRow("name, one answer of two") << QByteArray("http://mixed.example:%PORT%/admin");
    }

    void neverReachesLocalServices()
    {
        QFETCH(QByteArray, location);
        TestHttpServer service(QHostAddress(u"127.0.0.2"_s));
        service.serve(u"/admin"_s, "secret");
        location.replace("%PORT%", QByteArray::number(service.port()));
        m_server->redirect(u"/a"_s, 302, location);
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(
                u"^Expansion stopped at step 1: (::ffff:)?127.0.0.2 is a local or private address$"_s));
        const QHostAddress local(u"127.0.0.2"_s);
        QCOMPARE(expand(u"/a"_s, testNetwork({{u"printer.lan"_s, {local}},
                                              {u"mixed.example"_s,
                                               {QHostAddress(u"93.184.216.34"_s), local}}})),
                 QString::fromUtf8(location));
        QCOMPARE(service.totalRequests(), 0);
        // And without the tests' allowance, the local test server itself is refused.
        QTest::ignoreMessage(
            QtWarningMsg, "Expansion stopped at step 0: 127.0.0.1 is a local or private address");
        QCOMPARE(finished(URLExpander::expand(link(start(u"/a"_s)))), start(u"/a"_s));
        QCOMPARE(m_server->requestCount(u"/a"_s), 1);
    }

    // The request goes to the address that was looked up and checked (no DNS knows
    // these names), while the server sees the name.
    void requestsGoToTheCheckedAddress()
    {
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.URLExpander=false"_s);
        const URLExpander::Network network =
            testNetwork({{u"bit.ly"_s, {QHostAddress(QHostAddress::LocalHost)}}});
        m_server->redirect(u"/a"_s, 301, "/b");
        m_server->serve(u"/b"_s, {});
        const QString base = u"http://bit.ly:%1"_s.arg(m_server->port());
        QCOMPARE(finished(URLExpander::expand(link(QString(base + u"/a"_s)), network)),
                 base + u"/b");
        const QByteArray hostHeader = "bit.ly:" + QByteArray::number(m_server->port());
        QCOMPARE(m_server->hostHeaders(), (QByteArrayList{hostHeader, hostHeader}));
    }

    // A server that never answers, or sends a header of megabytes, delays its own
    // walk only: walks started beside it or after it end at once.
    void hostileWalksHoldUpNoOther()
    {
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.URLExpander=false"_s);
        m_server->redirect(u"/ok"_s, 302, "/done");
        m_server->serve(u"/done"_s, {});
        const auto walk = [this](const QString &path) {
            return URLExpander::expand(link(start(path)), testNetwork());
        };
        QFuture<Link> hang = walk(u"/hang"_s);
        QFuture<Link> huge = walk(u"/huge"_s);
        QVERIFY(QTest::qWaitFor([&] { return m_server->requestCount(u"/huge"_s) == 1; }, 10000));
        QCOMPARE(finished(walk(u"/ok"_s)), start(u"/done"_s));
        QVERIFY(!hang.isFinished());
        QVERIFY(QTest::qWaitFor([&] { return huge.isFinished(); }, 10000));
        QCOMPARE(finished(walk(u"/ok"_s)), start(u"/done"_s));
        QVERIFY(QTest::qWaitFor([&] { return hang.isFinished(); }, 10000));
    }

private:
    QString start(const QString &path) const { return m_server->baseUrl() + path; }
    // The link the expansion ends with; stops the test if it never ends.
    static QString finished(QFuture<Link> future)
    {
        if (!QTest::qWaitFor([&] { return future.isFinished(); }, 10000))
            qFatal("expansion did not finish");
        return future.result().toString();
    }

    QString expand(const QString &path, const URLExpander::Network &network = testNetwork()) const
    {
        return finished(URLExpander::expand(link(start(path)), network));
    }

    std::unique_ptr<TestHttpServer> m_server;
};

QTEST_GUILESS_MAIN(TestURLExpander)
#include "tst_urlexpander.moc"
