// Speed of the routing core: the router against growing rule lists (with the
// diagnostic trail written to a real file, and without it), the cleaner, the
// JSON forms of rules and history, and recording into a full history.
#include "Models/ForwardingRecord.h"
#include "Models/RoutingRule.h"
#include "Platform/DiagnosticLog.h"
#include "Services/URLCleaner.h"
#include "Services/URLRouter.h"
#include "Storage/HistoryStore.h"
#include "Storage/UserSettings.h"

#include <QCoreApplication>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include "BenchSupport.h"

using namespace Qt::Literals::StringLiterals;

namespace {

Link parsed(const QString &text)
{
    return *Link::parse(text);
}

const Link &benchLink()
{
    static const Link url =
        parsed(u"https://www.somewhere.example/a/long/path/to/an/article?id=42&lang=en#comments"_s);
    return url;
}

void BM_Route(benchmark::State &state)
{
    DiagnosticLog::setEnabled(false);
    const QList<RoutingRule> rules = BenchSupport::makeRules(int(state.range(0)));
    const std::optional<SourceApp> source = SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s};
    for (auto _ : state)
        benchmark::DoNotOptimize(URLRouter::route(benchLink(), source, rules, u"firefox"_s));
    DiagnosticLog::setEnabled(true);
}
BENCHMARK(BM_Route)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// The first link after a rule changed: the router orders the new list afresh.
void BM_RouteAfterRuleChange(benchmark::State &state)
{
    DiagnosticLog::setEnabled(false);
    const QList<RoutingRule> rules = BenchSupport::makeRules(int(state.range(0)));
    const std::optional<SourceApp> source = SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s};
    for (auto _ : state) {
        state.PauseTiming();
        QList<RoutingRule> changed = rules;
        changed.detach();
        state.ResumeTiming();
        benchmark::DoNotOptimize(URLRouter::route(benchLink(), source, changed, u"firefox"_s));
    }
    DiagnosticLog::setEnabled(true);
}
BENCHMARK(BM_RouteAfterRuleChange)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_RouteWithTrail(benchmark::State &state)
{
    QTemporaryDir dir;
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(dir.path()));
    DiagnosticLog::setEnabled(true);
    const QList<RoutingRule> rules = BenchSupport::makeRules(int(state.range(0)));
    const std::optional<SourceApp> source = SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s};
    for (auto _ : state) {
        benchmark::DoNotOptimize(URLRouter::route(benchLink(), source, rules, u"firefox"_s));
        state.PauseTiming();
        QFile::remove(DiagnosticLog::filePath());
        state.ResumeTiming();
    }
}
BENCHMARK(BM_RouteWithTrail)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMicrosecond);

void BM_CleanTracking(benchmark::State &state)
{
    const Link url = parsed(
        u"https://shop.example.com/item/123?utm_source=news&utm_medium=mail&id=123&fbclid=abc#reviews"_s);
    for (auto _ : state)
        benchmark::DoNotOptimize(URLCleaner::clean(url));
}
BENCHMARK(BM_CleanTracking);

void BM_CleanNothingToRemove(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(URLCleaner::clean(benchLink()));
}
BENCHMARK(BM_CleanNothingToRemove);

void BM_ParseLink(benchmark::State &state)
{
    const QString text = benchLink().toString();
    for (auto _ : state)
        benchmark::DoNotOptimize(Link::parse(text));
}
BENCHMARK(BM_ParseLink);

void BM_RulesToJson1000(benchmark::State &state)
{
    const QList<RoutingRule> rules = BenchSupport::makeRules(1000);
    for (auto _ : state)
        benchmark::DoNotOptimize(RoutingRule::listToJson(rules));
}
BENCHMARK(BM_RulesToJson1000)->Unit(benchmark::kMicrosecond);

void BM_RulesFromJson1000(benchmark::State &state)
{
    const QByteArray json = RoutingRule::listToJson(BenchSupport::makeRules(1000));
    for (auto _ : state)
        benchmark::DoNotOptimize(RoutingRule::listFromJson(json));
}
BENCHMARK(BM_RulesFromJson1000)->Unit(benchmark::kMicrosecond);

void BM_HistoryToJson500(benchmark::State &state)
{
    const QList<ForwardingRecord> history = BenchSupport::makeHistory(500);
    for (auto _ : state)
        benchmark::DoNotOptimize(ForwardingRecord::listToJson(history));
}
BENCHMARK(BM_HistoryToJson500)->Unit(benchmark::kMicrosecond);

void BM_HistoryFromJson500(benchmark::State &state)
{
    const QByteArray json = ForwardingRecord::listToJson(BenchSupport::makeHistory(500));
    for (auto _ : state)
        benchmark::DoNotOptimize(ForwardingRecord::listFromJson(json));
}
BENCHMARK(BM_HistoryFromJson500)->Unit(benchmark::kMicrosecond);

// One routed link's record: load the full history, prepend, trim, save, and
// write the settings file to disk, which also holds the given number of rules.
void BM_RecordIntoFullHistory(benchmark::State &state)
{
    QTemporaryDir dir;
    auto opened = UserSettings::open(dir.filePath(u"Quillvane.conf"_s));
    QSettings &settings = *opened;
    settings.setValue(u"routing_rules"_s,
                      RoutingRule::listToJson(BenchSupport::makeRules(int(state.range(0)))));
    settings.setValue(u"forwarding_history"_s,
                      ForwardingRecord::listToJson(BenchSupport::makeHistory(500)));
    settings.sync();
    int i = 0;
    for (auto _ : state)
        HistoryStore::record(settings, BenchSupport::makeRecord(++i));
}
BENCHMARK(BM_RecordIntoFullHistory)
    ->Arg(20)
    ->Arg(1000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    return BenchSupport::runBenchmarks(argc, argv);
}
