#include "App/AutomationCommands.h"

#include "Automation/AutomationClient.h"
#include "Models/Link.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace Automation;

namespace AutomationCommands {

namespace {

struct Arguments
{
    QStringList positional;
    QHash<QString, QString> values;
    QStringList flags;
    bool help = false;
};

struct Command
{
    QString name;
    QString synopsis;
    QString help;
    QStringList valueOptions;
    QStringList flagOptions;
    qsizetype minPositional = 0;
    qsizetype maxPositional = 0;
    QString positionalNames;
    std::function<int(const Arguments &, const Environment &, AutomationClient &)> run;
};

Expected<Arguments, QString> parse(const QStringList &arguments, const Command &command)
{
    Arguments parsed;
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
        const QString name = equals < 0 ? argument : argument.first(equals);
        if (command.flagOptions.contains(name) && equals < 0) {
            parsed.flags.append(name);
            continue;
        }
        if (!command.valueOptions.contains(name))
            return u"\"%1\" is not an option of \"quillvane %2\"."_s.arg(argument.left(80),
                                                                         command.name);
        if (parsed.values.contains(name))
            return u"%1 is given twice."_s.arg(name);
        if (equals >= 0) {
            parsed.values.insert(name, argument.sliced(equals + 1));
        } else if (i + 1 < arguments.size()) {
            parsed.values.insert(name, arguments[++i]);
        } else {
            return u"%1 needs a value."_s.arg(name);
        }
    }
    if (parsed.help)
        return parsed;
    if (parsed.positional.size() < command.minPositional)
        return u"\"quillvane %1\" needs %2."_s.arg(command.name, command.positionalNames);
    if (parsed.positional.size() > command.maxPositional)
        return u"\"quillvane %1\" takes %2, not \"%3\"."_s.arg(
            command.name,
            command.maxPositional == 0 ? u"no further arguments"_s : command.positionalNames,
            parsed.positional.value(command.maxPositional).left(80));
    return parsed;
}

int fail(const Environment &environment, const QString &message, int code = Failed)
{
    environment.err << "quillvane: " << message << '\n';
    environment.err.flush();
    return code;
}

int succeed(const Environment &environment, const QString &answer)
{
    environment.out << answer << '\n';
    environment.out.flush();
    return Success;
}

template<typename T>
int failure(const Environment &environment, const Expected<T, AutomationClient::Failure> &result)
{
    return fail(environment, result.error().message);
}

// The browser the id names, as Quillvane lists it.
Expected<BrowserEntity, QString> resolveBrowser(AutomationClient &client, const QString &id)
{
    if (id.isEmpty())
        return u"the browser id is empty; \"quillvane browsers\" lists the installed browsers."_s;
    const auto found = client.browsers({id});
    if (!found)
        return found.error().message;
    if (found->isEmpty())
        return u"no installed browser has the id \"%1\"; \"quillvane browsers\" lists them."_s.arg(
            id.left(200));
    return found->first();
}

void printJson(const Environment &environment, const QJsonArray &array)
{
    environment.out << QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Indented));
    environment.out.flush();
}

// Two columns, the first padded to its widest entry.
void printTable(const Environment &environment, const QList<std::pair<QString, QString>> &rows)
{
    qsizetype width = 0;
    for (const auto &row : rows)
        width = std::max(width, row.first.size());
    for (const auto &row : rows)
        environment.out << row.first.leftJustified(width) << "  " << row.second << '\n';
    environment.out.flush();
}

// A list as two columns, id first, or as a JSON array of objects with the
// same two members.
template<typename Entity>
int printList(const Arguments &arguments, const Environment &environment,
              const AutomationClient::Result<QList<Entity>> &list, QString Entity::*second,
              const QString &secondName, const char *emptyText)
{
    if (!list)
        return failure(environment, list);
    if (arguments.flags.contains(u"--json"_s)) {
        QJsonArray array;
        for (const Entity &entity : *list)
            array.append(QJsonObject{{u"id"_s, entity.id}, {secondName, entity.*second}});
        printJson(environment, array);
        return Success;
    }
    if (list->isEmpty()) {
        environment.err << emptyText << '\n';
        environment.err.flush();
        return Success;
    }
    QList<std::pair<QString, QString>> rows;
    for (const Entity &entity : *list)
        rows.append({entity.id, entity.*second});
    printTable(environment, rows);
    return Success;
}

