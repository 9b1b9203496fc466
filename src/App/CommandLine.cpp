#include "App/CommandLine.h"

#include "Models/BuildInfo.h"
#include "App/ConfigCommand.h"
#include "App/DoctorCommand.h"
#include "App/ExplainCommand.h"
#include "App/HistoryCommand.h"
#include "Automation/ScriptCommands.h"
#include "Models/DisplayText.h"
#include "Platform/ProcessApps.h"
#include "Services/BrowserCatalog.h"
#include "Services/RunningBrowsers.h"
#include "Services/URLExpander.h"
#include "Services/ConfigFile.h"
#include "Storage/HistoryDatabase.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QStringDecoder>

using namespace Qt::Literals::StringLiterals;

namespace CommandLine {

namespace {

// A command's answer is its output; the system log's routine lines would only
// clutter it (QT_LOGGING_RULES still turns them back on).
void quietLog()
{
    QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.info=false"_s);
}

int explain(const CommandArguments &arguments, const CommandOutput &output)
{
    const auto config = ConfigFile::peek(ConfigFile::defaultPath(), ConfigFile::defaultLegacyPath());
    if (!config)
        return output.fail(config.error().text(), Failed);
    DesktopEntries &entries = GioDesktopEntries::instance();
    LinuxProcessApps processes(entries);
    RunningBrowsers running(processes);
    const auto runningBrowsers = [&] {
        QStringList candidates{config->fallbackBrowser};
        for (const BrowserInfo &browser : BrowserCatalog::discover(entries)) {
            if (!BrowserPreference::of(config->browserPreferences, browser.desktopId).hidden)
                candidates.append(browser.desktopId);
        }
        return running.running(candidates);
    };
    return ExplainCommand::run(
        arguments, output,
        {*config, &URLExpander::isShortLink,
         [](const Link &url) { return URLExpander::expand(url); },
         [&entries](const QString &scheme) { return Handoffs::handler(entries, scheme); },
         runningBrowsers});
}

int doctor(const CommandArguments &arguments, const CommandOutput &output)
{
    XdgAutostart autostart(QCoreApplication::applicationFilePath());
    return DoctorCommand::run(arguments, output, {GioDesktopEntries::instance(), autostart});
}

int history(const CommandArguments &arguments, const CommandOutput &output)
{
    HistoryDatabase database(HistoryDatabase::defaultPath(), HistoryDatabase::Access::ReadOnly);
    return HistoryCommand::run(arguments, output, {database});
}

ConfigCommand::Environment configEnvironment()
{
    return {ConfigFile::defaultPath(), ConfigFile::defaultLegacyPath(), [](const QString &scheme) {
                const auto app = Handoffs::handler(GioDesktopEntries::instance(), scheme);
                return app ? std::optional<QString>(app->name) : std::nullopt;
            }};
}

// A local command that works on the configuration file.
template<auto Run> int onConfig(const CommandArguments &arguments, const CommandOutput &output)
{
    return Run(arguments, output, configEnvironment());
}

// The local commands first, then those for the running Quillvane, as the help lists them.
constexpr qsizetype LocalCommands = 9;

// Commands of two words, by their first.
const QHash<QString, QStringList> &groups()
{
    static const QHash<QString, QStringList> words{
        {u"rule"_s, {u"add"_s, u"delete"_s}},
        {u"config"_s, {u"path"_s, u"check"_s, u"export"_s, u"import"_s}}};
    return words;
}

const QList<Command> &commands()
{
    static const QList<Command> list{
        {u"explain"_s,
         u"explain URL [--from APP-ID] [--expand]"_s,
         u"Shows which browser (and profile) Quillvane would open URL in, which rule\n"
         "decides, and the router's trail. Uses your stored rules and fallback browser,\n"
         "cleans tracking parameters when cleaning is on, and changes nothing.\n"
         "\n"
         "Options:\n"
         "  --from APP-ID  the application that opens the link, as its desktop-entry id\n"
         "                 without \".desktop\" (for example org.gnome.Evolution)\n"
         "  --expand       also expand a link on a link-shortening host (asks the network)\n"
         "\n"
         "Exit status: 0 when the link has a route, 1 when it has none, 2 on bad input.\n"_s,
         {u"--from"_s},
         {u"--expand"_s},
         1,
         1,
         u"a link"_s,
         explain},
        {u"doctor"_s,
         u"doctor [--json]"_s,
         u"Shows what Quillvane sees of this desktop: the session type, whether Quillvane is\n"
         "the default browser and which application handles links now, the browsers it\n"
         "found with their profiles, launch at login, and where its files are.\n"
         "Changes nothing.\n"
         "\n"
         "Options:\n"
         "  --json         the same as one JSON document (member names are stable)\n"_s,
         {},
         {u"--json"_s},
         0,
         0,
         {},
         doctor},
        {u"history"_s,
         u"history [--json] [--limit N]"_s,
         u"Prints the links Quillvane forwarded, newest first: when, from which\n"
         "application to which browser, the rule credited with the decision, and the\n"
         "link as it arrived. Works whether or not Quillvane is running.\n"
         "\n"
         "Options:\n"
         "  --json         print a JSON array of the stored records\n"
         "  --limit N      print at most the N newest records\n"_s,
         {u"--limit"_s},
         {u"--json"_s},
         0,
         0,
         {},
         history},
        {u"config path"_s,
         u"config path"_s,
         u"Prints where the configuration file is: the rules, the fallback browser, the\n"
         "switches, the browsers' settings and the handoffs, in one JSON file that you\n"
         "can edit, keep in a dotfiles repository or link into place. A running\n"
         "Quillvane follows every change to it.\n"_s,
         {},
         {},
         0,
         0,
         {},
         onConfig<ConfigCommand::path>},
        {u"config check"_s,
         u"config check [FILE]"_s,
         u"Checks the configuration file (or FILE) as Quillvane reads it, and says\n"
         "which line and column are wrong, and why. Changes nothing.\n"
         "\n"
         "Exit status: 0 when Quillvane can take the file, 1 when it cannot.\n"_s,
         {},
         {},
         0,
         1,
         u"a file"_s,
         onConfig<ConfigCommand::check>},
        {u"config export"_s,
         u"config export [FILE]"_s,
         u"Writes the rules, the fallback browser and the browsers' settings as an\n"
         "export document (the one the settings window exports) to FILE, or prints it.\n"_s,
         {},
         {},
         0,
         1,
         u"a file"_s,
         onConfig<ConfigCommand::exportTo>},
        {u"config import"_s,
         u"config import FILE [--yes]"_s,
         u"Imports an export document: its rules replace yours, and its fallback browser,\n"
         "switches, browsers' settings and handoffs replace yours where it has them.\n"
         "Shows what changes (the rules added and removed, and every browser argument\n"
         "and profile browsers will start with) and asks on the terminal first.\n"
         "\n"
         "Options:\n"
         "  --yes          import without asking\n"_s,
         {},
         {u"--yes"_s},
         1,
         1,
         u"a file"_s,
         onConfig<ConfigCommand::import>},
        {u"handoffs"_s,
         u"handoffs [--json]"_s,
         u"Lists the handoffs: the services whose links can open in their own apps,\n"
         "whether each is on, and the app installed for it.\n"
         "\n"
         "Options:\n"
         "  --json         print a JSON array of {\"id\", \"name\", \"enabled\", \"app\"}\n"_s,
         {},
         {u"--json"_s},
         0,
         0,
         {},
         onConfig<ConfigCommand::handoffs>},
        {u"handoff"_s,
         u"handoff NAME on|off"_s,
         u"Switches a handoff on or off: with it on, links of the service (a meeting,\n"
         "a song) open in its app instead of a browser, unless a rule names a browser.\n"
         "\"quillvane handoffs\" lists them.\n"
         "\n"
         "Example:\n"
         "  quillvane handoff zoom on\n"_s,
         {},
         {},
         2,
         2,
         u"a handoff name and on or off"_s,
         onConfig<ConfigCommand::handoff>},
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
         "Examples:\n"
         "  quillvane route https://example.com/report\n"
         "  quillvane route https://example.com --browser org.mozilla.firefox\n"_s,
         {u"--browser"_s},
         {},
         1,
         1,
         u"a link"_s,
         ScriptCommands::route},
        {u"rules"_s,
         u"rules [--json]"_s,
         u"Lists the routing rules in their stored order: id and summary, then the\n"
         "browser profile and \"private window\" where a rule has them, one rule per\n"
         "line; or a JSON array of {\"id\", \"summary\"} objects with --json, which\n"
         "also have \"profile\", \"profileName\" and \"privateWindow\" where set.\n"
         "\n"
         "Options:\n"
         "  --json         print JSON\n"_s,
         {},
         {u"--json"_s},
         0,
         0,
         {},
         ScriptCommands::listRules},
        {u"rule add"_s,
         u"rule add (--browser ID | --ask) [--app ID] [--app-name NAME] [--pattern P] [--profile ID] [--private]"_s,
         u"Adds a rule at the end of the list: links from the application (--app), or\n"
         "links matching the pattern (--pattern), or both, open in the browser. The\n"
         "values are stored exactly as given.\n"
         "\n"
         "Options:\n"
         "  --browser ID     the browser the rule opens links in (\"quillvane browsers\")\n"
         "  --app ID         the application the links come from: its desktop entry id,\n"
         "                   such as org.gnome.Evolution\n"
         "  --app-name NAME  the name shown for that application (without it: the name\n"
         "                   of its desktop entry, else the id)\n"
         "  --pattern P      a host (example.com, which includes its subdomains), a\n"
         "                   wildcard (*.example.com) or a host and path (example.com/docs)\n"
         "  --profile ID     the browser profile to open links in, by id (\"quillvane\n"
         "                   doctor\" lists each browser's profiles)\n"
         "  --private        open the links in a private window (Chromium-family\n"
         "                   browsers and Firefox)\n"
         "  --ask            ask which browser opens the links, instead of --browser\n"
         "\n"
         "Examples:\n"
         "  quillvane rule add --browser org.mozilla.firefox --pattern github.com\n"
         "  quillvane rule add --browser chromium --app org.gnome.Evolution --app-name Evolution\n"
         "  quillvane rule add --browser chromium --pattern bank.example --profile \"Profile 1\" --private\n"_s,
         {u"--browser"_s, u"--app"_s, u"--app-name"_s, u"--pattern"_s, u"--profile"_s},
         {u"--private"_s, u"--ask"_s},
         0,
         0,
         {},
         ScriptCommands::addRule},
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
         ScriptCommands::deleteRule},
        {u"browsers"_s,
         u"browsers [--json]"_s,
         u"Lists the installed browsers: id and name, one per line, or a JSON array of\n"
         "{\"id\", \"name\"} objects with --json. The ids are what --browser, \"fallback\"\n"
         "and the rules take.\n"
         "\n"
         "Options:\n"
         "  --json         print JSON\n"_s,
         {},
         {u"--json"_s},
         0,
         0,
         {},
         ScriptCommands::listBrowsers},
        {u"fallback"_s,
         u"fallback ID | fallback --ask"_s,
         u"Sets the fallback browser: the one that opens links no rule claims. The\n"
         "desktop's own default browser stays Quillvane. With --ask, a window asks\n"
         "which browser opens each such link instead (the fallback browser is offered\n"
         "first, and opens the link where no window can be shown).\n"
         "\n"
         "Options:\n"
         "  --ask          ask every time\n"
         "\n"
         "Examples:\n"
         "  quillvane fallback org.mozilla.firefox\n"
         "  quillvane fallback --ask\n"_s,
         {},
         {u"--ask"_s},
         0,
         1,
         u"a browser id"_s,
         ScriptCommands::setFallback},
        {u"feature"_s,
         u"feature NAME on|off"_s,
         u"Switches a feature on or off (nothing changes when it already is). With\n"
         "pauseRules, \"on\" pauses the rules. The features are:\n"_s
             + ScriptCommands::featureList()
             + u"\nExample:\n"
               "  quillvane feature urlExpansion off\n"_s,
         {},
         {},
         2,
         2,
         u"a feature name and on or off"_s,
         ScriptCommands::toggleFeature},
    };
    return list;
}

