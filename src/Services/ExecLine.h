#pragma once

#include "Models/Expected.h"
#include "Platform/DesktopEntries.h"

#include <QString>
#include <QStringList>

#include <optional>

// A desktop entry's Exec line: split into an argument vector the way the
// Desktop Entry standard (and GIO) quote it, and its field codes expanded
// for one link. Nothing here passes through a shell.
namespace ExecLine {

struct Error
{
    QString description;
};

Expected<QStringList, Error> split(QStringView exec);

// The command that opens link: %u %U %f %F become the link as one argument
// (appended at the end when the line has none of them), %i the icon option,
// %c the name, %k the entry's path, %% a percent sign; other codes vanish.
// beforeLink (options of Quillvane's) goes just before the link's argument, and
// before a "--" or Flatpak's forwarding markers in front of it, where it would
// be an operand or a file.
QStringList forLink(const QStringList &argv, const DesktopEntry &entry, const QString &link,
                    const QStringList &beforeLink = {});

// The user's extra arguments for a browser, as typed: split by the same quoting
// rules, and refused when one carries a field code (which would place the
// link, or a file, where the user did not mean it).
Expected<QStringList, Error> splitExtraArguments(QStringView text);

// Why command (as made for the entry at entryPath) must not start: it hands
// link to an interpreter as code to run (a shell's -c command string, python's
// -c, perl's, ruby's or node's -e program, the script a shell reads, or an
// argument of code that evaluates its arguments), also behind wrappers such as
// env (its -S string split), nohup, setsid, nice, ionice, stdbuf, timeout and
// flatpak-spawn. None when link is only ever data.
std::optional<QString> linkRunsAsCode(const QStringList &command, const QString &link,
                                      const QString &entryPath);

} // namespace ExecLine
