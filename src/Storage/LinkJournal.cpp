#include "Storage/LinkJournal.h"

#include "Models/JsonFields.h"
#include "Platform/SystemLog.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcLinkJournal, "LinkJournal")

namespace LinkJournal {

void accept(HistoryDatabase &database, QList<Entry> &entries)
{
    if (entries.isEmpty())
        return;
    QList<qint64> ids;
    const bool written = database.write([&](Sqlite::Database &sql) {
        ids.clear();
        for (const Entry &entry : std::as_const(entries)) {
            sql.statement("INSERT INTO intakeJournal (kind, receivedAt, url, sourceAppBundleID, "
                          "sourceAppName, activationToken, browser) VALUES (?, ?, ?, ?, ?, ?, ?)")
                .bind(1, qint64(entry.kind))
                .bind(2, JsonFields::referenceSeconds(entry.receivedAt))
                .bind(3, entry.url)
                .bind(4, entry.source ? std::optional(entry.source->bundleID) : std::nullopt)
                .bind(5, entry.source ? std::optional(entry.source->name) : std::nullopt)
                .bind(6, entry.activationToken.isEmpty() ? std::nullopt
                                                         : std::optional(entry.activationToken))
                .bind(7, entry.browser.isEmpty() ? std::nullopt : std::optional(entry.browser))
                .run();
            ids.append(sql.lastInsertId());
        }
    });
    for (qsizetype i = 0; i < entries.size(); ++i)
        entries[i].id = written ? ids.value(i) : 0;
}

void finish(HistoryDatabase &database, qint64 id)
{
    if (id <= 0)
        return;
    const bool written = database.write(
        [id](Sqlite::Database &sql) { HistoryDatabase::removeJournalEntry(sql, id); });
    if (!written)
        database.unwritten().finishedJournalEntries.append(id);
}

QList<Entry> unfinished(HistoryDatabase &database, const QDateTime &now)
{
    QList<Entry> entries;
    const double oldest = JsonFields::referenceSeconds(now.addSecs(-ReplayWindowSeconds));
    const double newest = JsonFields::referenceSeconds(now);
    qint64 dropped = 0;
    database.write([&](Sqlite::Database &sql) {
        entries.clear();
        Sqlite::Statement rows = sql.statement(
            "SELECT id, kind, receivedAt, url, sourceAppBundleID, sourceAppName, activationToken, "
            "browser, counted FROM intakeJournal ORDER BY id");
        while (rows.step()) {
            const double received = rows.real(2);
            // A clock set back makes an entry from the "future": it is not fresh either.
            if (received < oldest || received > newest) {
                ++dropped;
                continue;
            }
            Entry entry;
            entry.id = rows.integer(0);
            entry.kind = rows.integer(1) == qint64(Kind::Route) ? Kind::Route : Kind::Open;
            entry.receivedAt = JsonFields::fromReferenceSeconds(received).value_or(now);
            entry.url = rows.text(3);
            const std::optional<QString> bundleID = rows.optionalText(4);
            if (bundleID)
                entry.source = SourceApp{*bundleID, rows.optionalText(5).value_or(*bundleID)};
            entry.activationToken = rows.optionalText(6).value_or(QString());
            entry.browser = rows.optionalText(7).value_or(QString());
            entry.counted = rows.integer(8) != 0;
            entries.append(entry);
        }
        sql.statement("DELETE FROM intakeJournal WHERE receivedAt < ? OR receivedAt > ?")
            .bind(1, oldest)
            .bind(2, newest)
            .run();
    });
    if (dropped > 0)
        qCWarning(lcLinkJournal).noquote()
            << u"Dropped %1 link(s) that an earlier Quillvane accepted but did not open: they "
               "arrived more than %2 seconds ago."_s.arg(QString::number(dropped),
                                                         QString::number(ReplayWindowSeconds));
    if (!entries.isEmpty())
        qCInfo(lcLinkJournal).noquote()
            << u"Opening %1 link(s) that an earlier Quillvane accepted but did not open."_s.arg(
                   entries.size());
    return entries;
}

} // namespace LinkJournal
