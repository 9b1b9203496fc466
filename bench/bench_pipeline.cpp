// The route pipeline from the call of routeURL to the browser's launch request,
// with 1,000 rules in the settings file and a full 500-record history in the
// history database. The launch request is recorded rather than carried out, so
// the browser's own start is not measured. Also the source resolution that an
// Open call waits for before it is answered.
#include "App/AppState.h"
#include "Platform/DesktopEntries.h"
#include "Platform/DiagnosticLog.h"
#include "Services/RunningBrowsers.h"
#include "Services/SourceAppResolver.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryStore.h"
#include "Services/ConfigFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <unistd.h>

#include "BenchSupport.h"

using namespace Qt::Literals::StringLiterals;

namespace {

class TimedLauncher final : public ProcessLauncher
{
public:
    Expected<Verdict, QString> spawn(const QStringList &, const QString &,
                                     const QString &) override
    {
        launchedAt = clock.nsecsElapsed();
        return QtFuture::makeReadyFuture(Result());
    }
    QFuture<Result> activate(const QString &, const QString &, const QString &) override
    {
        return QtFuture::makeReadyFuture(Result());
    }

    QElapsedTimer clock;
    qint64 launchedAt = -1;
};

void BM_RouteURLToLaunchRequest(benchmark::State &state)
{
    QTemporaryDir dir;
    ConfigFile file(dir.filePath(u"config.json"_s));
    file.load();
    file.update([](Config &config) {
        config.rules = BenchSupport::makeRules(1000);
        config.fallbackBrowser = u"browser"_s;
    });
    auto history = BenchSupport::makeHistoryDatabase(dir.path(), HistoryStore::MaxRecords);

    TimedLauncher launcher;
    XdgAutostart autostart(u"quillvane"_s);
    AppState app(file, *history, AppServices{GioDesktopEntries::instance(), launcher, autostart});
    int finished = 0;
    QObject::connect(&app, &AppState::routeFinished, &app, [&finished] { ++finished; });
    const Link link = *Link::parse(u"https://news.example.net/story/42?utm_source=feed&id=7"_s);
    const std::optional<SourceApp> source = SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s};

    int started = 0;
    for (auto _ : state) {
        launcher.clock.start();
        launcher.launchedAt = -1;
        app.routeURL(link, source);
        ++started;
        while (finished < started)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        state.SetIterationTime(double(launcher.launchedAt) / 1e9);
    }
}
BENCHMARK(BM_RouteURLToLaunchRequest)->UseManualTime()->Unit(benchmark::kMillisecond);

class NoActiveApplication final : public ActiveApplication
{
public:
    std::optional<qint64> activePid() override { return std::nullopt; }
    QList<qint64> visibleWindowPids() override { return {}; }
    void startWatching() override {}
};

// The worst case of an Open call: a sender (this process) of no installed
// application, so that every parent up to init is read from /proc and looked up.
void BM_ResolveSenderWithoutApplication(benchmark::State &state)
{
    LinuxProcessApps processes(GioDesktopEntries::instance());
    NoActiveApplication active;
    SourceAppResolver resolver(processes, active);
    for (auto _ : state)
        benchmark::DoNotOptimize(resolver.resolve(::getpid()));
    int parents = 0;
    for (auto pid = processes.parentPid(::getpid()); pid && *pid > 1;
         pid = processes.parentPid(*pid))
        ++parents;
    state.counters["parents"] = parents;
}
BENCHMARK(BM_ResolveSenderWithoutApplication)->Unit(benchmark::kMicrosecond);

// "Prefer a browser that is already running": what each link asks of /proc
// once Quillvane has seen the processes that run (it lists every process, looks
// up the ones started since, and checks the first process of each browser).
// The browser runs as 20 processes that GIO's launch environment names, beside
// whatever else the machine runs and, as on a busy desktop, the argument's
// number of other processes.
void BM_RunningBrowsersPerLink(benchmark::State &state)
{
    const QString entry =
        qEnvironmentVariable("XDG_DATA_HOME") + u"/applications/browser.desktop"_s;
    const QString named = u"export GIO_LAUNCHED_DESKTOP_FILE='%1' "
                          "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; "_s.arg(entry);
    QList<QProcess *> browser;
    for (int i = 0; i < 20 + state.range(0); ++i) {
        browser.append(new QProcess);
        browser.last()->start(u"/bin/sh"_s,
                              {u"-c"_s, (i < 20 ? named : QString()) + u"exec sleep 600"_s});
        browser.last()->waitForStarted();
    }
    LinuxProcessApps processes(GioDesktopEntries::instance());
    RunningBrowsers running(processes);
    const QStringList browsers{u"firefox"_s, u"browser"_s, u"chromium"_s};
    if (running.running(browsers) != QStringList{u"browser"_s})
        state.SkipWithError("the browser's processes were not found");
    for (auto _ : state)
        benchmark::DoNotOptimize(running.running(browsers));
    state.counters["processes"] = double(processes.allProcessIds().size());
    for (QProcess *process : std::as_const(browser)) {
        process->kill();
        process->waitForFinished();
    }
    qDeleteAll(browser);
}
BENCHMARK(BM_RunningBrowsersPerLink)->Arg(0)->Arg(400)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir root;
    BenchSupport::prepareDesktop(root.path());
    QCoreApplication app(argc, argv);
    return BenchSupport::runBenchmarks(argc, argv);
}
