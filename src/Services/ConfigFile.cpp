#include "Services/ConfigFile.h"

#include "Models/DisplayText.h"
#include "Platform/SystemLog.h"
#include "Services/ConfigManager.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QSaveFile>
#include <QSettings>
#include <QSignalBlocker>
#include <QStandardPaths>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcConfigFile, "ConfigFile")

namespace {

// More links than this between the path and the file is a loop.
constexpr int MaxLinkHops = 40;
// Long enough for an editor to finish writing, short enough to feel instant.
constexpr int SettleMs = 100;

// The file the path names once symbolic links are followed (it need not exist).
QString resolveLinks(const QString &path)
{
    QString at = path;
    for (int hops = 0; hops < MaxLinkHops && QFileInfo(at).isSymLink(); ++hops)
        at = QFileInfo(at).symLinkTarget();
    return at;
}

QString kindOf(mode_t mode)
{
    if (S_ISDIR(mode))
        return u"a folder"_s;
    if (S_ISFIFO(mode))
        return u"a FIFO"_s;
    if (S_ISSOCK(mode))
        return u"a socket"_s;
    return u"a device"_s;
}

QString notRegular(const QString &path, mode_t mode)
{
    return u"%1 is %2, not a regular file."_s.arg(path, kindOf(mode));
}

// The file's bytes, never waiting on what is not a regular file; the reason when
// they cannot be read, nothing when there is no file.
Expected<std::optional<QByteArray>, QString> readBytes(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(),
                          O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT)
            return std::optional<QByteArray>();
        return u"%1 cannot be read: %2."_s.arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return notRegular(path, info.st_mode);
    }
    QFile file;
    if (!file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        return u"%1 cannot be read: %2."_s.arg(path, file.errorString());
    }
    QByteArray bytes = file.read(ConfigManager::MaxDocumentBytes + 1);
    if (file.error() != QFileDevice::NoError)
        return u"%1 cannot be read: %2."_s.arg(path, file.errorString());
    return std::optional<QByteArray>(std::move(bytes));
}

} // namespace

ConfigFile::ConfigFile(QString path, QString legacyPath, QObject *parent)
    : QObject(parent)
    , m_path(std::move(path))
    , m_legacyPath(std::move(legacyPath))
{
    m_settle.setSingleShot(true);
    m_settle.setInterval(SettleMs);
    connect(&m_settle, &QTimer::timeout, this, &ConfigFile::reload);
}

ConfigFile::~ConfigFile() = default;

QString ConfigFile::defaultPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + u"/quillvane/config.json"_s;
}

QString ConfigFile::defaultLegacyPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + u"/Quillvane/Quillvane.conf"_s;
}

QString ConfigFile::refusal(const ConfigDocument::Problem &problem)
{
    return u"The change was not saved: Quillvane does not write over a configuration file it cannot read. %1"_s
        .arg(problem.text());
}

Expected<Config, ConfigDocument::Problem> ConfigFile::peek(const QString &path,
                                                          const QString &legacyPath)
{
    const auto bytes = readBytes(path);
    if (!bytes)
        return ConfigDocument::Problem{path, 0, 0, bytes.error()};
    if (bytes->has_value())
        return ConfigDocument::decode(**bytes, path);
    if (!legacyPath.isEmpty() && QFileInfo(legacyPath).isFile()) {
        QStringList lost;
        return ConfigDocument::fromLegacySettings(QSettings(legacyPath, QSettings::IniFormat),
                                                  &lost);
    }
    return Config();
}

void ConfigFile::load()
{
    const QSignalBlocker quiet(this);
    const QFileInfo info(m_path);
    if (!info.exists() && !info.isSymLink() && !m_legacyPath.isEmpty()
        && QFileInfo(m_legacyPath).isFile())
        migrate();
    if (readFile() == Read::Refused)
        qCCritical(lcConfigFile).noquote()
            << u"%1 Quillvane starts with its defaults and will not write the file until it can be read."_s
                   .arg(DisplayText::escapeControls(m_problem->text()));
    else if (!m_bytes && !m_problem) {
        // A file to find, edit and keep: written at the first start.
        m_config.schema = ConfigDocument::installedSchema();
        write(ConfigDocument::encode(m_config));
    }
}

void ConfigFile::migrate()
{
    QStringList lost;
    Config config;
    {
        const QSettings legacy(m_legacyPath, QSettings::IniFormat);
        config = ConfigDocument::fromLegacySettings(legacy, &lost);
    }
    config.schema = ConfigDocument::installedSchema();
    if (const auto failed = write(ConfigDocument::encode(config))) {
        qCCritical(lcConfigFile).noquote()
            << u"The settings of %1 stay there until they can be moved: %2"_s.arg(
                   SystemLog::priv(m_legacyPath), *failed);
        return;
    }
    m_config = std::move(config);
    QString kept = m_legacyPath + u".migrated"_s;
    if (QFileInfo(kept).exists() || QFileInfo(kept).isSymLink())
        kept += u'-' + QDateTime::currentDateTimeUtc().toString(u"yyyyMMdd'T'HHmmss'Z'"_s);
    const bool moved = QFile::rename(m_legacyPath, kept);
    qCInfo(lcConfigFile).noquote() << u"Moved the settings of %1 into %2; %3"_s.arg(
        SystemLog::priv(m_legacyPath), SystemLog::priv(m_path),
        moved ? u"the old file is kept as %1."_s.arg(SystemLog::priv(kept))
              : u"the old file could not be renamed and is no longer read."_s);
    for (const QString &what : std::as_const(lost))
        qCWarning(lcConfigFile).noquote()
            << u"Not moved from %1 (it stays in the old file): %2"_s.arg(
                   SystemLog::priv(m_legacyPath), DisplayText::escapeControls(what));
}

