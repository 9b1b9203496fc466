// The route pipeline from the call of routeURL to the browser's launch request,
// with 1,000 rules and a full 500-record history in the settings file. The
// launch request is recorded rather than carried out, so the browser's own
// start is not measured.
#include "App/AppState.h"
#include "Platform/DiagnosticLog.h"
#include "Services/BrowserDiscovery.h"
#include "Storage/HistoryStore.h"
#include "Storage/UserSettings.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLoggingCategory>
#include <QProcess>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

using namespace Qt::Literals::StringLiterals;

namespace {

class TimedLauncher final : public ProcessLauncher
{
public:
    Failure spawn(const QStringList &, const QString &, const QString &) override
    {
        launchedAt = clock.nsecsElapsed();
        return std::nullopt;
    }
    QFuture<Failure> activate(const QString &, const QString &, const QString &) override
    {
        return QtFuture::makeReadyFuture(Failure());
    }

    QElapsedTimer clock;
    qint64 launchedAt = -1;
};

QList<RoutingRule> makeRules()
{
    QList<RoutingRule> rules;
    for (int i = 0; i < 1000; ++i) {
        RoutingRule rule{QUuid::createUuid(), QString(),    QString(),   u"browser"_s,
                         u"Browser"_s,        std::nullopt, std::nullopt};
        if (i % 5 == 0)
            rule.sourceAppBundleID = u"org.example.App%1"_s.arg(i);
        else
            rule.urlPattern =
                i % 2 ? u"site%1.example.com"_s.arg(i) : u"*host%1.example.org/path*"_s.arg(i);
        rules.append(rule);
    }
    return rules;
}

void prepareDesktop(const QString &root)
{
    const QString applications = root + u"/data/applications"_s;
    QDir().mkpath(applications);
    QFile entry(applications + u"/browser.desktop"_s);
    entry.open(QIODevice::WriteOnly);
    entry.write("[Desktop Entry]\nType=Application\nName=Browser\nExec=/bin/true %u\n"
                "MimeType=x-scheme-handler/http;x-scheme-handler/https;\n");
    entry.close();
    QProcess::execute(u"update-desktop-database"_s, {u"-q"_s, applications});
    qputenv("XDG_DATA_HOME", QFile::encodeName(root + u"/data"_s));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(root + u"/system"_s));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root + u"/config"_s));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(root));
}

void BM_RouteURLToLaunchRequest(benchmark::State &state)
{
    QTemporaryDir dir;
    auto settings = UserSettings::open(dir.filePath(u"Quillvane.conf"_s));
    RuleStore store(*settings);
    store.saveRules(makeRules());
    store.saveDefaultBrowserBundleID(u"browser"_s);
    QList<ForwardingRecord> history;
    for (int i = 0; i < HistoryStore::MaxRecords; ++i) {
        ForwardingRecord record;
        record.id = QUuid::createUuid();
        record.timestamp = QDateTime::currentDateTime();
        record.originalURL = u"https://www.example.com/articles/%1?id=%1"_s.arg(i);
        record.targetBrowserBundleID = u"browser"_s;
        record.targetBrowserName = u"Browser"_s;
        history.append(record);
    }
    settings->setValue(u"forwarding_history"_s, ForwardingRecord::listToJson(history));
    settings->sync();

    TimedLauncher launcher;
    XdgAutostart autostart(u"quillvane"_s);
    AppState app(store, AppServices{GioDesktopEntries::instance(), launcher, autostart});
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

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir root;
    prepareDesktop(root.path());
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*=false"_s);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
