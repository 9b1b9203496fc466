#pragma once

#include "Models/ForwardingRecord.h"

#include <QDate>
#include <QList>
#include <QSettings>

// The forwarding history: newest first, at most MaxRecords, under one key.
namespace HistoryStore {

inline constexpr qsizetype MaxRecords = 500;

QList<ForwardingRecord> loadHistory(const QSettings &settings);
void record(QSettings &settings, const ForwardingRecord &record);
void clearHistory(QSettings &settings);
// Records whose time falls on the given local day (today unless told otherwise).
qsizetype todayCount(const QSettings &settings, QDate today = QDate::currentDate());

} // namespace HistoryStore
