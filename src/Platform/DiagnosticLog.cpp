#include "Platform/DiagnosticLog.h"

#include "Models/DisplayText.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

using namespace Qt::Literals::StringLiterals;

namespace DiagnosticLog {

namespace {

std::atomic<bool> g_enabled{true};

// The trail, opened for appending; -1 when it is not a regular file of ours.
// O_NOFOLLOW and the owner check keep a symlink or a file planted by another
// user (in /tmp) from receiving the user's links; O_NONBLOCK keeps a FIFO put
// in its place from stopping Quillvane in open() (without a reader it fails,
// with one it is no regular file).
int openTrail(const QByteArray &path, struct stat &info)
{
    const int fd =
        ::open(path.constData(),
               O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
               S_IRUSR | S_IWUSR);
    if (fd < 0)
        return -1;
    // A second name for the file (a hard link made in /tmp) would let the
    // user's links reach wherever that name is read.
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid()
        || info.st_nlink != 1) {
        ::close(fd);
        return -1;
    }
    return fd;
}

void writeNow(const QByteArray &bytes)
{
    const QByteArray path = QFile::encodeName(filePath());
    struct stat info = {};
    int fd = openTrail(path, info);
    if (fd >= 0 && info.st_size > 0 && info.st_size + bytes.size() > MaxFileBytes) {
        if (::rename(path.constData(), QByteArray(path + ".old").constData()) == 0) {
            ::close(fd);
            fd = openTrail(path, info);
        } else {
            // Another user's "<file>.old" in /tmp cannot be replaced: start afresh.
            (void)::ftruncate(fd, 0);
        }
    }
    if (fd < 0)
        return;
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        (void)::fchmod(fd, S_IRUSR | S_IWUSR);
    const char *data = bytes.constData();
    qsizetype remaining = bytes.size();
    while (remaining > 0) {
        const ssize_t written = ::write(fd, data, size_t(remaining));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        data += written;
        remaining -= written;
    }
    ::close(fd);
}

// Lines written on the main thread while its event loop runs wait, in order,
// until the loop has nothing more urgent to do: each write costs an open, a
// check and a close, and a link's eight lines must not delay its browser's
// start. Elsewhere (the command line, another thread, before the loop runs)
// they are written at once. Only the main thread touches what waits.
QByteArray g_pending;
bool g_flushArmed = false;

bool deferring()
{
    const QCoreApplication *application = QCoreApplication::instance();
    return application && QThread::currentThread() == application->thread()
           && QThread::currentThread()->loopLevel() > 0;
}

void appendToFile(const QByteArray &bytes)
{
    if (!deferring()) {
        if (QCoreApplication::instance()
            && QThread::currentThread() == QCoreApplication::instance()->thread())
            flush();
        writeNow(bytes);
        return;
    }
    g_pending += bytes;
    if (std::exchange(g_flushArmed, true))
        return;
    static const bool atExit = [] {
        qAddPostRoutine(&flush);
        return true;
    }();
    Q_UNUSED(atExit);
    QTimer::singleShot(0, QCoreApplication::instance(), &flush);
}

// The message, cut to MaxLineLength characters, with every control character
// written out: each message is one line of the trail, so a line break in it
// (from a link, a name or a browser's output) could only forge another.
QString fitted(QStringView raw)
{
    const QString shown = DisplayText::escapeControls(raw);
    const QStringView message = shown;
    if (message.size() <= MaxLineLength)
        return shown;
    qsizetype kept = MaxLineLength;
    if (message[kept - 1].isHighSurrogate())
        --kept; // not half a character
    return message.first(kept) + u" … [cut: %1 more characters]"_s.arg(message.size() - kept);
}

QString prefix(QStringView tag)
{
    QString text = u'[' + QDateTime::currentDateTimeUtc().toString(Qt::ISODate) + u"] ";
    if (!tag.isEmpty())
        text += u'[' + tag + u"] ";
    return text;
}

} // namespace

// A file of Quillvane's own in the runtime folder, made anew: whatever stood in
// its place (a link to another file, a FIFO) goes, and the new file is created,
// never opened, so nothing is written through a link put there meanwhile.
QString writeRuntimeFile(const QString &path, const QByteArray &contents)
{
    const QByteArray name = QFile::encodeName(path);
    if (::unlink(name.constData()) != 0 && errno != ENOENT)
        return QString::fromLocal8Bit(std::strerror(errno));
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          S_IRUSR | S_IWUSR);
    if (fd < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const bool written = ::write(fd, contents.constData(), size_t(contents.size()))
                         == ssize_t(contents.size());
    const int saved = errno;
    ::close(fd);
    return written ? QString() : QString::fromLocal8Bit(std::strerror(saved));
}

void flush()
{
    g_flushArmed = false;
    if (!g_pending.isEmpty())
        writeNow(std::exchange(g_pending, QByteArray()));
}

QString filePath()
{
    const QString runtimeDir = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtimeDir.isEmpty())
        return runtimeDir + u"/Quillvane.log";
    return u"/tmp/Quillvane-%1.log"_s.arg(::getuid());
}

bool isEnabled()
{
    return g_enabled.load(std::memory_order_relaxed);
}

void setEnabled(bool enabled)
{
    g_enabled.store(enabled, std::memory_order_relaxed);
}

void write(QStringView tag, QStringView message)
{
    if (isEnabled())
        appendToFile((prefix(tag) + fitted(message) + u'\n').toUtf8());
}

void writeLines(QStringView tag, const QStringList &messages)
{
    if (!isEnabled() || messages.isEmpty())
        return;
    const QString linePrefix = prefix(tag);
    QString text;
    for (const QString &message : messages)
        text += linePrefix + fitted(message) + u'\n';
    appendToFile(text.toUtf8());
}

} // namespace DiagnosticLog
