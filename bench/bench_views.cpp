// The tray menu and the settings window (offscreen unless QT_QPA_PLATFORM says
// otherwise), with 1,000 rules and a full
// 500-record history in the settings file.
#include "App/AppState.h"
#include "Platform/Autostart.h"
#include "Platform/DesktopEntries.h"
#include "Platform/ProcessApps.h"
#include "Platform/ProcessLauncher.h"
#include "Services/RunningApps.h"
#include "Storage/HistoryStore.h"
#include "Services/ConfigFile.h"
#include "Views/HistoryPane.h"
#include "Views/SettingsWindow.h"
#include "Views/StatusItem.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QMenu>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

using namespace Qt::Literals::StringLiterals;

namespace {

struct Fixture
{
    QTemporaryDir dir;
    ConfigFile file{dir.filePath(u"config.json"_s)};
    std::unique_ptr<HistoryDatabase> history =
        BenchSupport::makeHistoryDatabase(dir.path(), HistoryStore::MaxRecords);
    XdgAutostart autostart{u"quillvane"_s};
    std::unique_ptr<AppState> state;

    Fixture()
    {
        file.load();
        file.update([](Config &config) {
            config.rules = BenchSupport::makeRules(1000);
            config.fallbackBrowser = u"browser"_s;
        });
        state = std::make_unique<AppState>(
            file, *history,
            AppServices{GioDesktopEntries::instance(), GioProcessLauncher::instance(), autostart});
    }
};

Fixture &fixture()
{
    static Fixture shared;
    return shared;
}

// What happens each time the tray menu opens: rebuilt from the state, then
// laid out.
void BM_BuildStatusMenu(benchmark::State &state)
{
    Fixture &f = fixture();
    StatusItem item(*f.state, GioDesktopEntries::instance(), {});
    for (auto _ : state) {
        item.rebuild(item.menu());
        benchmark::DoNotOptimize(item.menu().sizeHint());
    }
}
BENCHMARK(BM_BuildStatusMenu)->Unit(benchmark::kMillisecond);

// Made, shown and painted once, as on the first "Settings...".
void openSettingsWindow(Fixture &f)
{
    SettingsWindow window(*f.state, {GioDesktopEntries::instance(), {}}, [] {});
    window.show();
    QApplication::processEvents();
    window.repaint();
}

// The first window of the process: fonts, style and icons are loaded then.
void BM_OpenSettingsWindowFirstInProcess(benchmark::State &state)
{
    Fixture &f = fixture();
    for (auto _ : state)
        openSettingsWindow(f);
}
BENCHMARK(BM_OpenSettingsWindowFirstInProcess)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_OpenSettingsWindow(benchmark::State &state)
{
    Fixture &f = fixture();
    for (auto _ : state)
        openSettingsWindow(f);
}
BENCHMARK(BM_OpenSettingsWindow)->Unit(benchmark::kMillisecond)->UseRealTime();

// One keystroke in the filter over the full history, shown and repainted.
void BM_HistoryFilterKeystroke(benchmark::State &state)
{
    Fixture &f = fixture();
    HistoryPane pane(*f.state);
    pane.resize(520, 480);
    pane.show();
    QApplication::processEvents();
    auto *filter = pane.findChild<QLineEdit *>(u"historyFilter"_s);
    if (!filter) {
        state.SkipWithError("no filter field");
        return;
    }
    const QStringList typed{u"e"_s,       u"ev"_s,        u"evo"_s,    u"evol"_s,
                            u"article"_s, u"firefox e"_s, u"ref=42"_s, u""_s};
    qsizetype i = 0;
    for (auto _ : state) {
        filter->setText(typed[i++ % typed.size()]);
        pane.repaint();
    }
}
BENCHMARK(BM_HistoryFilterKeystroke)->Unit(benchmark::kMillisecond)->UseRealTime();

// What an app rule sheet reads when it opens: every process of this user
// mapped to its application.
void BM_RunningApplications(benchmark::State &state)
{
    LinuxProcessApps processes(GioDesktopEntries::instance());
    for (auto _ : state)
        benchmark::DoNotOptimize(RunningApps::running(processes, GioDesktopEntries::instance()));
    state.counters["processes"] = double(processes.processIds().size());
}
BENCHMARK(BM_RunningApplications)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir root;
    BenchSupport::prepareDesktop(root.path());
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // The offscreen platform warns about every window it cannot size for a
    // window manager; the figures are what matters here.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QApplication app(argc, argv);
    return BenchSupport::runBenchmarks(argc, argv);
}