int listBrowsers(const Arguments &arguments, const Environment &environment,
                 AutomationClient &client)
{
    return printList(arguments, environment, client.listBrowsers(), &BrowserEntity::name, u"name"_s,
                     "No browsers are installed.");
}

int listRules(const Arguments &arguments, const Environment &environment, AutomationClient &client)
{
    return printList(arguments, environment, client.listRules(), &RuleEntity::summary, u"summary"_s,
                     "No rules yet.");
}

int route(const Arguments &arguments, const Environment &environment, AutomationClient &client)
{
    const QString &url = arguments.positional.first();
    // Checked here too, so that a mistyped link is explained even when
    // Quillvane is not running.
    const auto link = Link::parseWebLink(url);
    if (!link)
        return fail(environment, u"%1: %2"_s.arg(url.left(200), link.error().description),
                    BadUsage);
    AutomationClient::Result<QString> answer = QString();
    if (arguments.values.contains(u"--browser"_s)) {
        const auto browser = resolveBrowser(client, arguments.values.value(u"--browser"_s));
        if (!browser)
            return fail(environment, browser.error());
        answer = client.routeURL(url, *browser);
    } else {
        answer = client.routeURL(url);
    }
    if (!answer)
        return failure(environment, answer);
    return succeed(environment, *answer);
}

int addRule(const Arguments &arguments, const Environment &environment, AutomationClient &client)
{
    if (!arguments.values.contains(u"--browser"_s))
        return fail(
            environment,
            u"which browser? Give it with --browser ID (\"quillvane browsers\" lists them)."_s,
            BadUsage);
    const auto browser = resolveBrowser(client, arguments.values.value(u"--browser"_s));
    if (!browser)
        return fail(environment, browser.error());
    QVariantMap options;
    const std::pair<QString, QString> names[] = {{u"--app"_s, u"sourceAppBundleID"_s},
                                                 {u"--app-name"_s, u"sourceAppName"_s},
                                                 {u"--pattern"_s, u"urlPattern"_s}};
    for (const auto &[option, key] : names) {
        if (arguments.values.contains(option))
            options.insert(key, arguments.values.value(option));
    }
    const auto answer = client.createRule(*browser, options);
    if (!answer)
        return failure(environment, answer);
    return succeed(environment, *answer);
}

int deleteRule(const Arguments &arguments, const Environment &environment, AutomationClient &client)
{
    const QString &id = arguments.positional.first();
    const auto found = client.rules({id});
    if (!found)
        return failure(environment, found);
    if (found->isEmpty())
        return fail(
            environment,
            u"no rule has the id \"%1\" (ids are upper-case, as \"quillvane rules\" lists them)."_s
                .arg(id.left(200)));
    const RuleEntity rule = found->first();
    if (!arguments.flags.contains(u"--yes"_s)) {
        const QString question = u"Delete rule \"%1\"?"_s.arg(rule.summary);
        const std::optional<bool> confirmed = environment.confirm(question);
        if (!confirmed)
            return fail(
                environment,
                u"%1 There is no terminal to ask on: add --yes to delete without asking. The rule was not deleted."_s
                    .arg(question));
        if (!*confirmed)
            return fail(environment, u"The rule was not deleted."_s);
    }
    const auto answer = client.deleteRule(rule);
    if (!answer)
        return failure(environment, answer);
    return succeed(environment, *answer);
}

int setFallback(const Arguments &arguments, const Environment &environment,
                AutomationClient &client)
{
    const auto browser = resolveBrowser(client, arguments.positional.first());
    if (!browser)
        return fail(environment, browser.error());
    const auto answer = client.setDefaultBrowser(*browser);
    if (!answer)
        return failure(environment, answer);
    return succeed(environment, *answer);
}

