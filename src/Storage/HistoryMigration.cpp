#include "Storage/HistoryMigration.h"

#include "Platform/SystemLog.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/SettingsKeys.h"
#include "Storage/UserSettings.h"

#include <QCryptographicHash>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcHistoryMigration, "HistoryMigration")

namespace HistoryMigration {

namespace {

const char *const MigratedKey = "migratedFromSettings";

bool hasAnything(const QSettings &settings)
{
    return SettingsKeys::contains(settings, SettingsKeys::ForwardingHistory)
           || SettingsKeys::contains(settings, SettingsKeys::TodayForwardCount)
           || SettingsKeys::contains(settings, SettingsKeys::TodayDate);
}

} // namespace

QList<ForwardingRecord> pendingRecords(const QSettings &settings)
{
    const auto data = SettingsKeys::read(settings, SettingsKeys::ForwardingHistory);
    if (!data)
        return {};
    QList<DecodeError> skipped;
    auto records = ForwardingRecord::listFromJson(*data, &skipped);
    return records ? std::move(records).value() : QList<ForwardingRecord>();
}

bool run(QSettings &settings, HistoryDatabase &database)
{
    if (!hasAnything(settings))
        return true;
    const QByteArray history =
        SettingsKeys::read(settings, SettingsKeys::ForwardingHistory).value_or(QByteArray());
    const qint64 count = SettingsKeys::read(settings, SettingsKeys::TodayForwardCount);
    const QString day = SettingsKeys::read(settings, SettingsKeys::TodayDate);
    QList<ForwardingRecord> records;
    QList<DecodeError> skipped;
    if (!history.isEmpty()) {
        auto decoded = ForwardingRecord::listFromJson(history, &skipped);
        if (decoded)
            records = std::move(decoded).value();
        else
            skipped.append(decoded.error());
    }
    // What cannot be read stays in a copy of the file, which loses it next.
    if (!skipped.isEmpty()) {
        const QString copy = UserSettings::keepDamagedCopy(settings);
        qCCritical(lcHistoryMigration).noquote()
            << u"Some of the history in the settings file could not be read (%1) and is not moved; %2"_s
                   .arg(skipped.first().description,
                        copy.isEmpty()
                            ? u"the file cannot be copied aside, so it is left as it is."_s
                            : u"the file as it was is kept as %1."_s.arg(SystemLog::priv(copy)));
        if (copy.isEmpty())
            return false;
    }

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
            << u"The history stays in the settings file until the history database can be written."_s;
        return false;
    }
    settings.remove(SettingsKeys::ForwardingHistory.name.toString());
    settings.remove(SettingsKeys::TodayForwardCount.name.toString());
    settings.remove(SettingsKeys::TodayDate.name.toString());
    UserSettings::commit(settings);
    if (!alreadyTaken)
        qCInfo(lcHistoryMigration).noquote()
            << u"Moved %1 history record(s)%2 from the settings file into %3."_s.arg(
                   QString::number(records.size()), count > 0 ? u" and today's count"_s : QString(),
                   database.path());
    return true;
}

} // namespace HistoryMigration
