#include "Storage/LinkJournal.h"

#include "Models/JsonFields.h"
#include "Platform/SystemLog.h"

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcLinkJournal, "LinkJournal")

namespace LinkJournal {

bool isRecent(const Lifetime::Instant &then, const Lifetime::Instant &now)
{
    constexpr qint64 window = qint64(ReplayWindowSeconds) * 1000;
    if (!then.bootId.isEmpty() && then.bootId == now.bootId) {
        const qint64 age = now.sinceBootMs - then.sinceBootMs;
        return age >= 0 && age <= window;
    }
    // The computer restarted since: the entry is at least as old as this boot.
    if (now.sinceBootMs > window || !then.wall.isValid())
        return false;
    const qint64 age = then.wall.msecsTo(now.wall);
    return age >= 0 && age <= window;
}

std::optional<qint64> accept(HistoryDatabase &database, QList<Entry> &entries,
                             const Writer &writer, const QString &countDay)
{
    if (entries.isEmpty())
        return std::nullopt;
    const Lifetime::Instant now = writer.now();
    // Counting writes the history's count: only its writer does.
    const bool counting = !countDay.isEmpty() && database.isWriter();
    QList<qint64> ids;
    qint64 count = -1;
    const bool written = database.writeJournal([&](Sqlite::Database &sql) {
        ids.clear();
        qint64 counted = 0;
        for (const Entry &entry : std::as_const(entries)) {
            const bool countsNow = counting && entry.kind == Kind::Open && !entry.counted;
            counted += countsNow ? 1 : 0;
            const bool countedBefore = entry.counted && database.isWriter();
            sql.statement("INSERT INTO intakeJournal (kind, receivedAt, url, sourceAppBundleID, "
                          "sourceAppName, activationToken, browser, owner, bootId, sinceBootMs, "
                          "counted) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
                .bind(1, qint64(entry.kind))
                .bind(2, JsonFields::referenceSeconds(now.wall))
                .bind(3, entry.url)
                .bind(4, entry.source ? std::optional(entry.source->desktopId) : std::nullopt)
                .bind(5, entry.source ? std::optional(entry.source->name) : std::nullopt)
                .bind(6, entry.activationToken.isEmpty() ? std::nullopt
                                                         : std::optional(entry.activationToken))
                .bind(7, entry.browser.isEmpty() ? std::nullopt : std::optional(entry.browser))
                .bind(8, writer.owner)
                .bind(9, now.bootId)
                .bind(10, now.sinceBootMs)
                .bind(11, qint64(countsNow || countedBefore ? 1 : 0))
                .run();
            ids.append(sql.lastInsertId());
        }
        if (counted > 0)
            count = HistoryDatabase::addToCount(sql, countDay, counted);
    });
    for (qsizetype i = 0; i < entries.size(); ++i) {
        entries[i].id = written ? ids.value(i) : 0;
        entries[i].receivedAt = now.wall;
        entries[i].counted = written && database.isWriter()
                             && (entries[i].counted || (counting && entries[i].kind == Kind::Open));
    }
    return written && count >= 0 ? std::optional(count) : std::nullopt;
}

void finish(HistoryDatabase &database, qint64 id)
{
    if (id <= 0)
        return;
    const bool written = database.writeJournal(
        [id](Sqlite::Database &sql) { HistoryDatabase::removeJournalEntry(sql, id); });
    if (!written)
        database.unwritten().finishedJournalEntries.append(id);
}

qint64 keepFresh(HistoryDatabase &database, const Writer &writer)
{
    const Lifetime::Instant now = writer.now();
    qint64 left = -1;
    database.writeJournal([&](Sqlite::Database &sql) {
        sql.statement("UPDATE intakeJournal SET bootId = ?, sinceBootMs = ?, receivedAt = ? "
                      "WHERE owner = ?")
            .bind(1, now.bootId)
            .bind(2, now.sinceBootMs)
            .bind(3, JsonFields::referenceSeconds(now.wall))
            .bind(4, writer.owner)
            .run();
        left = sql.changes();
    });
    return left;
}

QList<Entry> unfinished(HistoryDatabase &database, const Writer &writer)
{
    QList<Entry> entries;
    const Lifetime::Instant now = writer.now();
    qint64 dropped = 0;
    database.writeJournal([&](Sqlite::Database &sql) {
        entries.clear();
        dropped = 0;
        QList<qint64> stale;
        Sqlite::Statement rows = sql.statement(
            "SELECT id, kind, receivedAt, url, sourceAppBundleID, sourceAppName, activationToken, "
            "browser, counted, owner, bootId, sinceBootMs FROM intakeJournal ORDER BY id");
        while (rows.step()) {
            const std::optional<QString> owner = rows.optionalText(9);
            if (owner && (*owner == writer.owner || writer.runs(*owner)))
                continue;
            const double received = rows.real(2);
            const Lifetime::Instant then{JsonFields::fromReferenceSeconds(received).value_or(
                                             QDateTime()),
                                         rows.optionalText(10).value_or(QString()),
                                         rows.integer(11)};
            if (!isRecent(then, now)) {
                stale.append(rows.integer(0));
                continue;
            }
            Entry entry;
            entry.id = rows.integer(0);
            entry.kind = rows.integer(1) == qint64(Kind::Route) ? Kind::Route : Kind::Open;
            entry.receivedAt = then.wall.isValid() ? then.wall : now.wall;
            entry.url = rows.text(3);
            const std::optional<QString> desktopId = rows.optionalText(4);
            if (desktopId)
                entry.source = SourceApp{*desktopId, rows.optionalText(5).value_or(*desktopId)};
            entry.activationToken = rows.optionalText(6).value_or(QString());
            entry.browser = rows.optionalText(7).value_or(QString());
            entry.counted = rows.integer(8) != 0;
            entries.append(entry);
        }
        rows.run();
        for (const qint64 id : std::as_const(stale))
            HistoryDatabase::removeJournalEntry(sql, id);
        dropped = stale.size();
        // Taken over: should this Quillvane end too, the next one finds them.
        for (const Entry &entry : std::as_const(entries))
            sql.statement("UPDATE intakeJournal SET owner = ?, bootId = ?, sinceBootMs = ? "
                          "WHERE id = ?")
                .bind(1, writer.owner)
                .bind(2, now.bootId)
                .bind(3, now.sinceBootMs)
                .bind(4, entry.id)
                .run();
    });
    if (dropped > 0)
        qCWarning(lcLinkJournal).noquote()
            << u"Dropped %1 link(s) that an earlier Quillvane accepted but did not open: they "
               "waited more than %2 seconds."_s.arg(QString::number(dropped),
                                                    QString::number(ReplayWindowSeconds));
    if (!entries.isEmpty())
        qCInfo(lcLinkJournal).noquote()
            << u"Opening %1 link(s) that an earlier Quillvane accepted but did not open."_s.arg(
                   entries.size());
    return entries;
}

} // namespace LinkJournal
