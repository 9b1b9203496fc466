#include "ProcessEnd.h"

#include "Platform/SystemLog.h"

#include <QObject>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

// Present only in builds instrumented for coverage (clang's profile runtime).
extern "C" int __llvm_profile_write_file(void) __attribute__((weak));

QUILLVANE_LOGGING_CATEGORY(lcProcessEnd, "ProcessEnd")

namespace ProcessEnd {
namespace {

int g_wakeFd = -1;

// Only async-signal-safe calls here: the rest happens in the event loop.
void onSignal(int number)
{
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(number);
    [[maybe_unused]] const ssize_t written = ::write(g_wakeFd, &byte, 1);
    errno = saved;
}

} // namespace

void onTerminationSignal(QObject *context, std::function<void()> quit)
{
    int fds[2];
    if (g_wakeFd >= 0 || ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    g_wakeFd = fds[1];
    auto *notifier = new QSocketNotifier(fds[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context,
                     [fd = fds[0], quit = std::move(quit)] {
                         unsigned char byte = 0;
                         while (::read(fd, &byte, 1) == 1) {
                             qCInfo(lcProcessEnd).noquote()
                                 << QStringLiteral("Quitting on signal %1")
                                        .arg(QString::fromLatin1(::sigabbrev_np(byte)));
                         }
                         quit();
                     });

    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // SA_RESETHAND: a quit that hangs still yields to the next signal.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    // The terminal that started Quillvane closed: the session goes on, and
    // Quillvane quits as cleanly as at logout.
    ::sigaction(SIGHUP, &action, nullptr);
    // Its standard error may now lead nowhere: a write there fails, and must
    // not end the process. (Started browsers get every signal's default back.)
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGPIPE, &ignore, nullptr);
}

void immediately(int status)
{
    if (__llvm_profile_write_file)
        __llvm_profile_write_file();
    ::_exit(status);
}

} // namespace ProcessEnd
