#include "Platform/ProcessApps.h"

#include "Models/BuildInfo.h"
#include "Platform/DesktopEntries.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <algorithm>
#include <cstdlib>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace ProcStat {

QList<QByteArrayView> split(QByteArrayView text, char separator)
{
    QList<QByteArrayView> parts;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == separator) {
            parts.append(text.sliced(start, i - start));
            start = i + 1;
        }
    }
    return parts;
}

namespace {
// The fields after the command name, which may itself hold blanks and ')'.
QList<QByteArrayView> fieldsAfterName(QByteArrayView stat)
{
    const qsizetype close = stat.lastIndexOf(')');
    if (close < 0)
        return {};
    QList<QByteArrayView> fields;
    qsizetype at = close + 1;
    while (at < stat.size()) {
        while (at < stat.size() && stat[at] == ' ')
            ++at;
        const qsizetype start = at;
        while (at < stat.size() && stat[at] != ' ' && stat[at] != '\n')
            ++at;
        if (at > start)
            fields.append(stat.sliced(start, at - start));
        if (at < stat.size() && stat[at] == '\n')
            break;
    }
    return fields;
}

QString unescapeUnitName(QByteArrayView text)
{
    QByteArray out;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x') {
            bool ok = false;
            const int value = text.sliced(i + 2, 2).toByteArray().toInt(&ok, 16);
            if (ok) {
                out += char(value);
                i += 3;
                continue;
            }
        }
        out += text[i];
    }
    return QString::fromUtf8(out);
}

// The unit of the process: the last component of its cgroup path.
QByteArrayView unitOf(QByteArrayView cgroup)
{
    // cgroup v2: a single "0::/path" line; v1 lines name their controllers.
    QByteArrayView best;
    for (QByteArrayView line : split(cgroup, '\n')) {
        const qsizetype colon = line.indexOf(':', line.indexOf(':') + 1);
        if (colon < 0)
            continue;
        const QByteArrayView path = line.sliced(colon + 1);
        const qsizetype slash = path.lastIndexOf('/');
        const QByteArrayView last = path.sliced(slash + 1);
        if (last.endsWith(".scope") || last.endsWith(".service")) {
            best = last;
            if (line.startsWith("0::"))
                break;
        }
    }
    return best;
}
} // namespace

std::optional<qint64> parentPid(QByteArrayView stat)
{
    const QList<QByteArrayView> fields = fieldsAfterName(stat);
    if (fields.size() < 2)
        return std::nullopt;
    bool ok = false;
    const qint64 pid = fields[1].toByteArray().toLongLong(&ok);
    return ok && pid >= 0 ? std::optional<qint64>(pid) : std::nullopt;
}

QByteArrayView commandName(QByteArrayView stat)
{
    const qsizetype open = stat.indexOf('(');
    const qsizetype close = stat.lastIndexOf(')');
    if (open < 0 || close <= open)
        return {};
    return stat.sliced(open + 1, close - open - 1);
}

bool leadsSessionWithoutTerminal(QByteArrayView stat, qint64 pid)
{
    const QList<QByteArrayView> fields = fieldsAfterName(stat);
    if (fields.size() < 5)
        return false;
    return fields[3].toByteArray().toLongLong() == pid && fields[4] == "0";
}

std::optional<quint64> startTime(QByteArrayView stat)
{
    // Field 22 of the line is field 20 after the name (state is field 3).
    const QList<QByteArrayView> fields = fieldsAfterName(stat);
    if (fields.size() < 20)
        return std::nullopt;
    bool ok = false;
    const quint64 time = fields[19].toByteArray().toULongLong(&ok);
    return ok ? std::optional<quint64>(time) : std::nullopt;
}

