#pragma once

#include "Models/ForwardingRecord.h"

#include <QList>
#include <QSettings>

class HistoryDatabase;

// Earlier versions kept the forwarding history and today's count in the
// settings file. The first start of this one moves them into the history
// database, and removes them from the settings file only once the database
// holds them; the database remembers what it took, so a start that ends in
// between neither loses nor duplicates a record.
namespace HistoryMigration {

// False when something is left to move (the database could not be written).
bool run(QSettings &settings, HistoryDatabase &database);

// The history still waiting in the settings file, newest first (empty when
// there is none or it cannot be read).
QList<ForwardingRecord> pendingRecords(const QSettings &settings);

} // namespace HistoryMigration
