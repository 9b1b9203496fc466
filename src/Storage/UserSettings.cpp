#include "Storage/UserSettings.h"

#include "Platform/SystemLog.h"
#include "Storage/IniFormat.h"

#include <QFileInfo>
#include <QStandardPaths>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcSettings, "Settings")

namespace UserSettings {

QString filePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + u"/Quillvane/Quillvane.conf";
}

std::unique_ptr<QSettings> open()
{
    return open(filePath());
}

namespace {
// Whether the file was there when opened or has been written since: only then
// does its absence mean someone deleted it.
const char *const OnDisk = "quillvane_on_disk";
} // namespace

std::unique_ptr<QSettings> open(const QString &path)
{
    auto settings = std::make_unique<QSettings>(path, IniFormat::format());
    settings->setProperty(OnDisk, QFileInfo::exists(path));
    return settings;
}

bool commit(QSettings &settings)
{
    // Deleted behind Quillvane's back (a cleanup tool, a user starting over):
    // QSettings would write only what changed since, and the rules and the
    // fallback would be gone at the next start. Everything it holds is written.
    if (settings.property(OnDisk).toBool() && !QFileInfo::exists(settings.fileName())) {
        qCWarning(lcSettings).noquote()
            << u"The settings file %1 has disappeared; writing it again from memory."_s.arg(
                   settings.fileName());
        for (const QString &key : settings.allKeys())
            settings.setValue(key, settings.value(key));
    }
    settings.sync();
    switch (settings.status()) {
    case QSettings::NoError:
        settings.setProperty(OnDisk, QFileInfo::exists(settings.fileName()));
        return true;
    case QSettings::AccessError:
        qCCritical(lcSettings).noquote()
            << u"Could not write the settings file %1: it is not writable or the disk is full. Changes are kept in memory and written at the next change."_s
                   .arg(settings.fileName());
        return false;
    case QSettings::FormatError:
        qCCritical(lcSettings).noquote()
            << u"The settings file %1 is damaged; it will be rewritten at the next change."_s.arg(
                   settings.fileName());
        return false;
    }
    return false;
}

} // namespace UserSettings
