// Latency of a click, side by side in one run: the time from starting what a
// desktop starts when a link is clicked to the browser's main(), with and
// without Quillvane in between (each round's ratio, with the spread over the
// rounds); Quillvane's own share, from the request's arrival to the browser's
// start, as its trail states it for each link; its cold start and idle memory
// (with a tray when run under an X server and trayer is installed); and how
// long a burst of 1,000 links takes to reach the browser.
// Runs against Quillvane installed from the build tree, on a session bus of its
// own. Usage: [xvfb-run -a] latency_harness [rounds]
#include "HarnessSupport.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusMetaType>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <functional>

using namespace Qt::Literals::StringLiterals;
using namespace HarnessSupport;

namespace {

QString g_root;
QString g_stamp;

qint64 nowNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// Starts command and returns the milliseconds until the fake browser's main().
double clickToBrowser(const QString &program, const QStringList &arguments)
{
    QFile::remove(g_stamp);
    const qint64 start = nowNs();
    QProcess process;
    process.start(program, arguments);
    qint64 stamp = -1;
    for (int i = 0; i < 200000 && stamp < 0; ++i) {
        QFile file(g_stamp);
        if (file.open(QIODevice::ReadOnly))
            stamp = file.readAll().trimmed().toLongLong();
        else
            QThread::usleep(100);
    }
    process.waitForFinished(10000);
    // Let Quillvane finish with this link (its history is written after the
    // browser started) before the next click: clicks come seconds apart.
    QThread::msleep(30);
    return stamp < 0 ? -1 : double(stamp - start) / 1e6;
}

void setDefault(const QString &desktopId)
{
    writeFile(g_root + u"/config/mimeapps.list"_s,
              "[Default Applications]\nx-scheme-handler/https=" + desktopId.toUtf8() + "\n");
}

qint64 instancePid()
{
    const auto reply =
        QDBusConnection::sessionBus().interface()->servicePid(u"work.vorpa.Quillvane"_s);
    return reply.isValid() ? qint64(reply.value()) : -1;
}

// Median and quartiles of values, as "median (first–third quartile)".
QString spread(QList<double> values, int decimals = 2)
{
    std::sort(values.begin(), values.end());
    if (values.isEmpty())
        return u"-"_s;
    const auto at = [&](double q) { return values.at(qsizetype(q * double(values.size() - 1) + 0.5)); };
    return u"%1 (%2–%3)"_s.arg(QString::number(at(0.5), 'f', decimals),
                              QString::number(at(0.25), 'f', decimals),
                              QString::number(at(0.75), 'f', decimals));
}

QList<double> ratios(const QList<double> &of, const QList<double> &to)
{
    QList<double> result;
    for (qsizetype i = 0; i < std::min(of.size(), to.size()); ++i)
        result.append(of[i] / to[i]);
    return result;
}

// The trail's timing lines of the links since offset ("Browser started 1.61 ms
// after the request arrived, asked to start after 0.80 (sender 0.20, …)"), as columns.
QMap<QString, QList<double>> instanceShare(const QString &trail, qint64 offset)
{
    QFile file(trail);
    QMap<QString, QList<double>> columns;
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
        return columns;
    static const QRegularExpression line(
        uR"(Browser started ([0-9.]+) ms after the request arrived, asked to start after ([0-9.]+) \(([^)]*)\))"_s);
    for (const QByteArray &raw : file.readAll().split('\n')) {
        const auto match = line.match(QString::fromUtf8(raw));
        if (!match.hasMatch())
            continue;
        columns[u"started"_s].append(match.captured(1).toDouble());
        columns[u"asked"_s].append(match.captured(2).toDouble());
        for (const QString &part : match.captured(3).split(u", "_s)) {
            const QStringList nameValue = part.split(u' ');
            if (nameValue.size() == 2)
                columns[nameValue[0]].append(nameValue[1].toDouble());
        }
    }
    return columns;
}

qint64 fileSize(const QString &path)
{
    return QFileInfo(path).size();
}

// Resident memory as smaps_rollup counts it: the whole (most of it pages of
// shared libraries that every Qt program on the desktop shares), the
// proportional share, and what is this process's own.
QByteArray residentOf(qint64 pid)
{
    QFile rollup(u"/proc/%1/smaps_rollup"_s.arg(pid));
    if (!rollup.open(QIODevice::ReadOnly))
        return "?";
    QMap<QByteArray, qint64> kB;
    for (const QByteArray &line : rollup.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() >= 2)
            kB[fields[0]] = fields[1].toLongLong();
    }
    const auto mb = [](qint64 value) { return QByteArray::number(double(value) / 1024.0, 'f', 1); };
    return "RSS " + mb(kB.value("Rss:")) + " MB (PSS " + mb(kB.value("Pss:")) + ", private "
           + mb(kB.value("Private_Clean:") + kB.value("Private_Dirty:")) + ", anonymous "
           + mb(kB.value("Anonymous:")) + ")";
}

