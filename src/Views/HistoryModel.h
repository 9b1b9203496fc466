#pragma once

#include "Models/ForwardingRecord.h"

#include <QAbstractListModel>
#include <QDateTime>

// The forwarding history as the History tab lists it, newest first: the
// records the tab's filter found in the history.
class HistoryModel final : public QAbstractListModel
{
    Q_OBJECT

public:
    enum Role
    {
        SourceNameRole = Qt::UserRole + 1, // "Unknown" without a source application
        BrowserNameRole,
        RuleRole,   // what decided: a rule, the fallback, the pause; empty without one
        PausedRole, // the rules were paused
        RelativeTimeRole,
        UrlRole
    };

    explicit HistoryModel(QObject *parent = nullptr);

    void setRecords(QList<ForwardingRecord> records);
    const QList<ForwardingRecord> &records() const { return m_records; }
    // Relative times have moved on.
    void refreshTimes();

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;

    // "{n} record", with "s" unless n is 1.
    static QString countText(qsizetype count);
    // "just now", "5 minutes ago", "1 day ago"…
    static QString relativeTime(const QDateTime &then, const QDateTime &now);

private:
    QList<ForwardingRecord> m_records;
};
