#pragma once

#include "Models/Command.h"

#include <functional>
#include <optional>

class DesktopEntries;

// "quillvane config path|check|export|import", "handoffs" and "handoff": the
// configuration file read and written where it lies, whether or not Quillvane
// runs (a running Quillvane follows the file).
namespace ConfigCommand {

struct Environment
{
    QString path;
    // The earlier versions' settings file, which Quillvane moves in at its start.
    QString legacyPath;
    // Which app the desktop opens a scheme with (a handoff's app).
    std::function<std::optional<QString>(const QString &scheme)> appFor;
};

int path(const CommandArguments &arguments, const CommandOutput &output,
         const Environment &environment);
// Exit status: Success when the file can be taken, Failed with file:line:column
// and what is wrong when it cannot.
int check(const CommandArguments &arguments, const CommandOutput &output,
          const Environment &environment);
int exportTo(const CommandArguments &arguments, const CommandOutput &output,
             const Environment &environment);
int import(const CommandArguments &arguments, const CommandOutput &output,
           const Environment &environment);
int handoffs(const CommandArguments &arguments, const CommandOutput &output,
             const Environment &environment);
int handoff(const CommandArguments &arguments, const CommandOutput &output,
            const Environment &environment);

} // namespace ConfigCommand
