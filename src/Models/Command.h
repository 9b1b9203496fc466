#pragma once

#include "Models/Expected.h"

#include <QHash>
#include <QStringList>
#include <QTextStream>

#include <functional>
#include <optional>

// One sub-command of "quillvane": what it takes, its help, and what it runs.
// Every command parses its arguments the same way: options anywhere, "--NAME
// VALUE" or "--NAME=VALUE", "--" ends the options, -h/--help asks for help.

enum CommandExit
{
    Success = 0,
    Failed = 1, // the command could not do it: an error, Quillvane not running, a no
    BadUsage = 2
};

struct CommandArguments
{
    QStringList positional;
    QHash<QString, QString> values;
    QStringList flags;
    bool help = false;

    bool flag(const QString &name) const { return flags.contains(name); }
    std::optional<QString> value(const QString &name) const
    {
        const auto found = values.constFind(name);
        return found == values.cend() ? std::nullopt : std::optional<QString>(*found);
    }
};

struct CommandOutput
{
    QTextStream &out;
    QTextStream &err;
    // Asks the question on the terminal; none when there is no terminal.
    std::function<std::optional<bool>(const QString &question)> confirm;

    // "quillvane: message" on standard error.
    int fail(const QString &message, int code = Failed) const;
    // The answer as one line on standard output.
    int succeed(const QString &answer) const;
};

struct Command
{
    QString name; // "rule add" for a command of a group
    QString synopsis;
    QString help;
    QStringList valueOptions;
    QStringList flagOptions;
    qsizetype minPositional = 0;
    qsizetype maxPositional = 0;
    QString positionalNames; // "a link", for the error when one is missing
    std::function<int(const CommandArguments &, const CommandOutput &)> run;

    QString usage() const;
    Expected<CommandArguments, QString> parse(const QStringList &arguments) const;
    // Parses, answers help and usage errors, and otherwise runs the command.
    int operator()(const QStringList &arguments, const CommandOutput &output) const;
};