QStringList unitAppIds(QByteArrayView cgroup)
{
    QByteArrayView unit = unitOf(cgroup);
    if (!unit.startsWith("app-"))
        return {};
    const bool scope = unit.endsWith(".scope");
    unit = unit.sliced(4, unit.size() - 4 - (scope ? 6 : 8));
    // app[-<launcher>]-<AppID>[@<random>].service, app[-<launcher>]-<AppID>-<random>.scope;
    // a '-' inside the id is escaped as \x2d, so a plain '-' separates.
    if (!scope) {
        const qsizetype at = unit.indexOf('@');
        if (at >= 0)
            unit = unit.first(at);
    }
    QList<QByteArrayView> parts = split(unit, '-');
    if (scope && parts.size() >= 2)
        parts.removeLast();
    QStringList ids;
    // A damaged name ("app-x--1.scope") gives no empty candidate.
    const auto add = [&ids](const QByteArray &escaped) {
        const QString id = unescapeUnitName(escaped);
        if (!id.isEmpty())
            ids.append(id);
    };
    if (parts.size() >= 2) {
        QByteArray joined;
        for (qsizetype i = 1; i < parts.size(); ++i)
            joined += (i > 1 ? "-" : "") + parts[i].toByteArray();
        add(joined);
    }
    QByteArray all;
    for (qsizetype i = 0; i < parts.size(); ++i)
        all += (i ? "-" : "") + parts[i].toByteArray();
    add(all);
    return ids;
}

std::optional<QString> snapAppId(QByteArrayView cgroup)
{
    const QByteArrayView unit = unitOf(cgroup);
    if (!unit.startsWith("snap."))
        return std::nullopt;
    const QList<QByteArrayView> parts = split(unit.sliced(5), '.');
    if (parts.size() < 3)
        return std::nullopt;
    QByteArrayView app = parts[1];
    const qsizetype dash = app.indexOf('-');
    if (dash > 0 && unit.endsWith(".scope"))
        app = app.first(dash);
    return QString::fromUtf8(parts[0]) + u'_' + QString::fromUtf8(app);
}

std::optional<QString> snapAppIdFromLabel(QByteArrayView label)
{
    const qsizetype blank = label.indexOf(' ');
    label = label.first(blank < 0 ? label.size() : blank).trimmed();
    if (!label.startsWith("snap."))
        return std::nullopt;
    const QList<QByteArrayView> parts = split(label.sliced(5), '.');
    if (parts.size() != 2 || parts[0].isEmpty() || parts[1].isEmpty())
        return std::nullopt;
    return QString::fromUtf8(parts[0]) + u'_' + QString::fromUtf8(parts[1]);
}

std::optional<QByteArray> environmentValue(QByteArrayView environment, QByteArrayView name)
{
    for (QByteArrayView entry : split(environment, '\0')) {
        if (entry.size() > name.size() && entry.startsWith(name) && entry[name.size()] == '=')
            return entry.sliced(name.size() + 1).toByteArray();
    }
    return std::nullopt;
}

} // namespace ProcStat

namespace {
constexpr qint64 LaunchRecordLifetimeMs = 10000;

QString desktopFileId(const QString &path)
{
    QString id = QFileInfo(path).fileName();
    if (id.endsWith(u".desktop"))
        id.chop(8);
    return id;
}
} // namespace

// Receives GIO's Launched signal; QtDBus delivers bus signals to named slots only.
class LaunchListener final : public QObject
{
    Q_OBJECT
public:
    explicit LaunchListener(LinuxProcessApps &apps)
        : QObject(&apps)
        , m_apps(apps)
    {}

public Q_SLOTS:
    void launched(const QDBusMessage &message)
    {
        const QList<QVariant> arguments = message.arguments();
        if (arguments.size() < 4)
            return;
        const QString desktopFile = QString::fromUtf8(arguments[0].toByteArray()).remove(QChar(0));
        Q_UNUSED(desktopFile)
        const qint64 pid = arguments[1].toLongLong();
        const QVariantMap platformData = qdbus_cast<QVariantMap>(arguments[3]);
        const QString origin =
            QString::fromUtf8(platformData.value(u"origin-desktop-file"_s).toByteArray())
                .remove(QChar(0));
        const qint64 originPid = platformData.value(u"origin-pid"_s).toLongLong();
        m_apps.recordLaunch(pid, origin, originPid);
    }

private:
    LinuxProcessApps &m_apps;
};

LinuxProcessApps::LinuxProcessApps(DesktopEntries &entries, QString proc, QObject *parent)
    : QObject(parent)
    , m_entries(entries)
    , m_proc(std::move(proc))
    , m_selfId(QString::fromUtf16(BuildInfo::AppId))
    , m_selfExecutableDir(QFileInfo(QCoreApplication::applicationFilePath()).canonicalPath())
{}

