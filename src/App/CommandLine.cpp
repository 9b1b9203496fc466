#include "App/CommandLine.h"

#include "App/AutomationCommands.h"
#include "App/BuildInfo.h"
#include "App/DoctorCommand.h"
#include "App/ExplainCommand.h"
#include "App/HistoryCommand.h"
#include "Services/URLExpander.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/UserSettings.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QStringDecoder>

using namespace Qt::Literals::StringLiterals;

namespace CommandLine {

QString helpText()
{
    return u"Usage: quillvane [URL...]\n"
           "       quillvane COMMAND [OPTIONS]\n"
           "\n"
           "Quillvane routes every link you open to the browser your rules choose.\n"
           "Without a command it starts (or shows) Quillvane and routes the links given.\n"
           "\"quillvane --action ID\" runs one of its desktop actions: route-clipboard,\n"
           "list-browsers, create-rule. \"quillvane --settings\" opens the settings window.\n"
           "\n"
           "Commands:\n"
           "  explain URL [--from APP-ID] [--expand]\n"
           "                 show where a link would open and which rule decides\n"
           "  doctor [--json]\n"
           "                 show what Quillvane sees of this desktop\n"
           "  history [--json] [--limit N]\n"
           "                 show the links Quillvane forwarded, newest first\n"
           "\n"
           "Commands for the running Quillvane (they never start it):\n"_s
           + AutomationCommands::summary()
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
            return ExplainCommand::BadInput;
        }
    }

    if (decoded.isEmpty() || decoded.first() == u"--help" || decoded.first() == u"-h"
        || decoded.first() == u"help") {
        out << helpText();
        out.flush();
        return 0;
    }
    if (decoded.first() == u"--version") {
        out << versionText();
        out.flush();
        return 0;
    }
    if (decoded.first() == u"doctor") {
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.info=false"_s);
        XdgAutostart autostart(QCoreApplication::applicationFilePath());
        const DoctorCommand::Environment environment{GioDesktopEntries::instance(), autostart, out,
                                                     err};
        return DoctorCommand::run(decoded.sliced(1), environment);
    }
    if (decoded.first() == u"explain") {
        // The answer is the output; the system log's routine lines would only
        // clutter it (QT_LOGGING_RULES still turns them back on).
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.info=false"_s);
        const auto settings = UserSettings::open();
        const ExplainCommand::Environment environment{
            *settings, out, err, &URLExpander::isShortLink, &URLExpander::expand};
        return ExplainCommand::run(decoded.sliced(1), environment);
    }
    if (decoded.first() == u"history") {
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.info=false"_s);
        HistoryDatabase database(HistoryDatabase::defaultPath(), HistoryDatabase::Access::ReadOnly);
        const auto settings = UserSettings::open();
        return HistoryCommand::run(decoded.sliced(1), {database, *settings, out, err});
    }
    if (AutomationCommands::isAutomationCommand(decoded.first())) {
        QLoggingCategory::setFilterRules(u"work.vorpa.Quillvane.*.info=false"_s);
        return AutomationCommands::run(decoded, {out, err, &AutomationCommands::askOnTerminal});
    }
    err << "quillvane: unknown command \"" << decoded.first().left(80) << "\".\n\n" << helpText();
    err.flush();
    return ExplainCommand::BadInput;
}

} // namespace CommandLine