QString featureList()
{
    QString text;
    for (const FeatureInfo &info : features())
        text += u"  %1%2\n"_s.arg(info.rawValue.toString().leftJustified(15), info.title);
    return text;
}

int toggleFeature(const Arguments &arguments, const Environment &environment,
                  AutomationClient &client)
{
    const QString &name = arguments.positional[0];
    const QString &state = arguments.positional[1];
    if (!featureFromRawValue(name))
        return fail(environment,
                    u"there is no feature named \"%1\". The features are:\n%2"_s.arg(
                        name.left(80), featureList().chopped(1)),
                    BadUsage);
    if (state != u"on" && state != u"off")
        return fail(environment, u"say \"on\" or \"off\", not \"%1\"."_s.arg(state.left(80)),
                    BadUsage);
    const auto answer = client.toggleFeature(name, state == u"on");
    if (!answer)
        return failure(environment, answer);
    return succeed(environment, *answer);
}

const QList<Command> &commands()
{
    static const QList<Command> list{
        {u"route"_s,
         u"route URL [--browser ID]"_s,
         u"Opens the link in the browser your rules choose, as a link from no particular\n"
         "application: only URL rules and the fallback browser apply, rules apply even\n"
         "while paused, the link is cleaned when URL Cleaning is on but never expanded,\n"
         "a rule's profile is not used, and nothing is recorded in the history.\n"
         "With --browser, opens the link exactly as given in that browser.\n"
         "\n"
         "Options:\n"
         "  --browser ID   the browser to open the link in (\"quillvane browsers\" lists them)\n"
         "\n"
         "Also known as \"Route URL in Quillvane\" and \"Open URL with Quillvane\".\n"
         "\n"
         "Examples:\n"
         "  quillvane route https://example.com/report\n"
         "  quillvane route https://example.com --browser org.mozilla.firefox\n"_s,
         {u"--browser"_s},
         {},
         1,
         1,
         u"a link"_s,
         route},
        {u"rules"_s,
         u"rules [--json]"_s,
         u"Lists the routing rules in their stored order: id and summary, one rule per\n"
         "line, or a JSON array of {\"id\", \"summary\"} objects with --json.\n"
         "\n"
         "Options:\n"
         "  --json         print JSON\n"_s,
         {},
         {u"--json"_s},
         0,
         0,
         {},
         listRules},
        {u"rule add"_s,
         u"rule add --browser ID [--app ID] [--app-name NAME] [--pattern P]"_s,
         u"Adds a rule at the end of the list: links from the application (--app), or\n"
         "links matching the pattern (--pattern), or both, open in the browser. The\n"
         "values are stored exactly as given; the rule has no browser profile (the\n"
         "settings window can add one).\n"
         "\n"
         "Options:\n"
         "  --browser ID     the browser the rule opens links in (\"quillvane browsers\")\n"
         "  --app ID         the application the links come from: its desktop entry id,\n"
         "                   such as org.gnome.Evolution\n"
         "  --app-name NAME  the name shown for that application (not looked up)\n"
         "  --pattern P      a host (example.com, which includes its subdomains), a\n"
         "                   wildcard (*.example.com) or a host and path (example.com/docs)\n"
         "\n"
         "Also known as \"Create rule in Quillvane\" and \"Add rule to Quillvane\".\n"
         "\n"
         "Examples:\n"
         "  quillvane rule add --browser org.mozilla.firefox --pattern github.com\n"
         "  quillvane rule add --browser chromium --app org.gnome.Evolution --app-name Evolution\n"_s,
         {u"--browser"_s, u"--app"_s, u"--app-name"_s, u"--pattern"_s},
         {},
         0,
         0,
         {},
         addRule},
        {u"rule delete"_s,
         u"rule delete RULE-ID [--yes]"_s,
         u"Deletes the rule with that id (as \"quillvane rules\" prints it) after asking\n"
         "on the terminal. Without a terminal, only --yes deletes.\n"
         "\n"
         "Options:\n"
         "  --yes          delete without asking\n"
         "\n"
         "Example:\n"
         "  quillvane rule delete 3F2504E0-4F89-41D3-9A0C-0305E82C3301\n"_s,
         {},
         {u"--yes"_s},
         1,
         1,
         u"a rule id"_s,
         deleteRule},
        {u"browsers"_s,
         u"browsers [--json]"_s,
         u"Lists the installed browsers: id and name, one per line, or a JSON array of\n"
         "{\"id\", \"name\"} objects with --json. The ids are what --browser, \"fallback\"\n"
         "and the rules take.\n"
         "\n"
         "Options:\n"
         "  --json         print JSON\n"
         "\n"
         "Also known as \"List browsers in Quillvane\" and \"Show browsers in Quillvane\".\n"_s,
         {},
         {u"--json"_s},
         0,
         0,
         {},
         listBrowsers},
        {u"fallback"_s,
         u"fallback ID"_s,
         u"Sets the fallback browser: the one that opens links no rule claims. The\n"
         "desktop's own default browser stays Quillvane.\n"
         "\n"
         "Example:\n"
         "  quillvane fallback org.mozilla.firefox\n"_s,
         {},
         {},
         1,
         1,
         u"a browser id"_s,
         setFallback},
        {u"feature"_s,
         u"feature NAME on|off"_s,
         u"Switches a feature on or off (nothing changes when it already is). With\n"
         "pauseRules, \"on\" pauses the rules. The features are:\n"_s
             + featureList()
             + u"\nExample:\n"
               "  quillvane feature urlExpansion off\n"_s,
         {},
         {},
         2,
         2,
         u"a feature name and on or off"_s,
         toggleFeature},
    };
    return list;
}

