#include "Platform/DiagnosticLog.h"

#include <QDateTime>
#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

using namespace Qt::Literals::StringLiterals;

namespace DiagnosticLog {

namespace {

std::atomic<bool> g_enabled{true};
Redirect *g_redirect = nullptr;
Redirect::Receiver *g_receiver = nullptr;

// Appends bytes to the trail. O_NOFOLLOW and the owner check keep a symlink or a
// file planted by another user (in /tmp) from receiving the user's links.
void appendToFile(const QByteArray &bytes)
{
    const QByteArray path = QFile::encodeName(filePath());
    const int fd =
        ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY,
               S_IRUSR | S_IWUSR);
    if (fd < 0)
        return;
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid()) {
        ::close(fd);
        return;
    }
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

QString prefix(QStringView tag)
{
    QString text = u'[' + QDateTime::currentDateTimeUtc().toString(Qt::ISODate) + u"] ";
    if (!tag.isEmpty())
        text += u'[' + tag + u"] ";
    return text;
}

} // namespace

QString filePath()
{
    const QString runtimeDir = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtimeDir.isEmpty())
        return runtimeDir + u"/Quillvane.log";
    return u"/tmp/Quillvane-%1.log"_s.arg(::getuid());
}

bool isEnabled()
{
    return g_receiver != nullptr || g_enabled.load(std::memory_order_relaxed);
}

void setEnabled(bool enabled)
{
    g_enabled.store(enabled, std::memory_order_relaxed);
}

QString formatLine(QStringView tag, QStringView message)
{
    return prefix(tag) + message;
}

void write(QStringView tag, QStringView message)
{
    if (g_receiver) {
        (*g_receiver)(tag, message);
        return;
    }
    if (!g_enabled.load(std::memory_order_relaxed))
        return;
    appendToFile((prefix(tag) + message + u'\n').toUtf8());
}

void writeLines(QStringView tag, const QStringList &messages)
{
    if (g_receiver) {
        for (const QString &message : messages)
            (*g_receiver)(tag, message);
        return;
    }
    if (!g_enabled.load(std::memory_order_relaxed) || messages.isEmpty())
        return;
    const QString linePrefix = prefix(tag);
    QString text;
    for (const QString &message : messages)
        text += linePrefix + message + u'\n';
    appendToFile(text.toUtf8());
}

Redirect::Redirect(Receiver receiver)
    : m_receiver(std::move(receiver))
    , m_previous(g_redirect)
{
    g_redirect = this;
    g_receiver = &m_receiver;
}

Redirect::~Redirect()
{
    g_redirect = m_previous;
    g_receiver = m_previous ? &m_previous->m_receiver : nullptr;
}

} // namespace DiagnosticLog
