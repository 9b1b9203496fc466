#include "Platform/SystemLog.h"

#include "Models/DisplayText.h"

#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

using namespace Qt::Literals::StringLiterals;

namespace SystemLog {

namespace {

std::atomic<int> g_showPrivate{-1};
bool g_toJournal = false;

constexpr const char CategoryPrefix[] = "work.vorpa.Quillvane.";

int priorityOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return LOG_DEBUG;
    case QtInfoMsg:
        return LOG_INFO;
    case QtWarningMsg:
        return LOG_WARNING;
    case QtCriticalMsg:
        return LOG_ERR;
    case QtFatalMsg:
        return LOG_CRIT;
    }
    return LOG_INFO;
}

const char *levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "debug";
    case QtInfoMsg:
        return "info";
    case QtWarningMsg:
        return "warning";
    case QtCriticalMsg:
        return "error";
    case QtFatalMsg:
        return "fatal";
    }
    return "info";
}

QByteArray shortCategory(const char *category)
{
    if (!category)
        return QByteArrayLiteral("default");
    const size_t prefixLength = sizeof(CategoryPrefix) - 1;
    if (std::strncmp(category, CategoryPrefix, prefixLength) == 0)
        return QByteArray(category + prefixLength);
    return QByteArray(category);
}

void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (g_toJournal) {
        const QByteArray text = DisplayText::escapeControls(message).toUtf8();
        const int sent =
            sd_journal_send("MESSAGE=%s", text.constData(), "PRIORITY=%i", priorityOf(type),
                            "SYSLOG_IDENTIFIER=quillvane", "QUILLVANE_CATEGORY=%s",
                            shortCategory(context.category).constData(), nullptr);
        if (sent >= 0)
            return;
    }
    const QByteArray line = formatForStderr(type, context.category, message).toUtf8();
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    std::fflush(stderr);
}

bool showPrivate()
{
    int show = g_showPrivate.load(std::memory_order_relaxed);
    if (show < 0) {
        show = qEnvironmentVariableIntValue("QUILLVANE_LOG_PRIVATE") == 1 ? 1 : 0;
        g_showPrivate.store(show, std::memory_order_relaxed);
    }
    return show;
}

} // namespace

QString priv(const QString &value)
{
    return showPrivate() ? value : u"<private>"_s;
}

QString link(const Link &url)
{
    if (showPrivate())
        return url.toString();
    QString text = url.scheme() + u':';
    if (url.hasHost()) {
        const QString host = url.host();
        text += u"//"_s + (url.userInfo().isEmpty() ? QString() : u"…@"_s)
                + (host.contains(u':') ? u'[' + host + u']' : host)
                + (url.port() ? u':' + QString::number(*url.port()) : QString());
    }
    return text + url.path() + (url.query() ? u"?…"_s : QString())
           + (url.fragment() ? u"#…"_s : QString());
}

QString withLink(const QString &text, const Link &url)
{
    const QString whole = url.toString();
    return whole.isEmpty() ? text : QString(text).replace(whole, link(url));
}

void setShowPrivate(bool show)
{
    g_showPrivate.store(show ? 1 : 0, std::memory_order_relaxed);
}

bool stderrIsJournal()
{
    const QByteArray stream = qgetenv("JOURNAL_STREAM");
    const qsizetype colon = stream.indexOf(':');
    if (colon <= 0)
        return false;
    bool devOk = false;
    bool inodeOk = false;
    const qulonglong device = stream.left(colon).toULongLong(&devOk);
    const qulonglong inode = stream.mid(colon + 1).toULongLong(&inodeOk);
    struct stat info = {};
    if (!devOk || !inodeOk || ::fstat(STDERR_FILENO, &info) != 0)
        return false;
    return qulonglong(info.st_dev) == device && qulonglong(info.st_ino) == inode;
}

QString formatForStderr(QtMsgType type, const char *category, const QString &message)
{
    return u"quillvane[%1] %2: %3\n"_s.arg(QString::fromUtf8(shortCategory(category)),
                                           QLatin1StringView(levelName(type)),
                                           DisplayText::escapeControls(message));
}

void install()
{
    g_toJournal = stderrIsJournal();
    qInstallMessageHandler(handler);
}

} // namespace SystemLog