// A group's first word alone ("rule", "config"): the group's own help.
int group(const QString &name, const QString &action, const CommandOutput &output)
{
    QString text;
    for (const Command &command : commands()) {
        if (command.name.startsWith(name + u' '))
            text += (text.isEmpty() ? u"Usage: quillvane "_s : u"       quillvane "_s)
                    + command.synopsis + u'\n';
    }
    QStringList full;
    for (const QString &word : groups().value(name))
        full.append(u"\"%1 %2\""_s.arg(name, word));
    text += u"\nRun \"quillvane %1 ACTION --help\" for more.\n"_s.arg(name);
    if (action == u"--help" || action == u"-h") {
        output.out << text;
        output.out.flush();
        return Success;
    }
    output.err << "quillvane: say " << full.join(u", "_s) << ".\n\n" << text;
    output.err.flush();
    return BadUsage;
}

} // namespace

const Command *command(const QString &name)
{
    for (const Command &entry : commands()) {
        if (entry.name == name)
            return &entry;
    }
    return nullptr;
}

QString helpText()
{
    QString local;
    QString remote;
    for (qsizetype i = 0; i < commands().size(); ++i) {
        const Command &command = commands()[i];
        (i < LocalCommands ? local : remote) += u"  "_s + command.synopsis + u'\n';
    }
    return u"Usage: quillvane [URL...]\n"
           "       quillvane COMMAND [OPTIONS]\n"
           "\n"
           "Quillvane routes every link you open to the browser your rules choose.\n"
           "Without a command it starts (or shows) Quillvane and routes the links given.\n"
           "\"quillvane --action ID\" runs one of its desktop actions: route-clipboard,\n"
           "list-browsers, create-rule. \"quillvane --settings\" opens the settings window.\n"
           "\n"
           "Commands:\n"_s
           + local + u"\nCommands for the running Quillvane (they never start it):\n"_s + remote
           + u"\n"
             "Options:\n"
             "  -h, --help     show this help\n"
             "  --version      show the version\n"
             "\n"
             "Run \"quillvane COMMAND --help\" for a command's own options.\n"_s;
}

