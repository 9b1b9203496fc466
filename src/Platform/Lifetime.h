#pragma once

#include <QDateTime>
#include <QString>

// Time and identity that survive what the wall clock does. An age measured on
// the wall clock grows when it is set forward (by hand, by NTP after a
// suspend) and turns negative when it is set back; the boot-time clock only
// runs forward, suspends included, until the computer restarts.
namespace Lifetime {

struct Instant
{
    QDateTime wall;
    // /proc/sys/kernel/random/boot_id: tells whether two instants share a boot.
    QString bootId;
    // CLOCK_BOOTTIME, in milliseconds.
    qint64 sinceBootMs = 0;
};

Instant now();

// This process, as "<boot id>/<pid>/<start time>": no other process, before or
// after, is named the same.
QString thisProcess();
// Whether the process so named still runs.
bool isRunning(const QString &process);

} // namespace Lifetime
