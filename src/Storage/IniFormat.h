#pragma once

#include <QSettings>

// The settings file's format: the INI syntax of QSettings::IniFormat, read and
// written by Quillvane itself. Qt 6.4's own writer does not notice when the disk
// fills up (or a file size limit is reached) as it finishes a small file: it
// reports success and replaces the file with a truncated copy, and the rules are
// gone. This writer reports the failure, so QSettings keeps the old file; it
// also escapes a long rule list several times faster. The file stays readable by
// QSettings::IniFormat and by hand.
namespace IniFormat {

QSettings::Format format();

bool read(QIODevice &device, QSettings::SettingsMap &map);
bool write(QIODevice &device, const QSettings::SettingsMap &map);

} // namespace IniFormat
