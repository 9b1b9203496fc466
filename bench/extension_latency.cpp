// What the browser extension costs (run by hand: see README.md). Quillvane is
// installed from the build tree and started on a session bus of this
// program's; a URL rule sends localhost to a fake browser.
//  1. The extension's question, through the host, as a browser's host asks it:
//     a "leaves" request written to the host until its answer is read.
//  2. In headless Chromium and Firefox ESR, with and without the extension: a
//     page served here waits for this program's word and clicks a link. Timed
//     from the word sent to the next page asked of this server (a link that
//     stays), or to the fake browser's main() (a link that leaves).
#include "HarnessSupport.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>

#include <cstdio>
#include <ctime>

using namespace Qt::Literals::StringLiterals;
using namespace HarnessSupport;

namespace {

qint64 monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void waitUntil(const std::function<bool()> &done)
{
    while (!done())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

QByteArray frame(const QByteArray &message)
{
    const quint32 size = quint32(message.size());
    return QByteArray(reinterpret_cast<const char *>(&size), sizeof size) + message;
}

// The page's server: "/go" is answered when this program says which link to
// click; "/stay" is noted when asked for; "/away" is never answered.
class PageServer final : public QObject
{
public:
    PageServer()
    {
        m_server.listen(QHostAddress::LocalHost);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
                // The request may have come with the connection.
                if (socket->bytesAvailable() > 0)
                    serve(socket);
            }
        });
    }
    quint16 port() const { return m_server.serverPort(); }
    bool waiting() const { return !m_go.isEmpty(); }
    void say(const QByteArray &link)
    {
        for (QTcpSocket *socket : std::exchange(m_go, {}))
            reply(socket, link);
    }
    qint64 stayAskedNs = 0;

private:
    void reply(QTcpSocket *socket, const QByteArray &body)
    {
        socket->write("HTTP/1.1 200 OK\r\nCache-Control: no-store\r\nContent-Type: text/html\r\n"
                      "Content-Length: "
                      + QByteArray::number(body.size()) + "\r\n\r\n" + body);
    }
    void serve(QTcpSocket *socket)
    {
        const QByteArray head = socket->readAll();
        const QByteArray path = head.split(' ').value(1);
        if (qEnvironmentVariableIsSet("EXTENSION_LATENCY_TRACE"))
            std::fprintf(stderr, "asked: %s\n", path.constData());
        const QByteArray port = QByteArray::number(m_server.serverPort());
        if (path == "/go")
            m_go.append(socket);
        else if (path == "/stay") {
            stayAskedNs = monotonicNs();
            reply(socket, "<script>location.replace('/start')</script>");
        } else if (path == "/start")
            reply(socket, "<a id=stay href='http://127.0.0.1:" + port
                              + "/stay'>stay</a><a id=away href='http://localhost:" + port
                              + "/away'>away</a><script>(async () => { for (;;) {"
                                "const r = await fetch('/go', {cache: 'no-store'}).catch(() => null);"
                                "const word = r && r.ok ? (await r.text()).split('/') : [];"
                                "const link = document.getElementById(word[0]);"
                                // Each link that leaves is one of its own: the same link
                                // again within seconds is taken for a routing loop.
                                "if (link && word[1]) link.search = '?n=' + word[1];"
                                "if (link) link.click();"
                                // A page that is left does not ask again.
                                "await new Promise((done) => setTimeout(done, 1000));"
                                "}})()</script>");
        else if (!path.startsWith("/away"))
            reply(socket, {});
    }

    QTcpServer m_server;
    QList<QTcpSocket *> m_go;
};

