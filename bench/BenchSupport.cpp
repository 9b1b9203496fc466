#include "BenchSupport.h"

#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryStore.h"

#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QProcess>
#include <QUuid>

#include <benchmark/benchmark.h>

using namespace Qt::Literals::StringLiterals;

namespace BenchSupport {

QList<RoutingRule> makeRules(int count, const QString &browserID, const QString &browserName)
{
    QList<RoutingRule> rules;
    rules.reserve(count);
    for (int i = 0; i < count; ++i) {
        RoutingRule rule{QUuid::createUuid(), QString(),    QString(),   browserID,
                         browserName,         std::nullopt, std::nullopt};
        switch (i % 5) {
        case 0:
            rule.sourceAppId = u"org.example.App%1"_s.arg(i);
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

std::unique_ptr<HistoryDatabase> makeHistoryDatabase(const QString &folder, int records)
{
    auto database = std::make_unique<HistoryDatabase>(folder + u"/history.sqlite3"_s);
    database->claimWriter();
    const QList<ForwardingRecord> history = makeHistory(records);
    for (auto record = history.crbegin(); record != history.crend(); ++record)
        HistoryStore::record(*database, *record);
    return database;
}

ForwardingRecord makeRecord(int i)
{
    ForwardingRecord record;
    record.id = QUuid::createUuid();
    record.timestamp = QDateTime::currentDateTimeUtc().addSecs(-i);
    record.originalURL =
        u"https://www.example.com/articles/%1/some-long-title-of-an-article?utm_source=news&ref=%1"_s
            .arg(i);
    record.sourceAppId = u"org.gnome.Evolution"_s;
    record.sourceAppName = u"Evolution"_s;
    record.targetBrowserId = u"firefox-esr"_s;
    record.targetBrowserName = u"Firefox ESR"_s;
    record.ruleMatched = u"Evolution → Firefox ESR"_s;
    return record;
}

QList<ForwardingRecord> makeHistory(int count)
{
    QList<ForwardingRecord> records;
    records.reserve(count);
    for (int i = 0; i < count; ++i)
        records.append(makeRecord(i));
    return records;
}

void prepareDesktop(const QString &root)
{
    const QString applications = root + u"/data/applications"_s;
    QDir().mkpath(applications);
    QFile entry(applications + u"/browser.desktop"_s);
    if (!entry.open(QIODevice::WriteOnly))
        qFatal("cannot write the benchmark's desktop entry");
    entry.write("[Desktop Entry]\nType=Application\nName=Browser\nExec=/bin/true %u\n"
                "MimeType=x-scheme-handler/http;x-scheme-handler/https;\n");
    entry.close();
    QProcess::execute(u"update-desktop-database"_s, {u"-q"_s, applications});
    qputenv("XDG_DATA_HOME", QFile::encodeName(root + u"/data"_s));
    qputenv("XDG_DATA_DIRS", QFile::encodeName(root + u"/system"_s));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(root + u"/config"_s));
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(root));
}

int runBenchmarks(int argc, char **argv)
{
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*=false"_s);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace BenchSupport