LinuxProcessApps::~LinuxProcessApps()
{
    if (m_monitor) {
        g_signal_handler_disconnect(m_monitor, m_monitorHandler);
        g_object_unref(m_monitor);
    }
}

void LinuxProcessApps::listenForLaunches()
{
    GAppInfoMonitor *monitor = g_app_info_monitor_get();
    m_monitor = monitor;
    m_monitorHandler =
        g_signal_connect(monitor, "changed", G_CALLBACK(+[](GAppInfoMonitor *, gpointer self) {
                             static_cast<LinuxProcessApps *>(self)->m_executablesValid = false;
                         }),
                         this);
    auto *listener = new LaunchListener(*this);
    QDBusConnection::sessionBus().connect(QString(), u"/org/gtk/gio/DesktopAppInfo"_s,
                                          u"org.gtk.gio.DesktopAppInfo"_s, u"Launched"_s, listener,
                                          SLOT(launched(QDBusMessage)));
}

void LinuxProcessApps::recordLaunch(qint64 pid, const QString &originDesktopFile, qint64 originPid)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    m_launches.removeIf(
        [now](const auto &item) { return now - item.value().when > LaunchRecordLifetimeMs; });
    m_launches.insert(
        pid,
        LaunchRecord{originDesktopFile.isEmpty() ? QString() : desktopFileId(originDesktopFile),
                     originPid, now});
}

namespace {
QByteArray readProc(const QString &proc, qint64 pid, const char *file)
{
    // open, read, close: a click reads a few dozen of these, and Qt's file
    // class would add two status calls and a read to each.
    const QByteArray path = QFile::encodeName(proc) + '/' + QByteArray::number(pid) + '/' + file;
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return {};
    // Grown as the text arrives: a parent chain reads a few dozen of them per link.
    constexpr qsizetype Limit = 1024 * 1024;
    QByteArray text;
    char chunk[4096];
    while (text.size() < Limit) {
        const ssize_t got = ::read(fd, chunk, size_t(std::min<qsizetype>(sizeof chunk, Limit - text.size())));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text.append(chunk, got);
        // /proc hands over a small file whole: a short read is its end.
        if (got < ssize_t(sizeof chunk))
            break;
    }
    ::close(fd);
    return text;
}
} // namespace

QString LinuxProcessApps::executableOf(qint64 pid) const
{
    const QByteArray link = QFile::encodeName(m_proc) + '/' + QByteArray::number(pid) + "/exe";
    char target[4096];
    const ssize_t length = ::readlink(link.constData(), target, sizeof target);
    if (length <= 0 || length >= ssize_t(sizeof target))
        return {};
    // A program replaced since it started is named "<path> (deleted)".
    return QFile::decodeName(QByteArray(target, length));
}

QByteArray LinuxProcessApps::read(qint64 pid, const char *file) const
{
    return readProc(m_proc, pid, file);
}

std::optional<QString> LinuxProcessApps::sandboxAppId(const QString &proc, qint64 pid)
{
    return sandboxAppId(proc, pid, readProc(proc, pid, "cgroup"));
}

std::optional<QString> LinuxProcessApps::sandboxAppId(const QString &proc, qint64 pid,
                                                      const QByteArray &cgroup)
{
    const QByteArray flatpakInfo = readProc(proc, pid, "root/.flatpak-info");
    for (QByteArrayView line : ProcStat::split(flatpakInfo, '\n')) {
        if (line.startsWith("name=")) {
            const QString id = QString::fromUtf8(line.sliced(5)).trimmed();
            return id.isEmpty() ? std::nullopt : std::optional<QString>(id);
        }
    }
    if (auto snap = ProcStat::snapAppId(cgroup))
        return snap;
    return ProcStat::snapAppIdFromLabel(readProc(proc, pid, "attr/current"));
}

std::optional<qint64> LinuxProcessApps::parentPid(qint64 pid)
{
    return ProcStat::parentPid(read(pid, "stat"));
}

