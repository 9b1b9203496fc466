#pragma once

#include <QSettings>

// The settings file's format: the INI syntax of QSettings::IniFormat, read and
// written by Quillvane itself. Qt's own INI writer escapes a character at a time
// and takes milliseconds for the rules and history that are rewritten after every
// routed link; this one writes the same syntax in a fraction of that, and the
// file stays readable by QSettings::IniFormat and by hand.
namespace IniFormat {

QSettings::Format format();

bool read(QIODevice &device, QSettings::SettingsMap &map);
bool write(QIODevice &device, const QSettings::SettingsMap &map);

} // namespace IniFormat
