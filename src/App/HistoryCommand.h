#pragma once

#include "Models/Command.h"
#include "Models/ForwardingRecord.h"

#include <QStringList>
#include <QTextStream>

class HistoryDatabase;

// "quillvane history [--json] [--limit N]": the forwarding history, newest
// first, read straight from the history database, so it answers whether or not
// Quillvane runs. Changes nothing.
namespace HistoryCommand {

struct Environment
{
    HistoryDatabase &database;
};

// arguments: --json, --limit N. Failed when the history cannot be read.
int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment);

} // namespace HistoryCommand
