#include "App/HistoryCommand.h"

#include "Models/DisplayText.h"
#include "Models/ForwardingRecord.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryStore.h"

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

void printText(const QList<ForwardingRecord> &records, QTextStream &out)
{
    if (records.isEmpty()) {
        out << "The history is empty.\n";
        return;
    }
    QStringList names;
    QStringList rules;
    qsizetype namesWidth = 0;
    qsizetype rulesWidth = 0;
    for (const ForwardingRecord &record : records) {
        names.append(
            cut(DisplayText::escapeControls(QString(record.sourceAppName.value_or(u"Unknown"_s)
                                                    + u" › "_s + record.targetBrowserName)),
                MaxNamesWidth));
        // What decided: the rule as it read then, the fallback, the pause.
        rules.append(cut(DisplayText::escapeControls(record.decisionText()), MaxRuleWidth));
        namesWidth = std::max(namesWidth, names.last().size());
        rulesWidth = std::max(rulesWidth, rules.last().size());
    }
    const QLocale c = QLocale::c();
    for (qsizetype i = 0; i < records.size(); ++i) {
        out << c.toString(records[i].timestamp.toLocalTime(), u"yyyy-MM-dd HH:mm:ss") << "  "
            << padded(names[i], namesWidth) << "  ";
        if (rulesWidth > 0)
            out << padded(rules[i], rulesWidth) << "  ";
        out << records[i].originalURL << '\n';
    }
}

void printJson(const QList<ForwardingRecord> &records, QTextStream &out)
{
    // The records as the history stores them, indented like the other commands' JSON.
    const QJsonDocument document = QJsonDocument::fromJson(ForwardingRecord::listToJson(records));
    out << QString::fromUtf8(document.toJson(QJsonDocument::Indented));
}

} // namespace

int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment)
{
    qsizetype limit = HistoryStore::MaxRecords;
    if (const auto value = arguments.value(u"--limit"_s)) {
        bool ok = false;
        const qlonglong number = value->toLongLong(&ok);
        if (!ok || number < 1)
            return output.fail(
                u"--limit needs a whole number of at least 1, not \"%1\"."_s.arg(value->left(80)),
                BadUsage);
        limit = qsizetype(std::min<qlonglong>(number, HistoryStore::MaxRecords));
    }

    const auto records = HistoryStore::readHistory(environment.database, {}, limit);
    if (!records)
        return output.fail(u"the history cannot be read from %1: %2"_s.arg(
            environment.database.path(), records.error()));
    if (arguments.flag(u"--json"_s))
        printJson(*records, output.out);
    else
        printText(*records, output.out);
    output.out.flush();
    return Success;
}

} // namespace HistoryCommand
