#pragma once

#include "Models/Link.h"

#include <QLoggingCategory>
#include <QString>

// Declares the system-log category of one component, named
// "work.vorpa.Quillvane.<Component>". Debug lines are off unless enabled with
// QT_LOGGING_RULES="work.vorpa.Quillvane.*.debug=true".
#define QUILLVANE_LOGGING_CATEGORY(name, component)                                                \
    Q_LOGGING_CATEGORY(name, "work.vorpa.Quillvane." component, QtInfoMsg)

namespace SystemLog {

// A value that may identify the user (a link, an application name) is written
// as "<private>" unless QUILLVANE_LOG_PRIVATE=1 is set.
QString priv(const QString &value);
void setShowPrivate(bool show);
// A link as the system log names it: its scheme, host and path, with its query
// and fragment written "?…" and "#…" and a user name "…@", since they carry
// sign-in codes, password resets and invitations, and the journal is kept
// across reboots and read by administrators. Whole with QUILLVANE_LOG_PRIVATE=1.
// (The diagnostic file, the user's own, keeps whole links.)
QString link(const Link &link);
// The text with every occurrence of the link, as written, named as link() names it.
QString withLink(const QString &text, const Link &link);
// The text with every link in it ("scheme://…") named as link() names links,
// whoever wrote it: what a browser echoed on its error output, a notification's
// body. Every record passes through this on its way out.
QString withLinksNamed(QStringView text);

// Sends every Qt log record to the systemd journal when stderr is connected to
// it, and to stderr otherwise. Control characters in a record are written out
// ("\x0A"), so that text from outside can neither forge a record nor steer the
// terminal that shows it.
void install();

// True when stderr is the journal's stream (JOURNAL_STREAM names its device and inode).
bool stderrIsJournal();

// The line written to stderr for one record: always exactly one line.
QString formatForStderr(QtMsgType type, const char *category, const QString &message);

} // namespace SystemLog
