#include "Platform/Lifetime.h"

#include "Platform/ProcessApps.h"

#include <QFile>

#include <time.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

namespace Lifetime {

namespace {

QString readBootId()
{
    QFile file(u"/proc/sys/kernel/random/boot_id"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(file.read(64)).trimmed();
}

const QString &bootId()
{
    static const QString id = readBootId();
    return id;
}

// When the process started; none when it is gone, or ended and not yet reaped
// by its parent (a zombie runs nothing).
std::optional<quint64> startTimeOf(qint64 pid)
{
    QFile file(u"/proc/%1/stat"_s.arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray stat = file.read(4096);
    const qsizetype end = stat.lastIndexOf(')');
    if (end < 0 || stat.mid(end + 2, 1) == "Z")
        return std::nullopt;
    return ProcStat::startTime(stat);
}

} // namespace

Instant now()
{
    timespec boot = {};
    ::clock_gettime(CLOCK_BOOTTIME, &boot);
    return Instant{QDateTime::currentDateTimeUtc(), bootId(),
                   qint64(boot.tv_sec) * 1000 + boot.tv_nsec / 1000000};
}

QString thisProcess()
{
    static const QString name = [] {
        const qint64 pid = ::getpid();
        return u"%1/%2/%3"_s.arg(bootId(), QString::number(pid),
                                 QString::number(startTimeOf(pid).value_or(0)));
    }();
    return name;
}

bool isRunning(const QString &process)
{
    const QStringList parts = process.split(u'/');
    if (parts.size() != 3 || parts[0].isEmpty() || parts[0] != bootId())
        return false;
    bool pidOk = false;
    bool startOk = false;
    const qint64 pid = parts[1].toLongLong(&pidOk);
    const quint64 started = parts[2].toULongLong(&startOk);
    return pidOk && startOk && pid > 0 && startTimeOf(pid) == started;
}

} // namespace Lifetime
