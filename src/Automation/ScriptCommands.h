#pragma once

#include "Models/Command.h"

// The commands that drive a running Quillvane: each one is one call to the
// instance's automation interface; none starts Quillvane. The command table
// (App/CommandLine) says what each takes.
namespace ScriptCommands {

int route(const CommandArguments &arguments, const CommandOutput &output);
int listRules(const CommandArguments &arguments, const CommandOutput &output);
int addRule(const CommandArguments &arguments, const CommandOutput &output);
int deleteRule(const CommandArguments &arguments, const CommandOutput &output);
int listBrowsers(const CommandArguments &arguments, const CommandOutput &output);
int setFallback(const CommandArguments &arguments, const CommandOutput &output);
int toggleFeature(const CommandArguments &arguments, const CommandOutput &output);

// The features by name, two columns, a line each.
QString featureList();

// The terminal confirmation: the question on standard error, a yes or no read
// from standard input; none when standard input is not a terminal.
std::optional<bool> askOnTerminal(const QString &question);

} // namespace ScriptCommands