ConfigFile::Read ConfigFile::readFile()
{
    const auto bytes = readBytes(m_path);
    if (!bytes) {
        setProblem(ConfigDocument::Problem{m_path, 0, 0, bytes.error()});
        return Read::Refused;
    }
    m_seen = bytes->value_or(QByteArray());
    if (!bytes->has_value()) {
        // Gone (deleted, or a sync tool between its steps): what was read stays,
        // and the next change writes it again.
        m_bytes.reset();
        setProblem(std::nullopt);
        return Read::Unchanged;
    }
    const QByteArray &now = **bytes;
    if (m_bytes && *m_bytes == now && !m_problem)
        return Read::Unchanged;
    auto config = ConfigDocument::decode(now, m_path);
    if (!config) {
        if (config.error() != m_problem)
            qCCritical(lcConfigFile).noquote()
                << u"%1 Quillvane goes on with the configuration it last read."_s.arg(
                       DisplayText::escapeControls(config.error().text()));
        setProblem(config.error());
        return Read::Refused;
    }
    m_bytes = now;
    setProblem(std::nullopt);
    adopt(std::move(config).value());
    return Read::Taken;
}

void ConfigFile::adopt(Config config)
{
    if (config == m_config)
        return;
    const Config previous = std::exchange(m_config, std::move(config));
    Q_EMIT changed(previous);
}

void ConfigFile::setProblem(std::optional<ConfigDocument::Problem> problem)
{
    if (problem == m_problem)
        return;
    m_problem = std::move(problem);
    Q_EMIT problemChanged();
}

std::optional<QString> ConfigFile::update(const std::function<void(Config &)> &change)
{
    if (readFile() == Read::Refused)
        return refusal(*m_problem);
    Config next = m_config;
    change(next);
    if (next == m_config && m_bytes)
        return std::nullopt;
    const auto failed = write(ConfigDocument::encode(next));
    adopt(std::move(next));
    if (failed)
        qCCritical(lcConfigFile).noquote()
            << u"%1 The change is kept in memory and written with the next one."_s.arg(*failed);
    return failed;
}

std::optional<QString> ConfigFile::write(const QByteArray &bytes)
{
    // Through a symbolic link (a dotfiles repository) its target is written and
    // the link stays.
    const QString target = resolveLinks(m_path);
    struct stat info = {};
    mode_t mode = 0;
    if (::stat(QFile::encodeName(target).constData(), &info) == 0) {
        if (!S_ISREG(info.st_mode))
            return notRegular(target, info.st_mode);
        mode = info.st_mode & 07777;
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        mode = 0666 & ~mask;
    }
    QDir().mkpath(QFileInfo(target).absolutePath());
    QSaveFile file(target);
    const auto failure = [&target](const QFileDevice &device) {
        // A failed flush leaves Qt's own text at "Unknown error"; the system's says why.
        const QString why = errno != 0 ? QString::fromLocal8Bit(std::strerror(errno))
                                       : device.errorString();
        return u"Could not write %1: %2."_s.arg(target, why);
    };
    errno = 0;
    if (!file.open(QIODevice::WriteOnly))
        return failure(file);
    // A file keeps a write this small in its buffer, and QSaveFile does not see
    // that emptying it at commit failed (a full disk, a file size limit): the
    // truncated file would replace the good one.
    if (file.write(bytes) != bytes.size() || !file.flush()) {
        const QString why = failure(file);
        file.cancelWriting();
        return why;
    }
    ::fchmod(file.handle(), mode);
    if (!file.commit())
        return failure(file);
    // The rename itself reaches the disk only with its folder.
    const int folder = ::open(QFile::encodeName(QFileInfo(target).absolutePath()).constData(),
                              O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
    m_bytes = bytes;
    m_seen = bytes;
    return std::nullopt;
}

void ConfigFile::watch()
{
    if (m_watcher)
        return;
    m_watcher = new QFileSystemWatcher(this);
    const auto settle = [this] { m_settle.start(); };
    connect(m_watcher, &QFileSystemWatcher::fileChanged, this, settle);
    connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, settle);
    rearm();
}

void ConfigFile::reload()
{
    readFile();
    rearm();
}

void ConfigFile::rearm()
{
    if (!m_watcher)
        return;
    // The folders along the symbolic links see a file replaced (a rename, a
    // checkout); the file itself, an edit in place. A replaced file is a new
    // one to watch.
    QStringList folders;
    QStringList files;
    QString at = m_path;
    for (int hops = 0; hops < MaxLinkHops; ++hops) {
        const QFileInfo info(at);
        QDir().mkpath(info.absolutePath());
        folders.append(info.absolutePath());
        if (!info.isSymLink()) {
            if (info.isFile())
                files.append(at);
            break;
        }
        at = info.symLinkTarget();
    }
    if (!m_watcher->files().isEmpty())
        m_watcher->removePaths(m_watcher->files());
    QStringList stale = m_watcher->directories();
    stale.removeIf([&folders](const QString &folder) { return folders.contains(folder); });
    if (!stale.isEmpty())
        m_watcher->removePaths(stale);
    folders.removeIf(
        [this](const QString &folder) { return m_watcher->directories().contains(folder); });
    if (!folders.isEmpty() || !files.isEmpty())
        m_watcher->addPaths(folders + files);
    // A change between reading and watching again would go unseen.
    const auto now = readBytes(m_path);
    if (now && now->value_or(QByteArray()) != m_seen)
        m_settle.start();
}