struct Browser
{
    const char *name;
    QString desktopId;
    QStringList arguments; // {extension} is replaced
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int rounds = argc > 1 ? std::max(5, atoi(argv[1])) : 20;
    QTemporaryDir root;
    const QString prefix = installInto(root.path());
    const QString home = root.path() + u"/home"_s;
    qputenv("HOME", QFile::encodeName(home));
    QDir().mkpath(home + u"/.mozilla"_s);
    QDir().mkpath(root.path() + u"/config/chromium"_s);
    const QString stamp = root.path() + u"/stamp"_s;
    qputenv("FAKE_BROWSER_STAMP", QFile::encodeName(stamp));
    const QString apps = root.path() + u"/data/applications/"_s;
    const QByteArray web = "MimeType=x-scheme-handler/http;x-scheme-handler/https;\n";
    writeFile(apps + u"other-browser.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Other\nExec=" FAKE_BROWSER " %u\n" + web);
    writeFile(apps + u"chromium.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Chromium\nExec=/usr/bin/chromium %U\n" + web);
    writeFile(apps + u"firefox-esr.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Firefox\nExec=/usr/bin/firefox-esr %u\n"
                  + web);
    QDir().mkpath(root.path() + u"/config/quillvane"_s);
    writeFile(root.path() + u"/config/quillvane/config.json"_s,
              "{\"default_browser_bundle_id\": \"other-browser\", \"routing_rules\": [{\"id\": "
              "\"6C3F1A52-8D7E-4F0B-9A21-3B5E7C9D1F04\", \"sourceAppBundleID\": \"\", \"sourceAppName\": \"\", \"urlPattern\": \"localhost\", "
              "\"targetBrowserBundleID\": \"other-browser\", \"targetBrowserName\": \"Other\"}]}\n");
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QProcess bus;
    startSessionBus(bus, root.path(), prefix);
    QProcess instance;
    instance.setStandardOutputFile(QProcess::nullDevice());
    instance.setStandardErrorFile(QProcess::nullDevice());
    instance.start(prefix + u"/bin/quillvane"_s);
    waitForInstance();
    const QString host = prefix + u"/libexec/quillvane/quillvane-native-host"_s;
    waitUntil([&] {
        return QFile::exists(home + u"/.mozilla/native-messaging-hosts/work.vorpa.quillvane.json"_s);
    });

    // 1. The question, as Chromium's host asks it (GIO's launch environment
    //    names the host's process as the browser).
    {
        QProcess asker;
        asker.start(u"/bin/sh"_s, {u"-c"_s, u"export GIO_LAUNCHED_DESKTOP_FILE=\"$0\" "
                                            "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; exec \"$1\""_s,
                                   apps + u"chromium.desktop"_s, host});
        asker.waitForStarted();
        QList<double> stays, leaves;
        for (int i = 0; i < rounds * 25; ++i) {
            for (const bool away : {false, true}) {
                const QByteArray url = away ? "http://localhost/x" : "http://127.0.0.1/x";
                QElapsedTimer clock;
                clock.start();
                asker.write(frame("{\"id\":" + QByteArray::number(i)
                                  + ",\"type\":\"leaves\",\"url\":\"" + url + "\"}"));
                quint32 size = 0;
                while (asker.bytesAvailable() < 4)
                    asker.waitForReadyRead(1000);
                asker.read(reinterpret_cast<char *>(&size), 4);
                while (asker.bytesAvailable() < size)
                    asker.waitForReadyRead(1000);
                const QByteArray answer = asker.read(size);
                (away ? leaves : stays).append(double(clock.nsecsElapsed()) / 1e3);
                if (answer.contains("\"leaves\":true") != away)
                    std::fprintf(stderr, "unexpected answer: %s\n", answer.constData());
            }
        }
        asker.closeWriteChannel();
        asker.waitForFinished();
        std::printf("leaves through the host, a link that stays:  median %.0f µs (%lld asked)\n",
                    median(stays), static_cast<long long>(stays.size()));
        std::printf("leaves through the host, a link that leaves: median %.0f µs\n", median(leaves));
    }

