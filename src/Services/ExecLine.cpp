#include "Services/ExecLine.h"

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace ExecLine {

namespace {

bool isBlank(QChar c)
{
    return c == u' ' || c == u'\t' || c == u'\n';
}

bool isLinkCode(QStringView argument)
{
    return argument == u"%u" || argument == u"%U" || argument == u"%f" || argument == u"%F";
}

bool isFlatpakMarker(QStringView argument)
{
    return argument == u"@@" || argument == u"@@u";
}

// Expands the field codes inside one argument; codes with no value here vanish.
QString expandedInside(QStringView argument, const DesktopEntry *entry, const QString *link,
                       bool *placedLink = nullptr)
{
    QString result;
    result.reserve(argument.size());
    const bool hasBlank =
        std::any_of(argument.cbegin(), argument.cend(), [](QChar c) { return c.isSpace(); });
    for (qsizetype i = 0; i < argument.size(); ++i) {
        if (argument[i] != u'%' || i + 1 >= argument.size()) {
            result += argument[i];
            continue;
        }
        const QChar code = argument[++i];
        if (code == u'%')
            result += u'%';
        else if (entry && code == u'c')
            result += entry->name.value_or(entry->id);
        else if (entry && code == u'k')
            result += entry->path;
        else if (link && placedLink && !*placedLink && !hasBlank
                 && (code == u'u' || code == u'U' || code == u'f' || code == u'F')) {
            // "--url=%u": once. Inside a quoted phrase with blanks (a shell
            // snippet, which the standard forbids) the code is dropped and the
            // link goes elsewhere as an argument of its own, so no shell ever
            // reads a link.
            result += *link;
            *placedLink = true;
        }
    }
    return result;
}

} // namespace

Expected<QStringList, Error> split(QStringView exec)
{
    QStringList arguments;
    QString current;
    bool inWord = false;
    for (qsizetype i = 0; i < exec.size(); ++i) {
        const QChar c = exec[i];
        if (isBlank(c)) {
            if (inWord)
                arguments.append(std::exchange(current, QString()));
            inWord = false;
            continue;
        }
        inWord = true;
        if (c == u'"') {
            // Inside double quotes a backslash escapes only " ` $ \ (and a line break).
            bool closed = false;
            for (++i; i < exec.size(); ++i) {
                const QChar q = exec[i];
                if (q == u'"') {
                    closed = true;
                    break;
                }
                if (q == u'\\' && i + 1 < exec.size()
                    && QStringView(u"\"`$\\\n").contains(exec[i + 1])) {
                    current += exec[++i];
                    continue;
                }
                current += q;
            }
            if (!closed)
                return Error{u"The Exec line has an unterminated quote."_s};
        } else if (c == u'\'') {
            const qsizetype end = exec.indexOf(u'\'', i + 1);
            if (end < 0)
                return Error{u"The Exec line has an unterminated quote."_s};
            current += exec.sliced(i + 1, end - i - 1);
            i = end;
        } else if (c == u'\\') {
            if (i + 1 < exec.size())
                current += exec[++i];
        } else {
            current += c;
        }
    }
    if (inWord)
        arguments.append(current);
    if (arguments.isEmpty() || arguments.first().isEmpty())
        return Error{u"The Exec line names no program."_s};
    return arguments;
}

QStringList forLink(const QStringList &argv, const DesktopEntry &entry, const QString &link,
                    const QStringList &beforeLink)
{
    QStringList result;
    bool linkPlaced = false;
    // Where the argument that carries the link lands.
    qsizetype linkAt = -1;
    for (const QString &argument : argv) {
        if (isLinkCode(argument)) {
            if (!linkPlaced) {
                linkAt = result.size();
                result.append(link);
            }
            linkPlaced = true;
        } else if (argument == u"%i") {
            if (!entry.icon.isEmpty())
                result << u"--icon"_s << entry.icon;
        } else if (argument.contains(u'%')) {
            const bool before = linkPlaced;
            result.append(expandedInside(argument, &entry, &link, &linkPlaced));
            if (!before && linkPlaced)
                linkAt = result.size() - 1;
        } else {
            result.append(argument);
        }
    }
    if (!linkPlaced) {
        linkAt = result.size();
        result.append(link);
    }
    if (!beforeLink.isEmpty()) {
        // Flatpak forwards what stands between its markers as files: options
        // go before them, to the browser itself.
        while (linkAt > 0 && isFlatpakMarker(result[linkAt - 1]))
            --linkAt;
        for (qsizetype i = 0; i < beforeLink.size(); ++i)
            result.insert(linkAt + i, beforeLink[i]);
    }
    return result;
}

std::optional<QString> linkRunsAsCode(const QStringList &command, const QString &link,
                                      const QString &entryPath)
{
    static const QStringList shells{u"sh"_s,   u"bash"_s, u"dash"_s, u"zsh"_s,  u"ksh"_s,
                                    u"mksh"_s, u"fish"_s, u"csh"_s,  u"tcsh"_s, u"busybox"_s};
    static const QStringList evaluators{u"perl"_s, u"ruby"_s, u"node"_s, u"nodejs"_s};
    qsizetype i = 0;
    // env, its options and assignments come before the program.
    while (i < command.size()
           && (QStringView(command[i]).endsWith(u"/env") || command[i] == u"env"
               || command[i].startsWith(u'-')
               || (command[i].contains(u'=') && !command[i].startsWith(u'-'))))
        ++i;
    if (i >= command.size())
        return std::nullopt;
    QString program = command[i].section(u'/', -1);
    if (program == u"busybox" && i + 1 < command.size())
        program = command[++i];
    QChar codeOption;
    if (shells.contains(program) || program.startsWith(u"python"))
        codeOption = u'c';
    else if (std::any_of(evaluators.cbegin(), evaluators.cend(),
                         [&program](const QString &name) { return program.startsWith(name); }))
        codeOption = u'e';
    else
        return std::nullopt;
    bool codeNext = false;
    for (++i; i < command.size(); ++i) {
        const QString &argument = command[i];
        // Shell options that take a value ("-o posix").
        if (!codeNext && (argument == u"-o" || argument == u"+o" || argument == u"-O")) {
            ++i;
            continue;
        }
        if (!codeNext && argument.startsWith(u'-') && argument.size() > 1 && argument != u"--") {
            codeNext = !argument.startsWith(u"--") && argument.contains(codeOption);
            continue;
        }
        // The first operand is the code when the option asked for it; a link
        // there, or glued into it, would run.
        if (codeNext && argument.contains(link))
            return u"Quillvane does not start %1: its Exec line gives the link to %2 as a command "
                   "to run, and a link could then run anything."_s.arg(entryPath, program);
        break;
    }
    return std::nullopt;
}

Expected<QStringList, Error> splitExtraArguments(QStringView text)
{
    if (text.trimmed().isEmpty())
        return QStringList();
    // split() wants a program first; the arguments alone are all there is.
    const auto arguments = split(QString(u"x "_s + text));
    if (!arguments)
        return Error{QString(arguments.error().description)
                         .replace(u"The Exec line has"_s, u"The extra arguments have"_s)};
    QStringList result;
    for (const QString &argument : arguments->mid(1)) {
        QString unescaped;
        for (qsizetype i = 0; i < argument.size(); ++i) {
            if (argument[i] != u'%' || i + 1 == argument.size()) {
                unescaped += argument[i];
            } else if (argument[++i] == u'%') {
                unescaped += u'%';
            } else {
                return Error{
                    u"“%1” holds the field code %%2: extra arguments cannot place the link or a file. Write %% for a percent sign."_s
                        .arg(argument, argument[i])};
            }
        }
        result.append(unescaped);
    }
    return result;
}

QStringList withoutFieldCodes(const QStringList &argv)
{
    QStringList result;
    for (const QString &argument : argv) {
        if (isFlatpakMarker(argument))
            continue;
        if (argument.size() == 2 && argument[0] == u'%' && argument[1] != u'%')
            continue;
        result.append(argument.contains(u'%') ? expandedInside(argument, nullptr, nullptr)
                                              : argument);
    }
    return result;
}

} // namespace ExecLine
