#include "Models/Command.h"

using namespace Qt::Literals::StringLiterals;

int CommandOutput::fail(const QString &message, int code) const
{
    err << "quillvane: " << message << '\n';
    err.flush();
    return code;
}

int CommandOutput::succeed(const QString &answer) const
{
    out << answer << '\n';
    out.flush();
    return Success;
}

QString Command::usage() const
{
    return u"Usage: quillvane %1\n\n%2"_s.arg(synopsis, help);
}

Expected<CommandArguments, QString> Command::parse(const QStringList &arguments) const
{
    CommandArguments parsed;
    bool positionalOnly = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (positionalOnly || !argument.startsWith(u'-') || argument == u"-") {
            parsed.positional.append(argument);
            continue;
        }
        if (argument == u"--") {
            positionalOnly = true;
            continue;
        }
        if (argument == u"--help" || argument == u"-h") {
            parsed.help = true;
            continue;
        }
        const qsizetype equals = argument.indexOf(u'=');
        const QString option = equals < 0 ? argument : argument.first(equals);
        if (flagOptions.contains(option) && equals < 0) {
            parsed.flags.append(option);
            continue;
        }
        if (!valueOptions.contains(option))
            return u"\"%1\" is not an option of \"quillvane %2\"."_s.arg(argument.left(80), name);
        if (parsed.values.contains(option))
            return u"%1 is given twice."_s.arg(option);
        if (equals >= 0)
            parsed.values.insert(option, argument.sliced(equals + 1));
        else if (i + 1 < arguments.size())
            parsed.values.insert(option, arguments[++i]);
        else
            return u"%1 needs a value."_s.arg(option);
    }
    if (parsed.help)
        return parsed;
    if (parsed.positional.size() < minPositional)
        return u"\"quillvane %1\" needs %2."_s.arg(name, positionalNames);
    if (parsed.positional.size() > maxPositional)
        return u"\"quillvane %1\" takes %2, not \"%3\"."_s.arg(
            name, maxPositional == 0 ? u"no further arguments"_s : positionalNames,
            parsed.positional.value(maxPositional).left(80));
    return parsed;
}

int Command::operator()(const QStringList &arguments, const CommandOutput &output) const
{
    const auto parsed = parse(arguments);
    if (!parsed) {
        output.err << "quillvane: " << parsed.error() << "\n\n" << usage();
        output.err.flush();
        return BadUsage;
    }
    if (parsed->help) {
        output.out << usage();
        output.out.flush();
        return Success;
    }
    return run(*parsed, output);
}
