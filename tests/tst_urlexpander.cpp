#include "Services/URLExpander.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QFutureWatcher>
#include <QLoggingCategory>
#include <QProcess>
#include <QScopeGuard>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;

class TestURLExpander final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void walks_data();
    void walks();
    void failureAfterRedirectsKeepsTheLastTarget();
    void hostileServers_data();
    void hostileServers();
    void oddLocations_data();
    void oddLocations();
    void shortLinkTest();
    void publicAddresses_data();
    void publicAddresses();
    void neverReachesLocalServices_data();
    void neverReachesLocalServices();
    void requestsGoToTheCheckedAddress();
    void hostileWalksHoldUpNoOther();

private:
    Link expand(const QString &path);
    // The link the expansion ends with; fails the test if it never ends.
    static Link finished(QFuture<Link> future);
    // Paths on which the server stalls, drips, sends a 10 MB header or gets TLS.
    void serveHostilePaths();

    std::unique_ptr<TestHttpServer> m_server;
};

void TestURLExpander::init()
{
    // Each test as if it ran alone, whatever ran before it.
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.debug=true"_s);
    m_server = std::make_unique<TestHttpServer>();
}

void TestURLExpander::cleanup()
{
    m_server.reset();
}

Link TestURLExpander::expand(const QString &path)
{
    return finished(URLExpander::expand(link(QString(m_server->baseUrl() + path)), testNetwork()));
}

Link TestURLExpander::finished(QFuture<Link> future)
{
    if (!QTest::qWaitFor([&] { return future.isFinished(); }, 10000))
        qFatal("expansion did not finish");
    return future.result();
}

void TestURLExpander::serveHostilePaths()
{
    m_server->on(u"/hang"_s, {200, {}, true, {}, false});
    m_server->on(u"/drip"_s, {200, {}, false, {}, true});
    m_server->on(u"/huge"_s,
                 {302,
                  {{"X-Padding", QByteArray(10 * 1024 * 1024, 'a')}, {"Location", "/after-huge"}},
                  false,
                  {},
                  false});
    m_server->on(u"/tls"_s, {200, {}, false, {}, false});
}

void TestURLExpander::walks_data()
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
    for (const QString &away : {u"file:///etc/passwd"_s, u"javascript:alert(1)"_s,
                                u"data:text/html,<script>x</script>"_s, u"https:///nothing"_s})
        QTest::newRow(qPrintable(away.left(10)))
            << QStringList{u"/a 302 /b"_s, u"/b 302 "_s + away} << u"/b"_s << 2;
}

void TestURLExpander::walks()
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
    QCOMPARE(expand(answers.first().section(u' ', 0, 0)).toString(),
             QString(m_server->baseUrl() + ends));
    QCOMPARE(m_server->totalRequests(), requests);
    QCOMPARE(m_server->methods(), QList<QByteArray>(requests, "HEAD"));
}

void TestURLExpander::failureAfterRedirectsKeepsTheLastTarget()
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
    QCOMPARE(expand(u"/a"_s).toString(), QString::fromUtf8(deadEnd));
}

// Servers that stall, drip, shout or speak the wrong protocol: each walk ends
// within its time with the link it had, and the event loop never stops.
void TestURLExpander::hostileServers_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("https");
    // Whether the walk can only end at its deadline: a fast machine reads the
    // whole 10 MB header before then, a slow one does not.
    QTest::addColumn<bool>("timesOut");
    QTest::newRow("never answers") << u"/hang"_s << false << true;
    QTest::newRow("trickles bytes") << u"/drip"_s << false << true;
    QTest::newRow("10 MB header") << u"/huge"_s << false << false;
    QTest::newRow("TLS to a plain server") << u"/tls"_s << true << true;
}

void TestURLExpander::hostileServers()
{
    QFETCH(QString, path);
    QFETCH(bool, https);
    QFETCH(bool, timesOut);
    serveHostilePaths();
    QString start = m_server->baseUrl() + path;
    if (https)
        start.replace(u"http://"_s, u"https://"_s);
    int ticks = 0;
    QTimer ticker;
    connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
    ticker.start(50);
    QElapsedTimer clock;
    clock.start();
    // Each ends by its deadline, and says so when it is what ended it.
    if (timesOut)
        QTest::ignoreMessage(QtCriticalMsg, "Expansion failed at step 0: The request timed out.");
    QFuture<Link> future = URLExpander::expand(link(start), testNetwork());
    QVERIFY(QTest::qWaitFor([&] { return future.isFinished(); },
                            URLExpander::MaxRequests * URLExpander::RequestTimeoutMs));
    QCOMPARE(future.result().toString(), start);
    qInfo("%s: ended after %lld ms", QTest::currentDataTag(),
          static_cast<long long>(clock.elapsed()));
    QVERIFY(!timesOut || clock.elapsed() >= URLExpander::RequestTimeoutMs - 100);
    QVERIFY2(clock.elapsed() <= URLExpander::RequestTimeoutMs + 1500,
             qPrintable(QString::number(clock.elapsed())));
    QVERIFY(ticks >= clock.elapsed() / 50 / 2);
}

