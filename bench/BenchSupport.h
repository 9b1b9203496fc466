#pragma once

#include "Models/ForwardingRecord.h"
#include "Models/RoutingRule.h"

#include <QList>
#include <QString>

#include <memory>

class HistoryDatabase;

namespace BenchSupport {

// A realistic mix: one in five rules is an app rule, the rest URL rules with
// domain, path and wildcard patterns, all naming the one browser. None matches
// the benchmarks' links, so the router tries every rule and falls back: the
// slowest decision.
QList<RoutingRule> makeRules(int count, const QString &browserID = QStringLiteral("browser"),
                             const QString &browserName = QStringLiteral("Browser"));
// The ith newest of a history with one record a second: a long link, a
// source and a rule.
ForwardingRecord makeRecord(int i);
// Newest first.
QList<ForwardingRecord> makeHistory(int count);
// A history database in folder holding makeHistory(records), written by this process.
std::unique_ptr<HistoryDatabase> makeHistoryDatabase(const QString &folder, int records);
// XDG folders under root, with one browser ("browser", /bin/true) that GIO
// knows as the handler of http and https links.
void prepareDesktop(const QString &root);

// Quiets Quillvane's logging and runs the benchmarks the command line names;
// the process's exit code.
int runBenchmarks(int argc, char **argv);

} // namespace BenchSupport
