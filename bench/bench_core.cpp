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
#include <QLoggingCategory>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

using namespace Qt::Literals::StringLiterals;

namespace {

Link parsed(const QString &text)
{
    return *Link::parse(text);
}

// A realistic mix: one in five rules is an app rule, the rest URL rules with
// domain, path and wildcard patterns. None matches the benchmark's link, so the
// router tries every rule and falls back: the slowest decision.
QList<RoutingRule> makeRules(int count)
{
    QList<RoutingRule> rules;
    rules.reserve(count);
    for (int i = 0; i < count; ++i) {
        RoutingRule rule{QUuid::createUuid(), QString(),    QString(),   u"firefox"_s,
                         u"Firefox"_s,        std::nullopt, std::nullopt};
        switch (i % 5) {
        case 0:
            rule.sourceAppBundleID = u"org.example.App%1"_s.arg(i);
            rule.sourceAppName = u"App %1"_s.arg(i);
            break;
        case 1:
            rule.urlPattern = u"site%1.example.com"_s.arg(i);
            break;
        case 2:
            rule.urlPattern = u"*host%1.example.org/path*"_s.arg(i);
            rule.targetProfileID = u"Profile 1"_s;
            break;
        case 3:
            rule.urlPattern = u"example.net/section%1"_s.arg(i);
            break;
        default:
            rule.urlPattern = u"Domain%1.Test"_s.arg(i);
            break;
        }
        rules.append(rule);
    }
    return rules;
}

ForwardingRecord makeRecord(int i)
{
    ForwardingRecord record;
    record.id = QUuid::createUuid();
    record.timestamp = QDateTime::currentDateTimeUtc().addSecs(-i);
    record.originalURL =
        u"https://www.example.com/articles/%1/some-long-title-of-an-article?utm_source=news&ref=%1"_s
            .arg(i);
    record.sourceAppBundleID = u"org.gnome.Evolution"_s;
    record.sourceAppName = u"Evolution"_s;
    record.targetBrowserBundleID = u"firefox-esr"_s;
    record.targetBrowserName = u"Firefox ESR"_s;
    record.ruleMatched = u"Evolution → Firefox ESR"_s;
    return record;
}

QList<ForwardingRecord> makeHistory(int count)
{
    QList<ForwardingRecord> records;
    for (int i = 0; i < count; ++i)
        records.append(makeRecord(i));
    return records;
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
    const QList<RoutingRule> rules = makeRules(int(state.range(0)));
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
    const QList<RoutingRule> rules = makeRules(int(state.range(0)));
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
    const QList<RoutingRule> rules = makeRules(int(state.range(0)));
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
    const QList<RoutingRule> rules = makeRules(1000);
    for (auto _ : state)
        benchmark::DoNotOptimize(RoutingRule::listToJson(rules));
}
BENCHMARK(BM_RulesToJson1000)->Unit(benchmark::kMicrosecond);

void BM_RulesFromJson1000(benchmark::State &state)
{
    const QByteArray json = RoutingRule::listToJson(makeRules(1000));
    for (auto _ : state)
        benchmark::DoNotOptimize(RoutingRule::listFromJson(json));
}
BENCHMARK(BM_RulesFromJson1000)->Unit(benchmark::kMicrosecond);

void BM_HistoryToJson500(benchmark::State &state)
{
    const QList<ForwardingRecord> history = makeHistory(500);
    for (auto _ : state)
        benchmark::DoNotOptimize(ForwardingRecord::listToJson(history));
}
BENCHMARK(BM_HistoryToJson500)->Unit(benchmark::kMicrosecond);

void BM_HistoryFromJson500(benchmark::State &state)
{
    const QByteArray json = ForwardingRecord::listToJson(makeHistory(500));
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
    settings.setValue(u"routing_rules"_s, RoutingRule::listToJson(makeRules(int(state.range(0)))));
    settings.setValue(u"forwarding_history"_s, ForwardingRecord::listToJson(makeHistory(500)));
    settings.sync();
    int i = 0;
    for (auto _ : state)
        HistoryStore::record(settings, makeRecord(++i));
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
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*=false"_s);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
