// Speed of the routing core: the router against growing rule lists (with the
// diagnostic trail written to a real file, and without it), the cleaner, the
// JSON forms of rules and history, what the history database does for each
// link, and a rule change written to the settings file.
#include "Models/ForwardingRecord.h"
#include "Models/RoutingRule.h"
#include "Platform/DiagnosticLog.h"
#include "Services/URLCleaner.h"
#include "Services/URLRouter.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryStore.h"
#include "Storage/LinkJournal.h"
#include "Services/ConfigDocument.h"
#include "Services/ConfigFile.h"

#include <QCoreApplication>
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
    const URLRouter::CompiledRules rules(BenchSupport::makeRules(int(state.range(0))));
    const std::optional<SourceApp> source = SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s};
    for (auto _ : state)
        benchmark::DoNotOptimize(URLRouter::route(benchLink(), source, rules, u"firefox"_s));
    DiagnosticLog::setEnabled(true);
}
BENCHMARK(BM_Route)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// A rule changed: the list compiled afresh (once per change), and a link routed.
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
        benchmark::DoNotOptimize(URLRouter::route(benchLink(), source,
                                                  URLRouter::CompiledRules(changed), u"firefox"_s));
    }
    DiagnosticLog::setEnabled(true);
}
BENCHMARK(BM_RouteAfterRuleChange)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);

void BM_RouteWithTrail(benchmark::State &state)
{
    QTemporaryDir dir;
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(dir.path()));
    DiagnosticLog::setEnabled(true);
    const URLRouter::CompiledRules rules(BenchSupport::makeRules(int(state.range(0))));
    const std::optional<SourceApp> source = SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s};
    for (auto _ : state) {
        // As a real route does: the decision's trail, written in one go.
        QStringList trail;
        benchmark::DoNotOptimize(
            URLRouter::decide(benchLink(), source, rules, u"firefox"_s, &trail));
        DiagnosticLog::writeLines(u"URLRouter", trail);
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

// What the history database does for one link, into a full 500-record history:
// journalled on arrival, counted (and marked counted), then recorded with its
// journal entry removed. Three transactions, as a link from the bus has them.
void BM_RecordOneLink(benchmark::State &state)
{
    QTemporaryDir dir;
    auto database = BenchSupport::makeHistoryDatabase(dir.path(), HistoryStore::MaxRecords);
    const QString day = HistoryStore::dayString(QDateTime::currentDateTime());
    const LinkJournal::Writer writer;
    int i = 0;
    for (auto _ : state) {
        const ForwardingRecord record = BenchSupport::makeRecord(++i);
        QList<LinkJournal::Entry> entries{
            {0, LinkJournal::Kind::Open, record.timestamp, record.originalURL,
             SourceApp{u"org.gnome.Evolution"_s, u"Evolution"_s}, QString(), QString(), false}};
        LinkJournal::accept(*database, entries, writer);
        HistoryStore::incrementForwardCount(*database, day, entries.first().id);
        HistoryStore::record(*database, record, entries.first().id);
    }
}
BENCHMARK(BM_RecordOneLink)->Unit(benchmark::kMicrosecond)->UseRealTime();

// A rule change with 1,000 rules: the configuration file read back to see
// whether someone else changed it, then written whole (a new file, fsync,
// rename, fsync of its folder).
void BM_SaveRules1000(benchmark::State &state)
{
    QTemporaryDir dir;
    ConfigFile file(dir.filePath(u"config.json"_s));
    file.load();
    file.update([](Config &config) { config.rules = BenchSupport::makeRules(1000); });
    int i = 0;
    for (auto _ : state) {
        const QString name = u"Browser %1"_s.arg(++i);
        file.update([&name](Config &config) { config.rules.first().targetBrowserName = name; });
    }
}
BENCHMARK(BM_SaveRules1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a change on disk costs Quillvane: the file of 1,000 rules read and checked.
void BM_DecodeConfig1000(benchmark::State &state)
{
    Config config;
    config.rules = BenchSupport::makeRules(1000);
    const QByteArray bytes = ConfigDocument::encode(config);
    for (auto _ : state)
        benchmark::DoNotOptimize(ConfigDocument::decode(bytes, u"config.json"_s));
}
BENCHMARK(BM_DecodeConfig1000)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    return BenchSupport::runBenchmarks(argc, argv);
}
