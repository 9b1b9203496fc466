#include "App/HistoryCommand.h"

#include "Models/ForwardingRecord.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryMigration.h"
#include "Storage/HistoryStore.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QLocale>

using namespace Qt::Literals::StringLiterals;

namespace HistoryCommand {

namespace {

// Names longer than this are cut, so that the links still line up.
constexpr qsizetype MaxNamesWidth = 40;
constexpr qsizetype MaxRuleWidth = 32;

QString cut(const QString &text, qsizetype width)
{
    return text.size() <= width ? text : text.first(width - 1) + u'…';
}

QString padded(const QString &text, qsizetype width)
{
    return text + QString(std::max<qsizetype>(0, width - text.size()), u' ');
}

void printText(const QList<ForwardingRecord> &records, const Environment &environment)
{
    if (records.isEmpty()) {
        environment.out << "The history is empty.\n";
        return;
    }
    QStringList names;
    QStringList rules;
    qsizetype namesWidth = 0;
    qsizetype rulesWidth = 0;
    for (const ForwardingRecord &record : records) {
        names.append(
            cut(record.sourceAppName.value_or(u"Unknown"_s) + u" › "_s + record.targetBrowserName,
                MaxNamesWidth));
        rules.append(cut(record.ruleMatched.value_or(QString()), MaxRuleWidth));
        namesWidth = std::max(namesWidth, names.last().size());
        rulesWidth = std::max(rulesWidth, rules.last().size());
    }
    const QLocale c = QLocale::c();
    for (qsizetype i = 0; i < records.size(); ++i) {
        environment.out << c.toString(records[i].timestamp.toLocalTime(), u"yyyy-MM-dd HH:mm:ss")
                        << "  " << padded(names[i], namesWidth) << "  ";
        if (rulesWidth > 0)
            environment.out << padded(rules[i], rulesWidth) << "  ";
        environment.out << records[i].originalURL << '\n';
    }
}

void printJson(const QList<ForwardingRecord> &records, const Environment &environment)
{
    // The records as the history stores them, indented like the other commands' JSON.
    const QJsonDocument document = QJsonDocument::fromJson(ForwardingRecord::listToJson(records));
    environment.out << QString::fromUtf8(document.toJson(QJsonDocument::Indented));
}

int badInput(const Environment &environment, const QString &message)
{
    environment.err << "quillvane: " << message << "\n\n" << usage();
    environment.err.flush();
    return BadInput;
}

} // namespace

QString usage()
{
    return u"Usage: quillvane history [--json] [--limit N]\n"
           "\n"
           "Prints the links Quillvane forwarded, newest first: when, from which\n"
           "application to which browser, the rule credited with the decision, and the\n"
           "link as it arrived. Works whether or not Quillvane is running.\n"
           "\n"
           "Options:\n"
           "  --json         print a JSON array of the stored records\n"
           "  --limit N      print at most the N newest records\n"
           "  -h, --help     show this help\n"_s;
}

int run(const QStringList &arguments, const Environment &environment)
{
    bool json = false;
    qsizetype limit = HistoryStore::MaxRecords;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument == u"--help" || argument == u"-h") {
            environment.out << usage();
            environment.out.flush();
            return Success;
        }
        if (argument == u"--json") {
            json = true;
            continue;
        }
        if (argument == u"--limit" || argument.startsWith(u"--limit=")) {
            QString value;
            if (argument.startsWith(u"--limit="))
                value = argument.sliced(8);
            else if (i + 1 < arguments.size())
                value = arguments[++i];
            else
                return badInput(environment, u"--limit needs a number."_s);
            bool ok = false;
            const qlonglong number = value.toLongLong(&ok);
            if (!ok || number < 1)
                return badInput(environment,
                                u"--limit needs a whole number of at least 1, not \"%1\"."_s.arg(
                                    value.left(80)));
            limit = qsizetype(std::min<qlonglong>(number, HistoryStore::MaxRecords));
            continue;
        }
        return badInput(environment, u"\"%1\" is not an option of \"quillvane history\"."_s.arg(
                                         argument.left(80)));
    }

    QList<ForwardingRecord> records;
    if (!QFileInfo::exists(environment.database.path())) {
        // Quillvane has not started since an update that moved the history.
        records = HistoryMigration::pendingRecords(environment.settings);
        records.resize(std::min(limit, records.size()));
    } else {
        auto read = HistoryStore::readHistory(environment.database, {}, limit);
        if (!read) {
            environment.err << "quillvane: the history cannot be read from "
                            << environment.database.path() << ": " << read.error() << '\n';
            environment.err.flush();
            return Failed;
        }
        records = std::move(read).value();
    }
    if (json)
        printJson(records, environment);
    else
        printText(records, environment);
    environment.out.flush();
    return Success;
}

} // namespace HistoryCommand