// What the resident memory is: the mappings that hold most of it, by file.
QByteArray largestMappings(qint64 pid, int count)
{
    QFile smaps(u"/proc/%1/smaps"_s.arg(pid));
    if (!smaps.open(QIODevice::ReadOnly))
        return "?";
    QMap<QByteArray, qint64> kB;
    QByteArray name;
    for (const QByteArray &line : smaps.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() >= 5 && fields[0].contains('-') && !fields[0].endsWith(':'))
            name = fields.size() >= 6 ? fields[5].split('/').last() : QByteArray("[anonymous]");
        else if (fields.size() >= 2 && fields[0] == "Rss:")
            kB[name] += fields[1].toLongLong();
    }
    QList<std::pair<qint64, QByteArray>> sorted;
    for (auto it = kB.cbegin(); it != kB.cend(); ++it)
        sorted.append({it.value(), it.key()});
    std::sort(sorted.begin(), sorted.end(), std::greater<>());
    QByteArray text;
    for (qsizetype i = 0; i < std::min<qsizetype>(count, sorted.size()); ++i)
        text += (i % 4 == 0 ? "\n    " : ", ") + sorted[i].second + ' '
                + QByteArray::number(double(sorted[i].first) / 1024.0, 'f', 1);
    return text;
}

void stopInstance()
{
    if (const qint64 pid = instancePid(); pid > 0)
        ::kill(pid_t(pid), SIGTERM);
    while (
        QDBusConnection::sessionBus().interface()->isServiceRegistered(u"work.vorpa.Quillvane"_s))
        QThread::msleep(5);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::max(5, atoi(argv[1])) : 30;
    QTemporaryDir root;
    // For a look at what a run left behind.
    root.setAutoRemove(!qEnvironmentVariableIsSet("QUILLVANE_KEEP_TEST_FILES"));
    g_root = root.path();
    g_stamp = g_root + u"/stamp"_s;
    const QString prefix = installInto(g_root);

    const QString browser = QStringLiteral(FAKE_BROWSER);
    // The application the user clicks in: a copy of the shell with a desktop
    // entry of its own, so that Quillvane finds it as the link's source, as it
    // finds a real application (the resolver's parent chain ends at once).
    const QString clicker = g_root + u"/bin/mail-client"_s;
    QDir().mkpath(g_root + u"/bin"_s);
    QFile::copy(u"/bin/sh"_s, clicker);
    QFile::setPermissions(clicker, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    writeFile(g_root + u"/data/applications/mail-client.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Mail\nExec=" + clicker.toUtf8() + "\n");
    writeFile(g_root + u"/data/applications/fake-browser.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Fake\nExec=" + browser.toUtf8()
                  + " %u\nMimeType=x-scheme-handler/https;\n");
    QProcess::execute(u"update-desktop-database"_s, {u"-q"_s, g_root + u"/data/applications"_s});
    writeFile(g_root + u"/config/Quillvane/Quillvane.conf"_s,
              "[General]\ndefault_browser_bundle_id=fake-browser\n");
    qputenv("FAKE_BROWSER_STAMP", QFile::encodeName(g_stamp));
    qputenv("QT_QPA_PLATFORM", "offscreen");

    QProcess bus;
    startSessionBus(bus, g_root, prefix);

    const QString open = prefix + u"/bin/quillvane-open"_s;
    // A link of its own for every click: the same link again within seconds is
    // checked for a routing loop (is its sender a browser Quillvane just started?).
    int clicks = 0;
    const auto nextLink = [&clicks] { return u"https://example.com/article?id=%1"_s.arg(++clicks); };
    const QString url = nextLink();

    // Cold: the first link starts Quillvane through D-Bus activation.
    const double firstLink = clickToBrowser(open, {url});
    stopInstance();
    const qint64 startedAt = nowNs();
    QProcess instance;
    // Its log is not read: a pipe nobody empties would stop it once full.
    instance.setStandardOutputFile(QProcess::nullDevice());
    instance.setStandardErrorFile(QProcess::nullDevice());
    instance.start(prefix + u"/bin/quillvane"_s);
    waitForInstance();
    const double nameOwned = double(nowNs() - startedAt) / 1e6;

    // Each command runs as a child of the clicking application.
    const auto click = [&](const QString &command) {
        return clickToBrowser(clicker, {u"-c"_s, command + u"; true"_s});
    };
    QList<double> direct, forwarded, unknownAlone, unknownInBurst, gioDirect, gioQuillvane;
    const QString trail = g_root + u"/run/Quillvane.log"_s;
    const qint64 trailBefore = fileSize(trail);
    QList<double> directAgain, forwardedAgain;
    for (int i = 0; i < rounds; ++i) {
        // Alternating, so that a slow phase of the machine hits both.
        directAgain.append(click(browser + u' ' + nextLink()));
        forwardedAgain.append(click(open + u' ' + nextLink()));
    }
    const QMap<QString, QList<double>> share = instanceShare(trail, trailBefore);
    for (int i = 0; i < rounds; ++i) {
        direct.append(click(browser + u' ' + nextLink()));
        forwarded.append(click(open + u' ' + nextLink()));
        // The same from a process of no application (a script's shell): the
        // first link of a burst, then one right after it.
        QThread::msleep(1600);
        unknownAlone.append(clickToBrowser(u"/bin/sh"_s, {u"-c"_s, open + u' ' + nextLink() + u"; true"_s}));
        unknownInBurst.append(
            clickToBrowser(u"/bin/sh"_s, {u"-c"_s, open + u' ' + nextLink() + u"; true"_s}));
        setDefault(u"fake-browser.desktop"_s);
        gioDirect.append(click(u"gio open "_s + nextLink()));
        setDefault(u"work.vorpa.Quillvane.desktop"_s);
        gioQuillvane.append(click(u"gio open "_s + nextLink()));
    }

    // A burst: 1,000 links in 100 requests of ten, all sent at once, until the
    // browser has started for each (it appends its link to a file).
    const QString burstLog = g_root + u"/burst.log"_s;
    qputenv("FAKE_BROWSER_LOG", QFile::encodeName(burstLog));
    stopInstance();
    instance.waitForFinished(5000);
    instance.start(prefix + u"/bin/quillvane"_s);
    waitForInstance();
    const auto linesIn = [](const QString &path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll().count('\n') : 0;
    };
    const qint64 burstStart = nowNs();
    QList<QDBusPendingCall> calls;
    for (int call = 0; call < 100; ++call) {
        QStringList links;
        for (int i = 0; i < 10; ++i)
            links.append(u"https://example.com/burst/%1"_s.arg(call * 10 + i));
        QDBusMessage message = QDBusMessage::createMethodCall(
            u"work.vorpa.Quillvane"_s, u"/work/vorpa/Quillvane"_s,
            u"org.freedesktop.Application"_s, u"Open"_s);
        message << links << QVariantMap();
        calls.append(QDBusConnection::sessionBus().asyncCall(message, 60000));
    }
    int answered = 0;
    for (QDBusPendingCall &call : calls) {
        call.waitForFinished();
        answered += call.isError() ? 0 : 1;
    }
    const double allAnswered = double(nowNs() - burstStart) / 1e6;
    while (linesIn(burstLog) < 1000 && nowNs() - burstStart < 60'000'000'000LL)
        QThread::msleep(1);
    const double allOpened = double(nowNs() - burstStart) / 1e6;
    const qsizetype opened = linesIn(burstLog);

    QThread::sleep(2);
    const QByteArray rssAfterBurst = residentOf(instance.processId());

    // At rest, 4 s after a start: offscreen, then on the X server with a tray.
    const auto restingMemory = [&](const QByteArray &platform) {
        stopInstance();
        instance.waitForFinished(5000);
        qputenv("QT_QPA_PLATFORM", platform);
        instance.start(prefix + u"/bin/quillvane"_s);
        waitForInstance();
        QThread::sleep(4);
        return residentOf(instance.processId());
    };
    const QByteArray rssOffscreen = restingMemory("offscreen");
    QByteArray rssNoTray = "-", rssTray = "-";
    QProcess trayer;
    if (qEnvironmentVariableIsSet("DISPLAY")) {
        rssNoTray = restingMemory("xcb");
        if (!QStandardPaths::findExecutable(u"trayer"_s).isEmpty()) {
            trayer.start(u"trayer"_s, {});
            trayer.waitForStarted();
            QThread::sleep(1);
            rssTray = restingMemory("xcb") + "; the largest, MB:"
                      + largestMappings(instance.processId(), 24);
        }
    }

    std::printf("rounds: %d (medians, milliseconds from a click in an application to the browser's "
                "main())\n",
                rounds);
    std::printf("fake browser started directly        %7.2f\n", median(direct));
    std::printf("quillvane-open URL                   %7.2f  (+%.2f, %.1fx)\n", median(forwarded),
                median(forwarded) - median(direct), median(forwarded) / median(direct));
    std::printf("  back to back, alternating: direct %s, quillvane-open %s ms; ratio per round "
                "%s (median, quartiles)\n",
                qPrintable(spread(directAgain)), qPrintable(spread(forwardedAgain)),
                qPrintable(spread(ratios(forwardedAgain, directAgain))));
    std::printf("  Quillvane's own share, request arrived to browser started (%lld links), ms:\n",
                static_cast<long long>(share.value(u"started"_s).size()));
    for (auto column = share.cbegin(); column != share.cend(); ++column)
        std::printf("    %-10s %s\n", qPrintable(column.key()), qPrintable(spread(column.value(), 3)));
    std::printf("  from no application                %7.2f  (+%.2f, %.1fx)\n", median(unknownAlone),
                median(unknownAlone) - median(direct), median(unknownAlone) / median(direct));
    std::printf("  the same, next link of a burst     %7.2f  (+%.2f, %.1fx)\n",
                median(unknownInBurst), median(unknownInBurst) - median(direct),
                median(unknownInBurst) / median(direct));
    std::printf("gio open, fake browser as default    %7.2f\n", median(gioDirect));
    std::printf("gio open, Quillvane as default       %7.2f  (+%.2f, %.2fx; per round %s)\n",
                median(gioQuillvane), median(gioQuillvane) - median(gioDirect),
                median(gioQuillvane) / median(gioDirect),
                qPrintable(spread(ratios(gioQuillvane, gioDirect))));
    std::printf("first link, Quillvane not running    %7.2f  (D-Bus activation)\n", firstLink);
    std::printf("cold start to the bus name owned     %7.2f\n", nameOwned);
    std::printf("memory after the burst: %s\nat rest, 4 s after a start:\n  offscreen %s\n"
                "  X server %s\n  X server with a tray %s\n",
                rssAfterBurst.constData(), rssOffscreen.constData(), rssNoTray.constData(),
                rssTray.constData());
    std::printf("burst of 1,000 links (100 requests)  %7.1f  all answered (%d of 100)\n",
                allAnswered, answered);
    std::printf("                                     %7.1f  all %lld started in the browser\n",
                allOpened, static_cast<long long>(opened));

    instance.terminate();
    instance.waitForFinished(5000);
    trayer.terminate();
    trayer.waitForFinished(5000);
    bus.terminate();
    bus.waitForFinished(5000);
    return 0;
}
