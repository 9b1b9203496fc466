#include "Services/ExecLine.h"

#include <QRegularExpression>

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
        // Flatpak forwards what stands between its markers as files, and after
        // "--" an option is an operand: options go before both, to the browser.
        while (linkAt > 0 && (isFlatpakMarker(result[linkAt - 1]) || result[linkAt - 1] == u"--"))
            --linkAt;
        for (qsizetype i = 0; i < beforeLink.size(); ++i)
            result.insert(linkAt + i, beforeLink[i]);
    }
    return result;
}

namespace {

// Programs that only run the rest of their command line, with the options that
// take a value of their own (as letters, and as long names): what follows them
// is the program that gets the link.
struct Wrapper
{
    QStringView name;
    QStringView valueLetters;
    std::initializer_list<QStringView> valueNames;
    // Operands before the program (timeout's duration).
    int operands = 0;
};

const Wrapper Wrappers[] = {
    {u"env", u"uCS", {u"--unset", u"--chdir", u"--split-string"}},
    {u"nohup", u"", {}},
    {u"setsid", u"", {}},
    {u"nice", u"n", {u"--adjustment"}},
    {u"ionice", u"cnpPu", {u"--class", u"--classdata", u"--pid", u"--pgid", u"--uid"}},
    {u"stdbuf", u"ioe", {u"--input", u"--output", u"--error"}},
    {u"timeout", u"sk", {u"--signal", u"--kill-after"}, 1},
    {u"flatpak-spawn",
     u"",
     {u"--env", u"--unset-env", u"--forward-fd", u"--directory", u"--sandbox-expose",
      u"--sandbox-expose-ro", u"--sandbox-expose-path", u"--sandbox-expose-path-ro",
      u"--sandbox-flag", u"--app-path", u"--usr-path"}},
};

// Interpreters that run code given on their command line. For a shell the code
// is the first operand after -c; for the others it is the value of the option.
struct Interpreter
{
    QStringView name;
    bool namePrefix; // python3.11, perl5.36
    QStringView codeLetters;
    std::initializer_list<QStringView> codeNames;
    QStringView valueLetters;
    std::initializer_list<QStringView> valueNames;
    bool shell;
};

const Interpreter Interpreters[] = {
    {u"sh", false, u"c", {}, u"oO", {u"--rcfile", u"--init-file"}, true},
    {u"bash", false, u"c", {}, u"oO", {u"--rcfile", u"--init-file"}, true},
    {u"dash", false, u"c", {}, u"oO", {}, true},
    {u"ash", false, u"c", {}, u"oO", {}, true},
    {u"zsh", false, u"c", {}, u"oO", {}, true},
    {u"ksh", false, u"c", {}, u"oO", {}, true},
    {u"mksh", false, u"c", {}, u"oO", {}, true},
    {u"yash", false, u"c", {}, u"oO", {}, true},
    {u"posh", false, u"c", {}, u"oO", {}, true},
    {u"csh", false, u"c", {}, u"", {}, true},
    {u"tcsh", false, u"c", {}, u"", {}, true},
    {u"fish", false, u"c", {u"--command"}, u"C", {u"--init-command"}, false},
    {u"python", true, u"c", {}, u"WXm", {}, false},
    {u"perl", true, u"eE", {}, u"", {}, false},
    {u"ruby", true, u"e", {}, u"Ir", {}, false},
    {u"node", false, u"ep", {u"--eval", u"--print"}, u"r", {u"--require"}, false},
    {u"nodejs", false, u"ep", {u"--eval", u"--print"}, u"r", {u"--require"}, false},
    {u"php", true, u"r", {}, u"cdz", {}, false},
    {u"lua", true, u"e", {}, u"l", {}, false},
};

QString programName(const QString &argument)
{
    return argument.section(u'/', -1);
}

bool isAssignment(const QString &argument)
{
    const qsizetype equals = argument.indexOf(u'=');
    return equals > 0 && !argument.startsWith(u'-');
}

bool contains(std::initializer_list<QStringView> names, QStringView name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The words of env's -S string, split as env splits them (quotes, backslashes).
QStringList splitString(const QString &text)
{
    if (text.trimmed().isEmpty())
        return {};
    const auto words = split(QString(u"x "_s + text));
    return words ? words->mid(1) : QStringList{text};
}

// The command without the wrappers in front of the program that gets the link.
QStringList unwrapped(QStringList command)
{
    for (int depth = 0; depth < 32 && !command.isEmpty(); ++depth) {
        const QString name = programName(command.first());
        const auto wrapper = std::find_if(std::begin(Wrappers), std::end(Wrappers),
                                          [&name](const Wrapper &w) { return w.name == name; });
        if (wrapper == std::end(Wrappers))
            return command;
        const bool env = name == u"env";
        int operands = wrapper->operands;
        qsizetype i = 1;
        while (i < command.size()) {
            const QString argument = command[i];
            if (argument == u"--") {
                ++i;
                break;
            }
            if (argument.startsWith(u"--")) {
                const QString option = argument.section(u'=', 0, 0);
                const bool glued = argument.contains(u'=');
                const bool takesValue = contains(wrapper->valueNames, option);
                if (env && option == u"--split-string") {
                    const QString value = glued ? argument.section(u'=', 1) : command.value(i + 1);
                    command.remove(i, glued ? 1 : std::min<qsizetype>(2, command.size() - i));
                    const QStringList words = splitString(value);
                    for (qsizetype w = 0; w < words.size(); ++w)
                        command.insert(i + w, words[w]);
                    continue;
                }
                i += takesValue && !glued ? 2 : 1;
                continue;
            }
            if (argument.startsWith(u'-') && argument.size() > 1) {
                qsizetype next = i + 1;
                for (qsizetype k = 1; k < argument.size(); ++k) {
                    if (!wrapper->valueLetters.contains(argument[k]))
                        continue;
                    const bool glued = k + 1 < argument.size();
                    const QString value = glued ? argument.mid(k + 1) : command.value(i + 1);
                    if (env && argument[k] == u'S') {
                        // The split words take the option's place, and are read as env's own.
                        command.remove(i, glued ? 1 : std::min<qsizetype>(2, command.size() - i));
                        const QStringList words = splitString(value);
                        for (qsizetype w = 0; w < words.size(); ++w)
                            command.insert(i + w, words[w]);
                        next = i;
                    } else {
                        next = glued ? i + 1 : i + 2;
                    }
                    break;
                }
                i = next;
                continue;
            }
            if (env && isAssignment(argument)) {
                ++i;
                continue;
            }
            if (operands > 0) {
                --operands;
                ++i;
                continue;
            }
            break;
        }
        command = command.mid(i);
    }
    return command;
}

// Whether a script hands its arguments on to be run as code: eval, source,
// another interpreter, or anything that runs text as a command.
bool evaluatesArguments(const QString &script)
{
    static const QRegularExpression evaluating(
        uR"((\b(eval|source|system|popen|subprocess|qx|exec\s*\(|xargs|sh|bash|dash|ash|zsh|ksh|mksh|yash|csh|tcsh|fish|busybox|python[0-9.]*|perl[0-9.]*|ruby|node|nodejs|php|lua)\b)|`|(^|[\s;&|(){])\.\s)"_s);
    return evaluating.match(script).hasMatch();
}

// Whether the interpreter at command[at] gets the link as code: in its code, as
// the script it reads, or as an argument of code that runs its arguments.
bool runsLink(const QStringList &command, qsizetype at, const Interpreter &interpreter,
              const QString &link)
{
    bool codeOption = false;
    bool fromInput = false; // -s: the script is its standard input, the operands are data
    std::optional<QString> code;
    qsizetype i = at + 1;
    for (; i < command.size(); ++i) {
        const QString &argument = command[i];
        if (argument == u"--") {
            ++i;
            break;
        }
        if (argument.startsWith(u"--")) {
            const QString option = argument.section(u'=', 0, 0);
            const bool glued = argument.contains(u'=');
            if (contains(interpreter.codeNames, option)) {
                code = glued ? argument.section(u'=', 1) : command.value(++i);
                codeOption = true;
            } else if (contains(interpreter.valueNames, option) && !glued) {
                ++i;
            }
            continue;
        }
        if ((argument.startsWith(u'-') || (interpreter.shell && argument.startsWith(u'+')))
            && argument.size() > 1) {
            for (qsizetype k = 1; k < argument.size(); ++k) {
                const QChar letter = argument[k];
                if (interpreter.shell && letter == u's')
                    fromInput = true;
                if (interpreter.codeLetters.contains(letter)) {
                    codeOption = true;
                    if (interpreter.shell)
                        continue;
                    code = k + 1 < argument.size() ? argument.mid(k + 1) : command.value(++i);
                    break;
                }
                if (interpreter.valueLetters.contains(letter)) {
                    if (k + 1 == argument.size())
                        ++i;
                    break;
                }
            }
            if (code && code->contains(link))
                return true;
            continue;
        }
        break;
    }
    QStringList operands = command.mid(i);
    if (interpreter.shell && codeOption) {
        // No operand: the link appended at the end would be the command.
        if (operands.isEmpty())
            return true;
        code = operands.takeFirst();
    }
    if (code && code->contains(link))
        return true;
    const bool linkIsOperand = std::any_of(operands.cbegin(), operands.cend(),
                                           [&link](const QString &a) { return a.contains(link); });
    if (!linkIsOperand)
        return false;
    if (code)
        return evaluatesArguments(*code);
    // No code given: the first operand is the script to read, unless it is the input.
    return !fromInput && !operands.isEmpty() && operands.first().contains(link);
}

} // namespace

std::optional<QString> linkRunsAsCode(const QStringList &command, const QString &link,
                                      const QString &entryPath)
{
    const QStringList program = unwrapped(command);
    // The first interpreter decides, wherever it stands: a wrapper Quillvane
    // does not know (sudo, firejail) must not hide a shell behind it. What
    // follows it is its own arguments ("sh" as a script's $0 among them).
    // Further in, a shell's name counts as the program only with options after
    // it: "--profile sh" names a profile.
    for (qsizetype at = 0; at < program.size(); ++at) {
        if (at > 0 && !program.value(at + 1).startsWith(u'-'))
            continue;
        QString name = programName(program[at]);
        qsizetype from = at;
        if (name == u"busybox" && at + 1 < program.size())
            name = programName(program[from = at + 1]);
        const auto interpreter = std::find_if(
            std::begin(Interpreters), std::end(Interpreters), [&name](const Interpreter &known) {
                return known.namePrefix ? name.startsWith(known.name) : name == known.name;
            });
        if (interpreter == std::end(Interpreters))
            continue;
        if (!runsLink(program, from, *interpreter, link))
            return std::nullopt;
        return u"Quillvane does not start %1: its Exec line gives the link to %2 as a command "
               "to run, and a link could then run anything."_s.arg(entryPath, name);
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

} // namespace ExecLine
