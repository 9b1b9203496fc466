#pragma once

#include <QHash>
#include <QObject>
#include <QString>

#include <optional>

// Which installed application a process belongs to, on Linux: launch records
// that GIO broadcasts, Flatpak and Snap sandboxes, the systemd unit desktops
// start applications in, GIO's launch environment, and the executable.
class ProcessApps
{
public:
    struct Lookup
    {
        enum class Kind
        {
            NoProcess,     // no such process, or one of another user
            Terminated,    // it went away (or its id was reused) while being read
            NoApplication, // a process, but of no installed application
            Self,          // one of Quillvane's own
            Application,
        };
        Kind kind = Kind::NoProcess;
        QString desktopId;
        QString name;
    };

    virtual ~ProcessApps() = default;
    virtual Lookup lookup(qint64 pid) = 0;
    // The installed application with this id (a Flatpak app id, a snap's
    // "<snap>_<app>"), named as its desktop entry names it; failing that, the
    // one whose windows' class (StartupWMClass) or id it is, case aside.
    virtual Lookup application(const QString &id) = 0;
    // The parent's process id, or none when the process cannot be read.
    virtual std::optional<qint64> parentPid(qint64 pid) = 0;
    // Every process of this user, at this moment.
    virtual QList<qint64> processIds() = 0;
    // The process's arguments, its program first; empty when it cannot be read.
    virtual QStringList commandLine(qint64) { return {}; }
    // Every process at this moment, of any user: the listing alone, cheap.
    virtual QList<qint64> allProcessIds() { return processIds(); }
    // When the process started (clock ticks since boot); none when it is gone.
    virtual std::optional<quint64> startTime(qint64) { return std::nullopt; }
    // Whether the process closes the user's session from above, so that no
    // process beyond it can have sent a link: init, a process of another user
    // (login, sshd, the display manager), the user's own service manager, the
    // leader of a session without a terminal (a login session, a service's
    // session). A shell in a terminal leads a session too, but its terminal
    // emulator above it may be the application.
    virtual bool isSessionBoundary(qint64 pid) = 0;
};

// The parsing behind the Linux lookup, kept apart so that it can be tested on
// its own with any text.
namespace ProcStat {
// Parent id from the text of /proc/<pid>/stat (field 4, after the last ')').
std::optional<qint64> parentPid(QByteArrayView stat);
// The command name from the text of /proc/<pid>/stat (field 2, in parentheses).
QByteArrayView commandName(QByteArrayView stat);
// Whether the process leads its session (field 6 is its own id) and has no
// controlling terminal (field 7 is 0).
bool leadsSessionWithoutTerminal(QByteArrayView stat, qint64 pid);
// Start time from the text of /proc/<pid>/stat (field 22).
std::optional<quint64> startTime(QByteArrayView stat);
// The application id named by a systemd unit of /proc/<pid>/cgroup, such as
// app-gnome-org.gnome.Evolution-1234.scope; every candidate, most likely first.
QStringList unitAppIds(QByteArrayView cgroup);
// The snap of a snap.<name>.<app>-….scope or .service unit, as "<name>_<app>".
std::optional<QString> snapAppId(QByteArrayView cgroup);
// The snap of an AppArmor label of /proc/<pid>/attr/current, such as
// "snap.chatapp.chatapp (enforce)", as "<name>_<app>" (hooks name no app).
std::optional<QString> snapAppIdFromLabel(QByteArrayView label);
// A variable of a NUL-separated environment block.
std::optional<QByteArray> environmentValue(QByteArrayView environment, QByteArrayView name);
QList<QByteArrayView> split(QByteArrayView text, char separator);
} // namespace ProcStat

class DesktopEntries;

class LinuxProcessApps final : public QObject, public ProcessApps
{
public:
    // proc: the proc file system's mount point (tests point it elsewhere).
    explicit LinuxProcessApps(DesktopEntries &entries, QString proc = QStringLiteral("/proc"),
                              QObject *parent = nullptr);
    ~LinuxProcessApps() override;

    Lookup lookup(qint64 pid) override;
    Lookup application(const QString &id) override;
    std::optional<qint64> parentPid(qint64 pid) override;
    QStringList commandLine(qint64 pid) override;
    QList<qint64> processIds() override;
    QList<qint64> allProcessIds() override;
    std::optional<quint64> startTime(qint64 pid) override;
    bool isSessionBoundary(qint64 pid) override;

    // Follows GIO's org.gtk.gio.DesktopAppInfo.Launched broadcasts on the
    // session bus, so that a process started by an application is credited to it.
    void listenForLaunches();
    // The sandbox's application id of a process (Flatpak or Snap), read from
    // /proc alone, so that any thread may ask while the process still exists.
    static std::optional<QString> sandboxAppId(const QString &proc, qint64 pid);
    static std::optional<QString> sandboxAppId(const QString &proc, qint64 pid,
                                               const QByteArray &cgroup);

    // A launch as GIO reports it (also for tests).
    void recordLaunch(qint64 pid, const QString &originDesktopFile, qint64 originPid);

private:
    struct LaunchRecord
    {
        QString originId;
        qint64 originPid = 0;
        qint64 when = 0;
    };

    std::optional<QString> installedId(const QString &candidate);
    std::optional<QString> idFromExecutable(const QString &exe);
    Lookup named(const QString &id);
    QByteArray read(qint64 pid, const char *file) const;
    // The executable /proc/<pid>/exe names (empty when unreadable).
    QString executableOf(qint64 pid) const;

    DesktopEntries &m_entries;
    QString m_proc;
    QString m_selfId;
    QString m_selfExecutableDir;
    QHash<qint64, LaunchRecord> m_launches;
    QHash<QString, QString> m_executables;
    // Entries whose program is a script that starts a binary of its own name
    // elsewhere (Debian's /usr/bin/chromium starts /usr/lib/chromium/chromium),
    // by that name.
    QHash<QString, QString> m_scriptNames;
    bool m_executablesValid = false;
    // GIO's application monitor (a GAppInfoMonitor), held while listening.
    void *m_monitor = nullptr;
    unsigned long m_monitorHandler = 0;
    int m_depth = 0;
};