QStringList LinuxProcessApps::commandLine(qint64 pid)
{
    QStringList arguments;
    for (QByteArrayView argument : ProcStat::split(read(pid, "cmdline"), '\0'))
        arguments.append(QString::fromLocal8Bit(argument));
    // The text ends with a NUL: no empty argument after the last one.
    if (!arguments.isEmpty() && arguments.last().isEmpty())
        arguments.removeLast();
    return arguments;
}

bool LinuxProcessApps::isSessionBoundary(qint64 pid)
{
    if (pid <= 1)
        return true;
    struct stat info = {};
    const QByteArray directory = QFile::encodeName(m_proc + u'/' + QString::number(pid));
    if (::stat(directory.constData(), &info) != 0 || info.st_uid != ::geteuid())
        return true;
    // systemd --user: what it starts, it starts in units of their own, which
    // the lookup of the process itself reads; above it is init.
    const QByteArray stat = read(pid, "stat");
    return ProcStat::commandName(stat) == "systemd"
           || ProcStat::leadsSessionWithoutTerminal(stat, pid);
}

QList<qint64> LinuxProcessApps::processIds()
{
    QList<qint64> pids;
    const uid_t self = ::geteuid();
    QDirIterator entries(m_proc, QDir::Dirs | QDir::NoDotAndDotDot);
    while (entries.hasNext()) {
        entries.next();
        bool number = false;
        const qint64 pid = entries.fileName().toLongLong(&number);
        struct stat info = {};
        if (number && pid > 0
            && ::stat(QFile::encodeName(entries.filePath()).constData(), &info) == 0
            && info.st_uid == self)
            pids.append(pid);
    }
    return pids;
}

QList<qint64> LinuxProcessApps::allProcessIds()
{
    QList<qint64> pids;
    DIR *directory = ::opendir(QFile::encodeName(m_proc).constData());
    if (!directory)
        return pids;
    while (const dirent *entry = ::readdir(directory)) {
        char *end = nullptr;
        const long long pid = std::strtoll(entry->d_name, &end, 10);
        if (pid > 0 && end && *end == '\0')
            pids.append(pid);
    }
    ::closedir(directory);
    return pids;
}

std::optional<quint64> LinuxProcessApps::startTime(qint64 pid)
{
    return ProcStat::startTime(read(pid, "stat"));
}

std::optional<QString> LinuxProcessApps::installedId(const QString &candidate)
{
    if (candidate.isEmpty())
        return std::nullopt;
    if (candidate.compare(m_selfId, Qt::CaseInsensitive) == 0)
        return candidate;
    if (m_entries.entry(candidate))
        return candidate;
    return std::nullopt;
}

ProcessApps::Lookup LinuxProcessApps::application(const QString &id)
{
    if (const auto installed = installedId(id))
        return named(*installed);
    // A window's class or app id: the entry that names it as its windows'
    // class, or whose id it is in another case ("Firefox", "firefox").
    if (id.isEmpty())
        return Lookup{Lookup::Kind::NoApplication, {}, {}};
    for (const DesktopEntry &entry : m_entries.allEntries()) {
        if (entry.startupWMClass.compare(id, Qt::CaseInsensitive) == 0
            || entry.id.compare(id, Qt::CaseInsensitive) == 0)
            return named(entry.id);
    }
    return Lookup{Lookup::Kind::NoApplication, {}, {}};
}

ProcessApps::Lookup LinuxProcessApps::named(const QString &id)
{
    if (id.compare(m_selfId, Qt::CaseInsensitive) == 0)
        return Lookup{Lookup::Kind::Self, id, u"Quillvane"_s};
    const auto entry = m_entries.entry(id);
    return Lookup{Lookup::Kind::Application, id, entry && entry->name ? *entry->name : id};
}