    // 2. Clicks in the real browsers.
    PageServer server;
    const QString start = u"http://127.0.0.1:%1/start"_s.arg(server.port());
    const QString extension = QStringLiteral(QUILLVANE_BUILD_DIR) + u"/browser-extension"_s;
    QTemporaryDir firefoxWith, firefoxWithout;
    for (QTemporaryDir *profile : {&firefoxWith, &firefoxWithout})
        writeFile(profile->path() + u"/user.js"_s,
                  "user_pref(\"xpinstall.signatures.required\", false);\n"
                  "user_pref(\"extensions.autoDisableScopes\", 0);\n"
                  "user_pref(\"browser.shell.checkDefaultBrowser\", false);\n"
                  "user_pref(\"devtools.console.stdout.chrome\", true);\n"
                  "user_pref(\"devtools.console.stdout.content\", true);\n");
    QDir().mkpath(firefoxWith.path() + u"/extensions"_s);
    QFile::copy(extension + u"/quillvane.xpi"_s,
                firefoxWith.path() + u"/extensions/quillvane@vorpa.work.xpi"_s);
    const QStringList chromium{u"/usr/bin/chromium"_s, u"--headless"_s, u"--no-sandbox"_s,
                               u"--disable-gpu"_s, u"--no-first-run"_s,
                               u"--disable-background-networking"_s,
                               u"--disable-component-update"_s, u"--disable-sync"_s};
    const QList<Browser> browsers{
        {"Chromium, with the extension", u"chromium"_s,
         chromium + QStringList{u"--user-data-dir="_s + root.path() + u"/config/chromium"_s,
                                u"--load-extension="_s + extension + u"/chromium"_s,
                                u"--disable-features=DisableLoadExtensionCommandLineSwitch"_s}},
        {"Chromium, without", u"chromium"_s,
         chromium + QStringList{u"--user-data-dir="_s + root.path() + u"/chromium-plain"_s}},
        {"Firefox ESR, with the extension", u"firefox-esr"_s,
         {u"/usr/bin/firefox-esr"_s, u"--headless"_s, u"--no-remote"_s, u"--profile"_s,
          firefoxWith.path()}},
        {"Firefox ESR, without", u"firefox-esr"_s,
         {u"/usr/bin/firefox-esr"_s, u"--headless"_s, u"--no-remote"_s, u"--profile"_s,
          firefoxWithout.path()}},
    };
    const QString only = qEnvironmentVariable("EXTENSION_LATENCY_ONLY");
    for (const Browser &browser : browsers) {
        if (!only.isEmpty() && !QString::fromUtf8(browser.name).contains(only))
            continue;
        const bool withExtension = QString::fromUtf8(browser.name).contains(u"with the"_s);
        QProcess process;
        process.setStandardOutputFile(QProcess::nullDevice());
        if (!qEnvironmentVariableIsSet("EXTENSION_LATENCY_TRACE"))
            process.setStandardErrorFile(QProcess::nullDevice());
        else
            process.setProcessChannelMode(QProcess::ForwardedChannels);
        process.start(u"/bin/sh"_s, QStringList{u"-c"_s, u"export GIO_LAUNCHED_DESKTOP_FILE=\"$0\" "
                                                         "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; exec \"$@\""_s,
                                                apps + browser.desktopId + u".desktop"_s}
                                        + browser.arguments + QStringList{start});
        QList<double> stays, leaves;
        // The first round of each kind warms the browser and is not counted.
        for (int i = 0; i <= rounds; ++i) {
            std::fprintf(stderr, "%s: round %d\n", browser.name, i);
            waitUntil([&] { return server.waiting(); });
            server.stayAskedNs = 0;
            qint64 said = monotonicNs();
            server.say("stay");
            waitUntil([&] { return server.stayAskedNs != 0; });
            if (i > 0)
                stays.append(double(server.stayAskedNs - said) / 1e6);
            if (!withExtension)
                continue;
            QFile::remove(stamp);
            waitUntil([&] { return server.waiting(); });
            said = monotonicNs();
            server.say("away/" + QByteArray::number(i));
            waitUntil([&] { return QFile::exists(stamp); });
            QFile file(stamp);
            file.open(QIODevice::ReadOnly);
            if (i > 0)
                leaves.append(double(file.readAll().trimmed().toLongLong() - said) / 1e6);
        }
        std::printf("%-32s a click that stays: median %.2f ms", browser.name, median(stays));
        if (withExtension)
            std::printf("; a click that leaves, to the other browser's start: median %.2f ms",
                        median(leaves));
        std::printf("\n");
        process.kill();
        process.waitForFinished();
    }
    instance.terminate();
    instance.waitForFinished();
    bus.terminate();
    bus.waitForFinished();
    return 0;
}
