#pragma once

#include "Models/Command.h"

#include <QByteArrayList>
#include <QTextStream>

// What "quillvane" does with its arguments when they are not links: its
// sub-commands, their options and their help.
namespace CommandLine {

QString helpText();
// The sub-command of that name ("rule add" for one of a group); none when unknown.
const Command *command(const QString &name);
QString versionText();

// arguments: argv without the program name, as bytes (links must be valid UTF-8).
int run(const QByteArrayList &arguments, QTextStream &out, QTextStream &err);
// The same, decoded; every sub-command is one row of one table.
int run(const QStringList &arguments, const CommandOutput &output);

} // namespace CommandLine