std::optional<QString> LinuxProcessApps::idFromExecutable(const QString &exe)
{
    // Built once, and again only after GIO reports a change of the installed
    // applications: reading every desktop entry on a click would cost milliseconds.
    if (!m_executablesValid) {
        m_executables.clear();
        m_scriptNames.clear();
        QSet<QString> ambiguous;
        for (const DesktopEntry &entry : m_entries.allEntries()) {
            QString program = entry.tryExec;
            if (program.isEmpty())
                program = entry.exec.section(u' ', 0, 0, QString::SectionSkipEmpty).remove(u'"');
            if (!program.contains(u'/'))
                program = QStandardPaths::findExecutable(program);
            const QString canonical =
                program.isEmpty() ? QString() : QFileInfo(program).canonicalFilePath();
            if (canonical.isEmpty())
                continue;
            // A program shared by several entries (flatpak, env, a shell) names none of them.
            if (m_executables.contains(canonical) && m_executables.value(canonical) != entry.id)
                ambiguous.insert(canonical);
            m_executables.insert(canonical, entry.id);
            if (QFile script(canonical); script.open(QIODevice::ReadOnly) && script.read(2) == "#!") {
                const QString name = QFileInfo(canonical).fileName();
                if (m_scriptNames.contains(name) && m_scriptNames.value(name) != entry.id)
                    ambiguous.insert(u'/' + name);
                m_scriptNames.insert(name, entry.id);
            }
        }
        for (const QString &program : std::as_const(ambiguous)) {
            m_executables.remove(program);
            m_scriptNames.remove(program.sliced(1));
        }
        m_executablesValid = true;
    }
    if (const auto it = m_executables.constFind(exe); it != m_executables.cend())
        return *it;
    const auto named = m_scriptNames.constFind(QFileInfo(exe).fileName());
    return named == m_scriptNames.cend() ? std::nullopt : std::optional<QString>(*named);
}

ProcessApps::Lookup LinuxProcessApps::lookup(qint64 pid)
{
    using Kind = Lookup::Kind;
    if (pid < 1)
        return {};
    const QByteArray stat = read(pid, "stat");
    const auto started = ProcStat::startTime(stat);
    struct stat info = {};
    const QByteArray directory = QFile::encodeName(m_proc + u'/' + QString::number(pid));
    if (!started || ::stat(directory.constData(), &info) != 0 || info.st_uid != ::geteuid())
        return Lookup{Kind::NoProcess, {}, {}};

    const auto result = [&]() -> Lookup {
        // Launch records first: GIO said which application started this process.
        if (const auto record = m_launches.constFind(pid); record != m_launches.cend()) {
            if (const auto id = installedId(record->originId))
                return named(*id);
            if (record->originPid > 0 && record->originPid != pid && m_depth < 2) {
                ++m_depth;
                const Lookup origin = lookup(record->originPid);
                --m_depth;
                if (origin.kind == Kind::Application || origin.kind == Kind::Self)
                    return origin;
            }
        }
        // A Flatpak or Snap sandbox names its application.
        const QByteArray cgroup = read(pid, "cgroup");
        if (const auto sandboxed = sandboxAppId(m_proc, pid, cgroup)) {
            if (const auto id = installedId(*sandboxed))
                return named(*id);
        }
        for (const QString &candidate : ProcStat::unitAppIds(cgroup)) {
            if (const auto id = installedId(candidate))
                return named(*id);
        }
        const QByteArray environment = read(pid, "environ");
        const auto launchedFile =
            ProcStat::environmentValue(environment, "GIO_LAUNCHED_DESKTOP_FILE");
        const auto launchedPid =
            ProcStat::environmentValue(environment, "GIO_LAUNCHED_DESKTOP_FILE_PID");
        if (launchedFile && launchedPid && launchedPid->toLongLong() == pid) {
            if (const auto id = installedId(desktopFileId(QString::fromUtf8(*launchedFile))))
                return named(*id);
        }
        // The kernel names the executable by its canonical path already.
        const QString exe = executableOf(pid);
        const qsizetype slash = exe.lastIndexOf(u'/');
        const QStringView folder = QStringView(exe).first(std::max<qsizetype>(slash, 0));
        const QStringView program = QStringView(exe).sliced(slash + 1);
        if (folder == m_selfExecutableDir
            && (program == u"quillvane" || program == u"quillvane-open"))
            return Lookup{Kind::Self, m_selfId, u"Quillvane"_s};
        if (const auto id = idFromExecutable(exe))
            return named(*id);
        return Lookup{Kind::NoApplication, {}, {}};
    }();

    // The process may have ended, and its id gone to another, while we read.
    if (ProcStat::startTime(read(pid, "stat")) != started)
        return Lookup{Kind::Terminated, {}, {}};
    return result;
}

#include "ProcessApps.moc"