void TestURLExpander::oddLocations_data()
{
    QTest::addColumn<QByteArray>("location");
    QTest::addColumn<QString>("reached"); // relative to the server; empty: stays at /b
    QTest::newRow("short IPv4") << QByteArray("http://127.1:%PORT%/odd") << u"/odd"_s;
    QTest::newRow("percent-encoded path") << QByteArray("/%E2%82%AC%20x") << u"/%E2%82%AC%20x"_s;
    QTest::newRow("raw UTF-8 path") << QByteArray("/\xe2\x82\xac") << u"/%E2%82%AC"_s;
    QTest::newRow("NUL") << QByteArray("/a\x00b", 4) << QString();
    QTest::newRow("not UTF-8") << QByteArray("/\xff\xfe") << QString();
    // Decoded, as browsers do: the same host.
    QTest::newRow("percent-encoded host")
        << QByteArray("http://%31%32%37.0.0.1:%PORT%/host") << u"/host"_s;
    QTest::newRow("blank") << QByteArray("   ") << QString();
}

void TestURLExpander::oddLocations()
{
    QFETCH(QByteArray, location);
    QFETCH(QString, reached);
    const QByteArray port = QByteArray::number(QUrl(m_server->baseUrl()).port());
    m_server->redirect(u"/a"_s, 302, "/b");
    m_server->redirect(u"/b"_s, 302, QByteArray(location).replace("%PORT%", port));
    m_server->on(reached.isEmpty() ? u"/unused"_s : reached, {200, {}, false, {}, false});
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.URLExpander=false"_s);
    const Link result = expand(u"/a"_s);
    if (reached.isEmpty()) {
        QCOMPARE(result.toString(), QString(m_server->baseUrl() + u"/b"_s));
    } else {
        QCOMPARE(QUrl(result.toString()).path(QUrl::FullyEncoded), reached);
        QCOMPARE(m_server->requestCount(reached), 1);
    }
}

void TestURLExpander::shortLinkTest()
{
    QCOMPARE(URLExpander::shortDomains().size(), 13);
    for (const QString &host : URLExpander::shortDomains()) {
        QCOMPARE(host.count(u'.'), 1);
        QCOMPARE(host, host.toLower());
    }
    QVERIFY(URLExpander::isShortLink(link(u"https://BIT.LY/abc"_s)));
    QVERIFY(!URLExpander::isShortLink(link(u"https://www.bit.ly/abc"_s)));
    QVERIFY(!URLExpander::isShortLink(link(u"https://notbit.ly/abc"_s)));
    QVERIFY(!URLExpander::isShortLink(link(u"mailto:bit.ly"_s)));
}

void TestURLExpander::publicAddresses_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<bool>("isPublic");
    const QStringList publicOnes{u"93.184.216.34"_s,   u"8.8.8.8"_s,        u"172.32.0.1"_s,
                                 u"2606:4700::1111"_s, u"::ffff:8.8.8.8"_s, u"64:ff9b::808:808"_s};
    for (const QString &address : publicOnes)
        QTest::newRow(qPrintable(address)) << address << true;
    const QStringList local{
        u"127.0.0.1"_s,   u"127.8.9.10"_s,       u"10.1.2.3"_s,         u"172.31.255.255"_s,
        u"192.168.1.1"_s, u"169.254.169.254"_s,  u"100.64.0.1"_s,       u"0.0.0.0"_s,
        u"224.0.0.1"_s,   u"255.255.255.255"_s,  u"198.18.0.1"_s,       u"::1"_s,
        u"::"_s,          u"::127.0.0.1"_s,      u"fe80::1"_s,          u"fd00::1"_s,
        u"ff02::1"_s,     u"::ffff:10.0.0.1"_s,  u"::ffff:127.0.0.1"_s, u"64:ff9b::7f00:1"_s,
        u"2002:7f00:1::"_s, u"2001:db8::1"_s};
    for (const QString &address : local)
        QTest::newRow(qPrintable(address)) << address << false;
}

void TestURLExpander::publicAddresses()
{
    QFETCH(QString, address);
    QFETCH(bool, isPublic);
    QCOMPARE(URLExpander::isPublicAddress(QHostAddress(address)), isPublic);
}

// A redirect may name a service of the user's own machine or network, however
// written: the walk stops there and the service never hears of it.
void TestURLExpander::neverReachesLocalServices_data()
{
    QTest::addColumn<QByteArray>("location");
    QTest::newRow("address") << QByteArray("http://127.0.0.2:%PORT%/admin");
    QTest::newRow("IPv4 in IPv6") << QByteArray("http://[::ffff:127.0.0.2]:%PORT%/admin");
    QTest::newRow("name") << QByteArray("http://printer.lan:%PORT%/admin");
    QTest::newRow("name, one answer of two") << QByteArray("http://mixed.example:%PORT%/admin");
}