const Command *find(const QString &name)
{
    for (const Command &command : commands()) {
        if (command.name == name)
            return &command;
    }
    return nullptr;
}

QString usage(const Command &command)
{
    return u"Usage: quillvane %1\n\n%2"_s.arg(command.synopsis, command.help);
}

} // namespace

std::optional<bool> askOnTerminal(const QString &question)
{
    if (!isatty(STDIN_FILENO))
        return std::nullopt;
    const QByteArray prompt = (question + u" [y/N] "_s).toUtf8();
    std::fwrite(prompt.constData(), 1, size_t(prompt.size()), stderr);
    std::fflush(stderr);
    char line[64] = {};
    if (!std::fgets(line, sizeof line, stdin))
        return false;
    const QString answer = QString::fromLocal8Bit(line).trimmed().toLower();
    return answer == u"y" || answer == u"yes";
}

bool isAutomationCommand(const QString &name)
{
    return name == u"rule" || find(name);
}

QString summary()
{
    QString text;
    for (const Command &command : commands())
        text += u"  "_s + command.synopsis + u'\n';
    return text;
}

int run(const QStringList &arguments, const Environment &environment)
{
    QString name = arguments.value(0);
    qsizetype consumed = 1;
    if (name == u"rule") {
        const QString action = arguments.value(1);
        if (action == u"add" || action == u"delete") {
            name += u' ' + action;
            consumed = 2;
        } else {
            const QString text =
                u"Usage: quillvane rule add --browser ID [--app ID] [--app-name NAME] [--pattern "
                u"P]\n"
                "       quillvane rule delete RULE-ID [--yes]\n"
                "\n"
                "Run \"quillvane rule add --help\" or \"quillvane rule delete --help\" for more.\n"_s;
            if (action == u"--help" || action == u"-h") {
                environment.out << text;
                environment.out.flush();
                return Success;
            }
            environment.err << "quillvane: say \"rule add\" or \"rule delete\".\n\n" << text;
            environment.err.flush();
            return BadUsage;
        }
    }
    const Command *command = find(name);
    if (!command)
        return fail(environment, u"unknown command \"%1\"."_s.arg(name.left(80)), BadUsage);
    const auto parsed = parse(arguments.sliced(consumed), *command);
    if (!parsed) {
        environment.err << "quillvane: " << parsed.error() << "\n\n" << usage(*command);
        environment.err.flush();
        return BadUsage;
    }
    if (parsed->help) {
        environment.out << usage(*command);
        environment.out.flush();
        return Success;
    }
    AutomationClient client;
    return command->run(*parsed, environment, client);
}

} // namespace AutomationCommands
