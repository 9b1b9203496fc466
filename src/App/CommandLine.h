#pragma once

#include <QByteArrayList>
#include <QTextStream>

// What "quillvane" does with its arguments.
namespace CommandLine {

QString helpText();
QString versionText();

// Whether the arguments name a command (or ask for help or the version)
// rather than links for the application.
bool isCommand(const QByteArrayList &arguments);

// arguments: argv without the program name, as bytes (links must be valid UTF-8).
int run(const QByteArrayList &arguments, QTextStream &out, QTextStream &err);

} // namespace CommandLine
