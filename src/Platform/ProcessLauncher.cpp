#include "Platform/ProcessLauncher.h"

#include "Models/DisplayText.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QPromise>
#include <QTimer>

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace {

// A launch context that hands the activation token that came with the link to
// the application, so that its window may take the focus.
struct TokenLaunchContext
{
    GAppLaunchContext parent;
    char *token;
};

struct TokenLaunchContextClass
{
    GAppLaunchContextClass parentClass;
};

GType tokenLaunchContextType();

char *tokenStartupNotifyId(GAppLaunchContext *context, GAppInfo *, GList *)
{
    auto *self = reinterpret_cast<TokenLaunchContext *>(context);
    return g_strdup(self->token);
}

void tokenFinalize(GObject *object)
{
    g_free(reinterpret_cast<TokenLaunchContext *>(object)->token);
    G_OBJECT_CLASS(g_type_class_peek_parent(G_OBJECT_GET_CLASS(object)))->finalize(object);
}

void tokenClassInit(gpointer klass, gpointer)
{
    G_APP_LAUNCH_CONTEXT_CLASS(klass)->get_startup_notify_id = tokenStartupNotifyId;
    G_OBJECT_CLASS(klass)->finalize = tokenFinalize;
}

GType tokenLaunchContextType()
{
    static const GType type = g_type_register_static_simple(
        G_TYPE_APP_LAUNCH_CONTEXT, "QuillvaneTokenLaunchContext", sizeof(TokenLaunchContextClass),
        tokenClassInit, sizeof(TokenLaunchContext), nullptr, GTypeFlags(0));
    return type;
}

GAppLaunchContext *launchContext(const QString &token)
{
    if (token.isEmpty())
        return g_app_launch_context_new();
    auto *context =
        static_cast<TokenLaunchContext *>(g_object_new(tokenLaunchContextType(), nullptr));
    context->token = g_strdup(token.toUtf8().constData());
    return G_APP_LAUNCH_CONTEXT(context);
}

// The environment for a started browser: Quillvane's own, with the link's
// activation token in place of any token or launch record Quillvane inherited.
gchar **childEnvironment(const QString &token)
{
    gchar **environment = g_get_environ();
    environment = g_environ_unsetenv(environment, "GIO_LAUNCHED_DESKTOP_FILE");
    environment = g_environ_unsetenv(environment, "GIO_LAUNCHED_DESKTOP_FILE_PID");
    if (token.isEmpty()) {
        environment = g_environ_unsetenv(environment, "XDG_ACTIVATION_TOKEN");
        environment = g_environ_unsetenv(environment, "DESKTOP_STARTUP_ID");
    } else {
        const QByteArray value = token.toUtf8();
        environment =
            g_environ_setenv(environment, "XDG_ACTIVATION_TOKEN", value.constData(), TRUE);
        environment = g_environ_setenv(environment, "DESKTOP_STARTUP_ID", value.constData(), TRUE);
    }
    return environment;
}

QString takeMessage(GError *error)
{
    const QString message = error ? QString::fromUtf8(error->message) : u"Unknown error"_s;
    if (error)
        g_error_free(error);
    return message;
}

using Promise = QPromise<ProcessLauncher::Result>;

void activationFinished(GObject *source, GAsyncResult *result, gpointer data)
{
    std::unique_ptr<Promise> promise(static_cast<Promise *>(data));
    GError *error = nullptr;
    if (g_app_info_launch_uris_finish(G_APP_INFO(source), result, &error))
        promise->addResult(ProcessLauncher::Result());
    else
        promise->addResult(ProcessLauncher::Result(takeMessage(error)));
    promise->finish();
    g_object_unref(source);
}

// What the started program writes to its error output goes into a memory file
// of this size, sealed so that it cannot grow: the first line is all Quillvane
// reads, and a browser that talks for hours must not fill memory. Writes beyond
// it fail quietly, as writes to a full disk would.
constexpr off_t ErrorCapacity = 4096;
constexpr qsizetype MaxErrorLineLength = 300;

int errorOutputFile()
{
    const int fd = ::memfd_create("quillvane-launch", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0)
        return -1;
    if (::ftruncate(fd, ErrorCapacity) != 0
        || ::fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// The first line the program wrote, written out as text.
QString firstErrorLine(int fd)
{
    if (fd < 0)
        return {};
    char buffer[ErrorCapacity];
    const ssize_t read = ::pread(fd, buffer, sizeof buffer, 0);
    if (read <= 0)
        return {};
    // The file is zeros where nothing was written.
    const char *end =
        std::find_if(buffer, buffer + read, [](char c) { return c == '\0' || c == '\n'; });
    const QString line = QString::fromUtf8(buffer, end - buffer).trimmed();
    return DisplayText::escapeControls(
        line.size() > MaxErrorLineLength ? line.left(MaxErrorLineLength) + u"…"_s : line);
}

// One started program, until its verdict; the child watch keeps it until the
// program ends, whenever that is.
struct EarlyExitWatch
{
    QPromise<ProcessLauncher::Result> promise;
    int errors = -1;
    bool settled = false;

    void settle(const ProcessLauncher::Result &result)
    {
        if (settled)
            return;
        settled = true;
        promise.addResult(result);
        promise.finish();
        if (errors >= 0)
            ::close(errors);
        errors = -1;
    }

    static void childEnded(GPid pid, gint status, gpointer data)
    {
        std::unique_ptr<std::shared_ptr<EarlyExitWatch>> holder(
            static_cast<std::shared_ptr<EarlyExitWatch> *>(data));
        EarlyExitWatch &watch = **holder;
        if (!watch.settled) {
            if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
                watch.settle({});
            } else {
                const QString how = WIFEXITED(status) ? u"status %1"_s.arg(WEXITSTATUS(status))
                                                      : u"signal %1"_s.arg(WTERMSIG(status));
                const QString said = firstErrorLine(watch.errors);
                watch.settle(u"ended right after it started (%1)%2"_s.arg(
                    how, said.isEmpty() ? u"."_s : u": "_s + said));
            }
        }
        g_spawn_close_pid(pid);
    }
};

} // namespace

Expected<ProcessLauncher::Verdict, QString>
GioProcessLauncher::spawn(const QStringList &argv, const QString &workingDirectory,
                          const QString &activationToken)
{
    if (argv.isEmpty() || argv.first().isEmpty())
        return u"There is no program to start."_s;
    // The spawn would report a missing folder as a missing program.
    if (!workingDirectory.isEmpty() && !QFileInfo(workingDirectory).isDir())
        return u"The folder “%1” that the desktop entry starts it in (Path=) does not exist."_s.arg(
            workingDirectory);
    std::vector<QByteArray> storage;
    storage.reserve(size_t(argv.size()));
    std::vector<char *> arguments;
    for (const QString &argument : argv) {
        storage.push_back(argument.toUtf8());
        arguments.push_back(storage.back().data());
    }
    arguments.push_back(nullptr);

    // posix_spawn rather than fork: copying Quillvane's address space to start a
    // browser would cost most of a millisecond of every click. The child gets
    // nothing of Quillvane's but its environment: no open file beyond the three
    // standard ones, output to the null device, errors to the watch's file.
    auto watch = std::make_shared<EarlyExitWatch>();
    watch->errors = errorOutputFile();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    if (watch->errors >= 0)
        posix_spawn_file_actions_adddup2(&actions, watch->errors, STDERR_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    const QByteArray directory = QFile::encodeName(workingDirectory);
    if (!directory.isEmpty())
        posix_spawn_file_actions_addchdir_np(&actions, directory.constData());
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // A session of its own: the browser outlives Quillvane and its terminal.
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    // Handlers are reset by exec anyway; what Quillvane ignores (a broken pipe)
    // would stay ignored in the browser. Those signals only, found once: the
    // child would otherwise make one call per signal before each start.
    static const sigset_t ignored = [] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction action = {};
            if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
                sigaddset(&set, signal);
        }
        return set;
    }();
    posix_spawnattr_setsigdefault(&attributes, &ignored);

    gchar **environment = childEnvironment(activationToken);
    pid_t pid = 0;
    const int error =
        posix_spawnp(&pid, arguments.front(), &actions, &attributes, arguments.data(), environment);
    g_strfreev(environment);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        if (watch->errors >= 0)
            ::close(watch->errors);
        return u"Failed to execute child process “%1” (%2)"_s.arg(
            argv.first(), QString::fromLocal8Bit(std::strerror(error)));
    }
    watch->promise.start();
    Verdict verdict = watch->promise.future();
    // Reaped by the main loop when it ends, whenever that is.
    g_child_watch_add(pid, &EarlyExitWatch::childEnded, new std::shared_ptr<EarlyExitWatch>(watch));
    QTimer::singleShot(EarlyExitMs, QCoreApplication::instance(), [watch] { watch->settle({}); });
    return verdict;
}

QFuture<ProcessLauncher::Result> GioProcessLauncher::activate(const QString &desktopEntryPath,
                                                              const QString &link,
                                                              const QString &activationToken)
{
    GDesktopAppInfo *info =
        g_desktop_app_info_new_from_filename(QFile::encodeName(desktopEntryPath).constData());
    if (!info)
        return QtFuture::makeReadyFuture<ProcessLauncher::Result>(
            u"The desktop entry %1 cannot be read."_s.arg(desktopEntryPath));
    auto *promise = new Promise;
    promise->start();
    QFuture<Result> future = promise->future();
    const QByteArray uri = link.toUtf8();
    GList uris{const_cast<char *>(uri.constData()), nullptr, nullptr};
    GAppLaunchContext *context = launchContext(activationToken);
    g_app_info_launch_uris_async(G_APP_INFO(info), &uris, context, nullptr, activationFinished,
                                 promise);
    g_object_unref(context);
    return future;
}

GioProcessLauncher &GioProcessLauncher::instance()
{
    static GioProcessLauncher launcher;
    return launcher;
}
