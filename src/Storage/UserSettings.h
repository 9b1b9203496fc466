#pragma once

#include <QSettings>
#include <QString>

#include <memory>

// The per-user settings file, $XDG_CONFIG_HOME/Quillvane/Quillvane.conf (INI).
namespace UserSettings {

QString filePath();
std::unique_ptr<QSettings> open();
// A settings file elsewhere, in the same format (tests, benchmarks).
std::unique_ptr<QSettings> open(const QString &path);

// Writes pending changes to disk now, so a crash right after loses nothing;
// a failure (read-only or full disk) is logged, and the values stay in memory
// for the next attempt.
bool commit(QSettings &settings);

// Copies the settings file to "<file>.damaged-<UTC time>" before something
// that could not be read in it is overwritten; the copy's path, or empty when
// there is no file or it cannot be copied.
QString keepDamagedCopy(const QSettings &settings);

} // namespace UserSettings
