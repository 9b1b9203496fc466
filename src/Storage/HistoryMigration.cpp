#include "Storage/HistoryMigration.h"

#include "Platform/SystemLog.h"
#include "Storage/HistoryDatabase.h"

#include <QCryptographicHash>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcHistoryMigration, "HistoryMigration")

namespace HistoryMigration {

namespace {

const char *const MigratedKey = "migratedFromSettings";

} // namespace

std::optional<Pending> take(const QSettings &settings)
{
    if (!settings.contains(u"forwarding_history"_s) && !settings.contains(u"today_forward_count"_s)
        && !settings.contains(u"today_date"_s))
        return std::nullopt;
    const QVariant history = settings.value(u"forwarding_history"_s);
    return Pending{history.typeId() == QMetaType::QByteArray ? history.toByteArray()
                                                             : history.toString().toUtf8(),
                   settings.value(u"today_forward_count"_s).toString().trimmed().toLongLong(),
                   settings.value(u"today_date"_s).toString()};
}

bool run(const Pending &pending, HistoryDatabase &database)
{
    const QByteArray &history = pending.history;
    const qint64 count = pending.count;
    const QString &day = pending.day;
    QList<ForwardingRecord> records;
    QList<DecodeError> skipped;
    if (!history.isEmpty()) {
        auto decoded = ForwardingRecord::listFromJson(history, &skipped);
        if (decoded)
            records = std::move(decoded).value();
        else
            skipped.append(decoded.error());
    }
    // What cannot be read stays in the old settings file, which is kept.
    if (!skipped.isEmpty())
        qCCritical(lcHistoryMigration).noquote()
            << u"Some of the history in the old settings file could not be read (%1); it stays there."_s
                   .arg(skipped.first().description);

    // What this settings file held, so that the same values are never taken twice.
    QCryptographicHash fingerprint(QCryptographicHash::Sha256);
    fingerprint.addData(history);
    fingerprint.addData(u"\n%1\n%2"_s.arg(count).arg(day).toUtf8());
    const QString taken = QString::fromLatin1(fingerprint.result().toHex());

    bool alreadyTaken = false;
    const bool written = database.write([&](Sqlite::Database &sql) {
        Sqlite::Statement previous = sql.statement("SELECT value FROM meta WHERE key = ?");
        previous.bind(1, QString::fromLatin1(MigratedKey));
        alreadyTaken = previous.step() && previous.text(0) == taken;
        previous.run();
        if (alreadyTaken)
            return;
        for (auto record = records.crbegin(); record != records.crend(); ++record)
            HistoryDatabase::insertRecord(sql, *record);
        HistoryDatabase::trimHistory(sql, HistoryDatabase::MaxRecords);
        if (!day.isEmpty() && count > 0)
            HistoryDatabase::addToCount(sql, day, count);
        sql.statement("INSERT OR REPLACE INTO meta (key, value) VALUES (?, ?)")
            .bind(1, QString::fromLatin1(MigratedKey))
            .bind(2, taken)
            .run();
    });
    if (!written) {
        qCWarning(lcHistoryMigration).noquote()
            << u"The history could not be moved into the history database; it stays in the old settings file."_s;
        return false;
    }
    if (!alreadyTaken)
        qCInfo(lcHistoryMigration).noquote()
            << u"Moved %1 history record(s)%2 from the settings file into %3."_s.arg(
                   QString::number(records.size()), count > 0 ? u" and today's count"_s : QString(),
                   database.path());
    return skipped.isEmpty();
}

} // namespace HistoryMigration