void TestURLExpander::neverReachesLocalServices()
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
    const URLExpander::Network network =
        testNetwork({{u"printer.lan"_s, {local}},
                     {u"mixed.example"_s, {QHostAddress(u"93.184.216.34"_s), local}}});
    QCOMPARE(finished(URLExpander::expand(link(QString(m_server->baseUrl() + u"/a"_s)), network))
                 .toString(),
             QString::fromUtf8(location));
    QCOMPARE(service.totalRequests(), 0);

    // And without the tests' allowance, the local test server itself is refused.
    QTest::ignoreMessage(QtWarningMsg,
                         "Expansion stopped at step 0: 127.0.0.1 is a local or private address");
    QCOMPARE(finished(URLExpander::expand(link(QString(m_server->baseUrl() + u"/a"_s)))).toString(),
             QString(m_server->baseUrl() + u"/a"_s));
    QCOMPARE(m_server->requestCount(u"/a"_s), 1);
}

// The request goes to the address that was looked up and checked (no DNS knows
// these names), while the server, and over TLS the certificate, see the name.
void TestURLExpander::requestsGoToTheCheckedAddress()
{
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.URLExpander=false"_s);
    const QHash<QString, QList<QHostAddress>> names{
        {u"bit.ly"_s, {QHostAddress(QHostAddress::LocalHost)}}};
    m_server->redirect(u"/a"_s, 301, "/b");
    m_server->serve(u"/b"_s, {});
    const QString plain = u"http://bit.ly:%1"_s.arg(m_server->port());
    QCOMPARE(finished(URLExpander::expand(link(QString(plain + u"/a"_s)), testNetwork(names)))
                 .toString(),
             QString(plain + u"/b"_s));
    const QByteArray hostHeader = "bit.ly:" + QByteArray::number(m_server->port());
    QCOMPARE(m_server->hostHeaders(), (QByteArrayList{hostHeader, hostHeader}));

    // A certificate for the name only, trusted for this test.
    QTemporaryDir dir;
    QProcess openssl;
    openssl.start(u"openssl"_s,
                  {u"req"_s, u"-x509"_s, u"-newkey"_s, u"ec"_s, u"-pkeyopt"_s,
                   u"ec_paramgen_curve:prime256v1"_s, u"-nodes"_s, u"-days"_s, u"2"_s, u"-subj"_s,
                   u"/CN=bit.ly"_s, u"-addext"_s, u"subjectAltName=DNS:bit.ly"_s, u"-keyout"_s,
                   dir.filePath(u"key.pem"_s), u"-out"_s, dir.filePath(u"cert.pem"_s)});
    QVERIFY(openssl.waitForFinished() && openssl.exitCode() == 0);
    QFile certFile(dir.filePath(u"cert.pem"_s));
    QFile keyFile(dir.filePath(u"key.pem"_s));
    QVERIFY(certFile.open(QIODevice::ReadOnly) && keyFile.open(QIODevice::ReadOnly));
    const QSslCertificate certificate(&certFile, QSsl::Pem);
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setLocalCertificate(certificate);
    tls.setPrivateKey(QSslKey(&keyFile, QSsl::Ec, QSsl::Pem));
    const QSslConfiguration trusted = QSslConfiguration::defaultConfiguration();
    QSslConfiguration trusting = trusted;
    trusting.addCaCertificate(certificate);
    QSslConfiguration::setDefaultConfiguration(trusting);
    const auto restore = qScopeGuard([&] { QSslConfiguration::setDefaultConfiguration(trusted); });

    TestHttpServer secure(QHostAddress::LocalHost, tls);
    secure.redirect(u"/a"_s, 302, "/b");
    secure.serve(u"/b"_s, {});
    const QString https = u"https://bit.ly:%1"_s.arg(secure.port());
    QCOMPARE(finished(URLExpander::expand(link(QString(https + u"/a"_s)), testNetwork(names)))
                 .toString(),
             QString(https + u"/b"_s));
    QCOMPARE(secure.requestCount(u"/b"_s), 1);
}

// A server that never answers, or sends a header of megabytes, delays its own
// walk only: walks started beside it or after it end at once.
void TestURLExpander::hostileWalksHoldUpNoOther()
{
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.URLExpander=false"_s);
    serveHostilePaths();
    m_server->redirect(u"/ok"_s, 302, "/done");
    m_server->serve(u"/done"_s, {});
    const auto start = [this](const QString &path) {
        return URLExpander::expand(link(QString(m_server->baseUrl() + path)), testNetwork());
    };
    const QString done = m_server->baseUrl() + u"/done"_s;

    QFuture<Link> hang = start(u"/hang"_s);
    QFuture<Link> huge = start(u"/huge"_s);
    QVERIFY(QTest::qWaitFor([&] { return m_server->requestCount(u"/huge"_s) == 1; }, 10000));
    QFuture<Link> beside = start(u"/ok"_s);
    QCOMPARE(finished(beside).toString(), done);
    QVERIFY(!hang.isFinished());

    QVERIFY(QTest::qWaitFor([&] { return huge.isFinished(); }, 10000));
    QCOMPARE(finished(start(u"/ok"_s)).toString(), done);
    QVERIFY(QTest::qWaitFor([&] { return hang.isFinished(); }, 10000));
}

QTEST_GUILESS_MAIN(TestURLExpander)
#include "tst_urlexpander.moc"
