#include "Platform/BusPeers.h"

#include <systemd/sd-bus.h>

#include <ctime>
#include <sys/socket.h>
#include <unistd.h>

namespace BusPeers {

namespace {

qint64 monotonicUs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The connection, opened on first use and kept; dropped when it fails, so
// that a bus that restarted is reached again.
thread_local sd_bus *t_bus = nullptr;

sd_bus *connection()
{
    if (t_bus && sd_bus_is_open(t_bus) > 0)
        return t_bus;
    if (t_bus)
        t_bus = sd_bus_flush_close_unref(t_bus);
    if (sd_bus_open_user(&t_bus) < 0)
        t_bus = nullptr;
    return t_bus;
}

struct Answer
{
    bool done = false;
    std::optional<qint64> pid;
};

int answered(sd_bus_message *reply, void *userdata, sd_bus_error *)
{
    auto *answer = static_cast<Answer *>(userdata);
    answer->done = true;
    uint32_t pid = 0;
    if (!sd_bus_message_is_method_error(reply, nullptr)
        && sd_bus_message_read(reply, "u", &pid) >= 0 && pid > 0)
        answer->pid = qint64(pid);
    return 0;
}

} // namespace

std::optional<qint64> processOf(const QByteArray &uniqueName, const std::function<void()> &meanwhile,
                                int timeoutMs)
{
    sd_bus *bus = uniqueName.startsWith(':') ? connection() : nullptr;
    Answer answer;
    sd_bus_slot *slot = nullptr;
    if (bus
        && sd_bus_call_method_async(bus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "GetConnectionUnixProcessID", answered,
                                    &answer, "s", uniqueName.constData())
               < 0)
        bus = nullptr;
    if (meanwhile)
        meanwhile();
    if (!bus)
        return std::nullopt;
    const qint64 deadline = monotonicUs() + qint64(timeoutMs) * 1000;
    while (!answer.done) {
        const int processed = sd_bus_process(bus, nullptr);
        if (processed < 0)
            break;
        if (processed > 0)
            continue;
        const qint64 left = deadline - monotonicUs();
        if (left <= 0 || sd_bus_wait(bus, uint64_t(left)) < 0)
            break;
    }
    // Unanswered: the slot goes, and with it the call's callback.
    sd_bus_slot_unref(slot);
    if (!answer.done)
        t_bus = sd_bus_flush_close_unref(t_bus);
    return answer.pid;
}

std::optional<qint64> socketCreator(int fd)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (fd < 0 || ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0
        || size != sizeof credentials || credentials.pid <= 0 || credentials.uid != ::getuid())
        return std::nullopt;
    return qint64(credentials.pid);
}

} // namespace BusPeers
