// What crediting a broker's link costs (run by hand: see README.md). On a
// session bus of its own, this program plays the desktop portal: an
// application (a process it starts) calls its OpenURI, which Quillvane's real
// bus monitor sees; then it times what Quillvane does with the link that the
// portal hands on, against what it does with a link no request stands behind.
// Then it starts the installed Quillvane and counts its context switches over
// 20 s of idling.
#include "HarnessSupport.h"
#include "Platform/ActiveApplication.h"
#include "Platform/DesktopEntries.h"
#include "Platform/OpenRequestMonitor.h"
#include "Platform/ProcessApps.h"
#include "Services/OpenRequestSources.h"
#include "Services/SourceAppResolver.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

using namespace Qt::Literals::StringLiterals;
using namespace HarnessSupport;

namespace {

class Portal final : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.OpenURI")

public Q_SLOTS:
    QDBusObjectPath OpenURI(const QString &, const QString &, const QVariantMap &)
    {
        return QDBusObjectPath(u"/org/freedesktop/portal/desktop/request/1"_s);
    }
};

class NoWindows final : public ActiveApplication
{
public:
    std::optional<qint64> activePid() override { return std::nullopt; }
    QList<qint64> visibleWindowPids() override { return {}; }
    void startWatching() override {}
};

// Voluntary and involuntary context switches of every thread of the process.
qint64 contextSwitches(qint64 pid)
{
    qint64 total = 0;
    const QString tasks = u"/proc/%1/task"_s.arg(pid);
    for (const QString &task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile status(tasks + u'/' + task + u"/status"_s);
        if (!status.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.contains("ctxt_switches:"))
                total += line.mid(line.indexOf(':') + 1).trimmed().toLongLong();
        }
    }
    return total;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::max(5, atoi(argv[1])) : 30;
    QTemporaryDir root;
    const QString prefix = installInto(root.path());
    writeFile(root.path() + u"/data/applications/com.example.SandboxedChat.desktop"_s,
              "[Desktop Entry]\nType=Application\nName=Sandboxed Chat\nExec=/bin/true\n");
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QProcess bus;
    startSessionBus(bus, root.path(), prefix);

    QDBusConnection session = QDBusConnection::sessionBus();
    Portal portal;
    session.registerObject(u"/org/freedesktop/portal/desktop"_s, &portal,
                           QDBusConnection::ExportAllSlots);
    session.registerService(u"org.freedesktop.portal.Desktop"_s);
    QString refused;
    const auto monitor = BusOpenRequestMonitor::start(&refused);
    if (!monitor) {
        std::fprintf(stderr, "no monitor: %s\n", qPrintable(refused));
        return 1;
    }
    LinuxProcessApps apps(GioDesktopEntries::instance());
    NoWindows windows;
    SourceAppResolver resolver(apps, windows);
    OpenRequestSources sources(*monitor, apps, resolver);
    const qint64 self = QCoreApplication::applicationPid();
    // The host's folders, and a /.flatpak-info of the sandbox's own.
    writeFile(root.path() + u"/flatpak-info"_s,
              "[Application]\nname=com.example.SandboxedChat\n");
    QStringList sandbox;
    for (const QFileInfo &entry : QDir(u"/"_s).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        if (entry.isSymLink())
            sandbox << u"--symlink"_s << entry.symLinkTarget() << entry.absoluteFilePath();
        else if (entry.isDir())
            sandbox << u"--dev-bind"_s << entry.absoluteFilePath() << entry.absoluteFilePath();
    }
    sandbox << u"--ro-bind"_s << root.path() + u"/flatpak-info"_s << u"/.flatpak-info"_s;

    QList<double> matched, unmatched;
    for (int i = 0; i < rounds; ++i) {
        const QString link = u"https://chat-link.example.net/room/%1"_s.arg(i);
        // The application asks, from a sandbox that names it.
        QProcess asker;
        asker.start(u"bwrap"_s, sandbox + QStringList{u"--"_s, u"gdbus"_s, u"call"_s, u"--session"_s, u"--dest"_s,
                                 u"org.freedesktop.portal.Desktop"_s, u"--object-path"_s,
                                 u"/org/freedesktop/portal/desktop"_s, u"--method"_s,
                                 u"org.freedesktop.portal.OpenURI.OpenURI"_s, u""_s, link,
                                 u"{}"_s});
        // The portal answers it on this thread: wait for the call to be served.
        while (asker.state() != QProcess::NotRunning) {
            QCoreApplication::processEvents();
            asker.waitForFinished(1);
        }
        QElapsedTimer clock;
        clock.start();
        const auto source = sources.sourceOf({link}, self);
        matched.append(double(clock.nsecsElapsed()) / 1e6);
        if (!source)
            std::fprintf(stderr, "round %d: no source found\n", i);
        clock.restart();
        (void)sources.sourceOf({u"https://example.com/other"_s}, self);
        unmatched.append(double(clock.nsecsElapsed()) / 1e6);
    }
    std::printf("link handed on by the portal, source found: median %.3f ms\n", median(matched));
    std::printf("link with no request behind it:              median %.3f ms\n", median(unmatched));

    QProcess instance;
    instance.setStandardOutputFile(QProcess::nullDevice());
    instance.setStandardErrorFile(QProcess::nullDevice());
    instance.start(prefix + u"/bin/quillvane"_s);
    waitForInstance();
    QThread::sleep(2);
    const qint64 before = contextSwitches(instance.processId());
    QThread::sleep(20);
    const qint64 after = contextSwitches(instance.processId());
    std::printf("context switches of the idle instance over 20 s: %lld\n",
                static_cast<long long>(after - before));
    instance.terminate();
    instance.waitForFinished(5000);
    return 0;
}

#include "portal_latency.moc"
