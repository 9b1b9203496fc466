#include "Platform/OpenRequestMonitor.h"

#include "Platform/ProcessApps.h"
#include "Platform/SystemLog.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcOpenRequests, "OpenRequestMonitor")

namespace {

// What one request may hold: a link longer than this is refused by Quillvane
// anyway, and the monitor keeps only a few requests.
constexpr qsizetype MaxLinkLength = 64 * 1024;
constexpr qsizetype MaxRequests = 64;
// How long a link waits for the monitor to read what the bus already sent it.
constexpr auto CatchUpLimit = std::chrono::milliseconds(50);

const char *const MatchRules[] = {
    "type='method_call',interface='org.freedesktop.portal.OpenURI',member='OpenURI'",
    "type='method_call',interface='io.snapcraft.Launcher',member='OpenURL'",
};

qint64 monotonicMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

struct BusUnref
{
    void operator()(sd_bus *bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;

QString describe(int error, const sd_bus_error *busError = nullptr)
{
    if (busError && sd_bus_error_is_set(busError))
        return QString::fromUtf8(busError->message ? busError->message : busError->name);
    return QString::fromLocal8Bit(::strerror(-error));
}

// The session bus as libdbus and GIO find it.
QByteArray sessionBusAddress()
{
    const QByteArray address = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    if (!address.isEmpty())
        return address;
    const QByteArray runtime = qgetenv("XDG_RUNTIME_DIR");
    return runtime.isEmpty() ? QByteArray() : "unix:path=" + runtime + "/bus";
}

Bus connectToSessionBus(bool monitor, QString *error)
{
    const QByteArray address = sessionBusAddress();
    if (address.isEmpty()) {
        *error = u"no session bus address"_s;
        return {};
    }
    sd_bus *raw = nullptr;
    int result = sd_bus_new(&raw);
    Bus bus(raw);
    if (result >= 0)
        result = sd_bus_set_address(raw, address.constData());
    if (result >= 0 && monitor)
        result = sd_bus_set_monitor(raw, 1);
    if (result >= 0)
        result = sd_bus_set_bus_client(raw, 1);
    if (result >= 0)
        result = sd_bus_set_method_call_timeout(raw, 2'000'000);
    if (result >= 0)
        result = sd_bus_start(raw);
    if (result < 0) {
        *error = u"cannot connect to the session bus: "_s + describe(result);
        return {};
    }
    return bus;
}

bool becomeMonitor(sd_bus *bus, QString *error)
{
    sd_bus_message *call = nullptr;
    int result = sd_bus_message_new_method_call(bus, &call, "org.freedesktop.DBus",
                                                "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    if (result >= 0)
        result = sd_bus_message_open_container(call, 'a', "s");
    for (const char *rule : MatchRules) {
        if (result >= 0)
            result = sd_bus_message_append_basic(call, 's', rule);
    }
    if (result >= 0)
        result = sd_bus_message_close_container(call);
    if (result >= 0)
        result = sd_bus_message_append(call, "u", 0u);
    sd_bus_error busError{}; // SD_BUS_ERROR_NULL, which C++ cannot spell
    if (result >= 0)
        result = sd_bus_call(bus, call, 0, &busError, nullptr);
    sd_bus_message_unref(call);
    if (result < 0)
        *error = u"the session bus refused to be watched: "_s + describe(result, &busError);
    sd_bus_error_free(&busError);
    return result >= 0;
}

} // namespace

struct BusOpenRequestMonitor::State
{
    std::mutex mutex;
    std::condition_variable changed;
    QList<OpenRequest> requests;
    // Busy: the thread is reading what the bus sent; ended: the bus is gone.
    bool busy = false;
    bool ended = false;
    Bus monitor;
    Bus lookup;
    int wake = -1;
    std::thread thread;

    void run();
    void record(sd_bus_message *message);
    std::optional<qint64> senderPid(const char *sender);
    bool caughtUp(); // with the mutex held
};

std::unique_ptr<BusOpenRequestMonitor> BusOpenRequestMonitor::start(QString *error)
{
    auto state = std::make_unique<State>();
    state->monitor = connectToSessionBus(true, error);
    if (!state->monitor || !becomeMonitor(state->monitor.get(), error))
        return nullptr;
    // The sender is asked for on a connection of its own: a monitor may send nothing.
    state->lookup = connectToSessionBus(false, error);
    state->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!state->lookup || state->wake < 0)
        return nullptr;
    State *raw = state.get();
    state->thread = std::thread([raw] { raw->run(); });
    // Named, so that its wake-ups can be told from the rest of Quillvane's.
    ::pthread_setname_np(state->thread.native_handle(), "qv-open-monitor");
    return std::unique_ptr<BusOpenRequestMonitor>(new BusOpenRequestMonitor(std::move(state)));
}

bool BusOpenRequestMonitor::canWatch(QString *error)
{
    const Bus bus = connectToSessionBus(true, error);
    return bus && becomeMonitor(bus.get(), error);
}

BusOpenRequestMonitor::BusOpenRequestMonitor(std::unique_ptr<State> state)
    : d(std::move(state))
{}

BusOpenRequestMonitor::~BusOpenRequestMonitor()
{
    const quint64 one = 1;
    if (::write(d->wake, &one, sizeof one) != sizeof one)
        qCWarning(lcOpenRequests, "Could not stop the bus monitor's thread");
    d->thread.join();
    ::close(d->wake);
}

void BusOpenRequestMonitor::State::run()
{
    pollfd fds[2] = {{sd_bus_get_fd(monitor.get()), POLLIN, 0}, {wake, POLLIN, 0}};
    for (;;) {
        {
            const std::lock_guard lock(mutex);
            busy = true;
        }
        int result = 0;
        do {
            sd_bus_message *message = nullptr;
            result = sd_bus_process(monitor.get(), &message);
            if (message) {
                record(message);
                sd_bus_message_unref(message);
            }
        } while (result > 0);
        {
            const std::lock_guard lock(mutex);
            busy = false;
            ended = result < 0;
        }
        changed.notify_all();
        if (result < 0) {
            qCWarning(lcOpenRequests).noquote()
                << u"The session bus stopped sending open requests (%1): links that "
                   "applications open through the desktop portal or snapd are no longer "
                   "credited to them."_s.arg(describe(result));
            return;
        }
        // Blocks until the bus has something: no wake-ups while nothing is opened.
        while (::poll(fds, 2, -1) < 0 && errno == EINTR) {
        }
        if (fds[1].revents)
            return;
    }
}

void BusOpenRequestMonitor::State::record(sd_bus_message *message)
{
    const bool portal = sd_bus_message_is_method_call(message, PortalInterface, "OpenURI") > 0;
    if (!portal && sd_bus_message_is_method_call(message, SnapInterface, "OpenURL") <= 0)
        return;
    const char *window = nullptr;
    const char *link = nullptr;
    const int read = portal ? sd_bus_message_read(message, "ss", &window, &link)
                            : sd_bus_message_read(message, "s", &link);
    const char *sender = sd_bus_message_get_sender(message);
    const char *broker = sd_bus_message_get_destination(message);
    if (read < 0 || !link || !sender || !broker || qstrlen(link) > MaxLinkLength)
        return;
    OpenRequest request{QString::fromUtf8(link), -1, std::nullopt,
                        QString::fromUtf8(broker), monotonicMs()};
    // At once: the sender may end as soon as the broker answers it.
    if (const auto pid = senderPid(sender)) {
        request.senderPid = *pid;
        request.sandboxAppId = LinuxProcessApps::sandboxAppId(u"/proc"_s, *pid);
    }
    const std::lock_guard lock(mutex);
    if (requests.size() >= MaxRequests)
        requests.removeFirst();
    requests.append(std::move(request));
}

std::optional<qint64> BusOpenRequestMonitor::State::senderPid(const char *sender)
{
    sd_bus_message *reply = nullptr;
    sd_bus_error busError{}; // SD_BUS_ERROR_NULL, which C++ cannot spell
    int result = sd_bus_call_method(lookup.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                    &busError, &reply, "s", sender);
    uint32_t pid = 0;
    if (result >= 0)
        result = sd_bus_message_read(reply, "u", &pid);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&busError);
    return result >= 0 && pid > 0 ? std::optional<qint64>(pid) : std::nullopt;
}

// Whether everything the bus sent before this moment has been read.
bool BusOpenRequestMonitor::State::caughtUp()
{
    if (ended)
        return true;
    if (busy)
        return false;
    pollfd fd{sd_bus_get_fd(monitor.get()), POLLIN, 0};
    return ::poll(&fd, 1, 0) == 0;
}

QList<OpenRequest> BusOpenRequestMonitor::takeRequests()
{
    std::unique_lock lock(d->mutex);
    const auto deadline = std::chrono::steady_clock::now() + CatchUpLimit;
    while (!d->caughtUp()) {
        if (d->changed.wait_until(lock, deadline) == std::cv_status::timeout)
            break;
    }
    return std::exchange(d->requests, {});
}

std::optional<qint64> BusOpenRequestMonitor::ownerPid(const QString &busName)
{
    const auto reply = QDBusConnection::sessionBus().interface()->servicePid(busName);
    return reply.isValid() ? std::optional<qint64>(reply.value()) : std::nullopt;
}