QString versionText()
{
    return u"Quillvane v%1 (%2) · %3\n"_s.arg(QStringView(BuildInfo::Version),
                                              QStringView(BuildInfo::BuildNumber),
                                              QStringView(BuildInfo::Commit));
}

int run(const QStringList &arguments, const CommandOutput &output)
{
    const QString first = arguments.value(0);
    if (arguments.isEmpty() || first == u"--help" || first == u"-h" || first == u"help") {
        output.out << helpText();
        output.out.flush();
        return Success;
    }
    if (first == u"--version") {
        output.out << versionText();
        output.out.flush();
        return Success;
    }
    QString name = first;
    qsizetype consumed = 1;
    if (groups().contains(name)) {
        const QString action = arguments.value(1);
        if (!groups().value(name).contains(action))
            return group(name, action, output);
        name += u' ' + action;
        consumed = 2;
    }
    const Command *found = command(name);
    if (!found) {
        output.err << "quillvane: unknown command \"" << name.left(80) << "\".\n\n" << helpText();
        output.err.flush();
        return BadUsage;
    }
    quietLog();
    return (*found)(arguments.sliced(consumed), output);
}

int run(const QByteArrayList &arguments, QTextStream &out, QTextStream &err)
{
    QStringList decoded;
    decoded.reserve(arguments.size());
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        decoded.append(decoder.decode(arguments[i]));
        if (decoder.hasError()) {
            err << "quillvane: argument " << (i + 1) << " is not valid UTF-8 text.\n";
            err.flush();
            return BadUsage;
        }
    }
    // What commands print comes partly from outside (names, patterns, links):
    // no escape sequence of theirs reaches the terminal.
    QString outText;
    QString errText;
    QTextStream outBuffer(&outText);
    QTextStream errBuffer(&errText);
    const int status = run(decoded, {outBuffer, errBuffer, &ScriptCommands::askOnTerminal});
    outBuffer.flush();
    errBuffer.flush();
    out << DisplayText::forTerminal(outText);
    err << DisplayText::forTerminal(errText);
    out.flush();
    err.flush();
    return status;
}

} // namespace CommandLine
