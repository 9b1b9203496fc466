#pragma once

#include <QByteArrayList>
#include <QTextStream>

// What "quillvane" does with its arguments.
namespace CommandLine {

QString helpText();
QString versionText();

// arguments: argv without the program name, as bytes (links must be valid UTF-8).
int run(const QByteArrayList &arguments, QTextStream &out, QTextStream &err);

} // namespace CommandLine
