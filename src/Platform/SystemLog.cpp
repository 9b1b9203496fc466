#include "Platform/SystemLog.h"

#include "Models/DisplayText.h"

#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
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

bool showPrivate();

// Where a link written in running text ends: at a blank, a quote or a bracket
// that text puts around it, or a control character.
bool endsLink(QChar c)
{
    return c.isSpace() || c.unicode() < 0x20 || QStringView(u"\"'<>`“”‘’«»").contains(c);
}

bool isSchemeCharacter(QChar c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9')
           || c == u'+' || c == u'-' || c == u'.';
}

// What a record says, as the system log may keep it.
QString recordText(const QString &message)
{
    return DisplayText::escapeControls(showPrivate() ? message : withLinksNamed(message));
}

void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (g_toJournal) {
        const QByteArray text = recordText(message).toUtf8();
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

QString withLinksNamed(QStringView text)
{
    QString result;
    qsizetype copied = 0;
    qsizetype from = 0;
    while (true) {
        const qsizetype marker = text.indexOf(u"://", from);
        if (marker < 0)
            break;
        qsizetype start = marker;
        while (start > 0 && isSchemeCharacter(text[start - 1]))
            --start;
        while (start < marker && !text[start].isLetter())
            ++start;
        // "(https://…)": the bracket closes the text's, not the link's.
        const bool bracketed = start > 0 && text[start - 1] == u'(';
        qsizetype end = marker + 3;
        while (end < text.size() && !endsLink(text[end]) && !(bracketed && text[end] == u')'))
            ++end;
        from = end;
        if (start == marker)
            continue;
        // scheme://[user@]host[:port]path[?query][#fragment], the secrets left out.
        const QStringView whole = text.sliced(start, end - start);
        const qsizetype authorityStart = marker + 3 - start;
        qsizetype authorityEnd = authorityStart;
        while (authorityEnd < whole.size() && !QStringView(u"/?#").contains(whole[authorityEnd]))
            ++authorityEnd;
        const QStringView authority = whole.sliced(authorityStart, authorityEnd - authorityStart);
        const qsizetype at = authority.lastIndexOf(u'@');
        const QStringView rest = whole.sliced(authorityEnd);
        const qsizetype query = rest.indexOf(u'?');
        const qsizetype fragment = rest.indexOf(u'#');
        const qsizetype pathEnd = std::min(query >= 0 ? query : rest.size(),
                                           fragment >= 0 ? fragment : rest.size());
        result += text.sliced(copied, start - copied);
        result += whole.first(authorityStart);
        result += at >= 0 ? u"…@"_s + authority.sliced(at + 1) : authority.toString();
        result += rest.first(pathEnd);
        if (query >= 0 && (fragment < 0 || query < fragment))
            result += u"?…"_s;
        if (fragment >= 0)
            result += u"#…"_s;
        copied = end;
    }
    if (copied == 0)
        return text.toString();
    return result + text.sliced(copied);
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
                                           recordText(message));
}

void install()
{
    g_toJournal = stderrIsJournal();
    qInstallMessageHandler(handler);
}

} // namespace SystemLog
