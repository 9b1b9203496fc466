#include "Storage/UserSettings.h"

#include "Platform/SystemLog.h"
#include "Storage/IniFormat.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QStandardPaths>
#include <QThread>

#include <sys/stat.h>

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

// How long a writer may take to fill in the lock file it has just created: it
// writes its pid in the same call, so this is generous.
constexpr int LockFillTime = 100;

// QSettings waits on its lock for ever when the lock is not a regular file: a
// FIFO blocks the read of who holds it, a folder is never removed as stale, a
// link to /dev/zero never ends. Such a thing in the lock's place is moved aside
// (it is nobody's lock), and while it cannot be, nothing is written.
bool lockIsUsable(const QString &settingsPath)
{
    const QByteArray path = QFile::encodeName(settingsPath + u".lock"_s);
    struct stat info = {};
    if (::lstat(path.constData(), &info) != 0 || S_ISREG(info.st_mode))
        return true;
    const QByteArray aside =
        path + ".not-a-lock-"
        + QDateTime::currentDateTimeUtc().toString(u"yyyyMMdd'T'HHmmsszzz'Z'"_s).toLatin1();
    if (::rename(path.constData(), aside.constData()) == 0) {
        qCWarning(lcSettings).noquote()
            << u"The settings lock %1 was not a regular file; it was moved aside as %2."_s.arg(
                   QFile::decodeName(path), QFile::decodeName(aside));
        return true;
    }
    qCCritical(lcSettings).noquote()
        << u"The settings lock %1 is not a regular file and cannot be moved aside: changes are kept in memory until it is removed."_s
               .arg(QFile::decodeName(path));
    return false;
}

// A writer killed between creating its lock file and filling it in (a crash, the
// OOM killer, a power cut) leaves a lock that names nobody, and QSettings would
// wait until it is 30 s old before every write: the link being routed would wait
// with it. A lock naming a process is left to QSettings, which knows whether that
// process still runs.
void clearAbandonedLock(const QString &settingsPath)
{
    const QString path = settingsPath + u".lock"_s;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const QFileInfo info(path);
        qint64 pid = 0;
        QString host;
        QString application;
        if (!info.exists() || QLockFile(path).getLockInfo(&pid, &host, &application))
            return;
        const qint64 age = qAbs(info.lastModified().msecsTo(QDateTime::currentDateTime()));
        if (age >= LockFillTime) {
            qCWarning(lcSettings).noquote()
                << u"Removing the abandoned settings lock %1: its writer ended before filling it in."_s
                       .arg(path);
            QFile::remove(path);
            return;
        }
        QThread::msleep(LockFillTime - age);
    }
}
} // namespace

std::unique_ptr<QSettings> open(const QString &path)
{
    // Reading a FIFO or a device would block or never end; a link to a regular
    // file (a dotfiles repository) is fine.
    struct stat info = {};
    const QByteArray name = QFile::encodeName(path);
    if (::stat(name.constData(), &info) == 0 && !S_ISREG(info.st_mode)) {
        const QByteArray aside =
            name + ".not-a-file-"
            + QDateTime::currentDateTimeUtc().toString(u"yyyyMMdd'T'HHmmss'Z'"_s).toLatin1();
        const bool moved = ::rename(name.constData(), aside.constData()) == 0;
        qCCritical(lcSettings).noquote()
            << u"The settings file %1 is not a regular file; %2"_s.arg(
                   path, moved ? u"it was moved aside as %1 and Quillvane starts afresh."_s.arg(
                                     QFile::decodeName(aside))
                               : u"Quillvane starts with its defaults."_s);
        if (!moved)
            return std::make_unique<QSettings>(QString(), IniFormat::format());
    }
    auto settings = std::make_unique<QSettings>(path, IniFormat::format());
    settings->setProperty(OnDisk, QFileInfo::exists(path));
    return settings;
}

QString keepDamagedCopy(const QSettings &settings)
{
    const QString copy = settings.fileName() + u".damaged-"_s
                         + QDateTime::currentDateTimeUtc().toString(u"yyyyMMdd'T'HHmmss'Z'"_s);
    if (QFile::exists(copy) || QFile::copy(settings.fileName(), copy))
        return copy;
    return {};
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
    if (!lockIsUsable(settings.fileName()))
        return false;
    clearAbandonedLock(settings.fileName());
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
