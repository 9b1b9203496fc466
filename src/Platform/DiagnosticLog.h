#pragma once

#include <QString>
#include <QStringList>

// The plain-text trail that follows every link: one line per event, in
// $XDG_RUNTIME_DIR/Quillvane.log (or /tmp/Quillvane-<uid>.log without a runtime
// directory), each line "[<UTC time>] [<tag>] <message>". Writing never fails
// visibly and never blocks; a line that cannot be written is lost. Only a
// regular file of the user's own is ever written.
namespace DiagnosticLog {

QString filePath();

// Writes a file of Quillvane's own in the runtime folder (a script it hands the
// desktop) anew: whatever stood in its place goes (a link to another file, a
// FIFO), and the file is created, never opened, so nothing is written through a
// link put there meanwhile. The reason when it failed; empty when written.
QString writeRuntimeFile(const QString &path, const QByteArray &contents);

// An empty tag writes an untagged line. On the main thread, while its event
// loop runs, lines wait until the loop is idle, so that they never delay a
// browser's start; see flush().
void write(QStringView tag, QStringView message);
// Several lines at once, in one open and one write of the file.
void writeLines(QStringView tag, const QStringList &messages);

// Writes what waits now (at the end of the process, before reading the file).
void flush();

// The trail can be switched off; callers that build costly lines ask first.
bool isEnabled();
void setEnabled(bool enabled);

// The file is renamed to "<file>.old" (replacing the one before) once it
// reaches this size, and lines are cut at MaxLineLength characters, saying so:
// a flood of long links must not fill the user's runtime folder.
inline constexpr qint64 MaxFileBytes = 4 * 1024 * 1024;
inline constexpr qsizetype MaxLineLength = 8192;

} // namespace DiagnosticLog
