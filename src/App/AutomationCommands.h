#pragma once

#include <QStringList>
#include <QTextStream>

#include <functional>
#include <optional>

// The sub-commands that drive a running Quillvane: route, rules, rule add,
// rule delete, browsers, fallback, feature. Each one is one call to the
// instance's automation interface; none starts Quillvane.
namespace AutomationCommands {

enum ExitCode
{
    Success = 0,
    Failed = 1, // Quillvane answered with an error, is not running, or the user said no
    BadUsage = 2
};

struct Environment
{
    QTextStream &out;
    QTextStream &err;
    // Asks the question on the terminal and returns the answer; none when
    // there is no terminal to ask on.
    std::function<std::optional<bool>(const QString &question)> confirm;
};

// The terminal confirmation: the question on standard error, a yes or no read
// from standard input; none when standard input is not a terminal.
std::optional<bool> askOnTerminal(const QString &question);

bool isAutomationCommand(const QString &name);
// One line per command, for the overall help.
QString summary();

// arguments: the command's name and what follows it.
int run(const QStringList &arguments, const Environment &environment);

} // namespace AutomationCommands
