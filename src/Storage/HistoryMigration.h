#pragma once

#include "Models/ForwardingRecord.h"

#include <QList>
#include <QSettings>

#include <optional>

class HistoryDatabase;

// Earlier versions kept the forwarding history and today's count in the
// settings file. The first start of this one takes them from there before the
// file is moved aside, and moves them into the history database; the database
// remembers what it took, so a start that ends in between neither loses nor
// duplicates a record.
namespace HistoryMigration {

struct Pending
{
    QByteArray history;
    qint64 count = 0;
    QString day;
};

// What the settings file still holds; none when nothing.
std::optional<Pending> take(const QSettings &settings);
// False when it could not be moved (the database could not be written, or
// part of it could not be read): it stays in the old settings file, kept.
bool run(const Pending &pending, HistoryDatabase &database);

} // namespace HistoryMigration
