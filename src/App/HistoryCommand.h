#pragma once

#include <QSettings>
#include <QStringList>
#include <QTextStream>

class HistoryDatabase;

// "quillvane history [--json] [--limit N]": the forwarding history, newest
// first, read straight from the history database, so it answers whether or not
// Quillvane runs. Changes nothing.
namespace HistoryCommand {

enum ExitCode
{
    Success = 0,
    Failed = 1, // the history cannot be read
    BadInput = 2
};

struct Environment
{
    HistoryDatabase &database;
    // The settings file, for a history that an earlier version left there and
    // that Quillvane has not moved yet.
    const QSettings &settings;
    QTextStream &out;
    QTextStream &err;
};

QString usage();

// arguments: what follows "history" on the command line.
int run(const QStringList &arguments, const Environment &environment);

} // namespace HistoryCommand
