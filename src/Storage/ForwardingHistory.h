#pragma once

#include "Models/ForwardingRecord.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/LinkJournal.h"

#include <QDateTime>
#include <QList>
#include <QObject>

#include <functional>

class QTimer;

// What Quillvane remembers of links: today's count, the forwarding history and
// the intake journal of links not opened yet, over the one history database;
// and the timers that keep it written while the database refuses and keep the
// journal young while links wait.
class ForwardingHistory final : public QObject
{
    Q_OBJECT

public:
    ForwardingHistory(HistoryDatabase &database, std::function<QDateTime()> clock,
                      LinkJournal::Writer journal, QObject *parent = nullptr);

    HistoryDatabase &database() const { return m_database; }

    // Links handed to the pipeline today.
    qint64 todayForwardCount() const { return m_todayForwardCount; }
    // Forwardings recorded in the history today (what the tray menu shows).
    qsizetype todayRecordCount() const;
    // The forwarding history, newest first, filtered as the History pane
    // filters it (empty: everything); at most limit records.
    QList<ForwardingRecord> records(const QString &filter = {}, qsizetype limit = -1) const;
    void clear();

    // Counts a link arriving (unless it was counted before a restart). One
    // taken without an entry is counted with its history record, after its
    // browser has started: nothing is written before.
    void count(const LinkJournal::Ticket &ticket);
    // Reads today's count again (after the history moved into the database).
    void reloadTodayForwardCount();
    // Writes links into the intake journal (their ids set; 0 where it could
    // not), counted in the same write, and keeps them young there while they
    // wait for their turn.
    void journal(QList<LinkJournal::Entry> &entries);
    // What Quillvanes that ended left in the journal, now this one's to open.
    QList<LinkJournal::Entry> takeOverJournal();
    // Tries again, now and then, to write what the database did not take.
    void keepWriting();

Q_SIGNALS:
    void cleared();

private:
    void keepJournalFresh();
    void setCount(const QString &day, qint64 count);

    HistoryDatabase &m_database;
    std::function<QDateTime()> m_clock;
    LinkJournal::Writer m_journal;
    QTimer *m_retry = nullptr;
    QTimer *m_journalFreshness = nullptr;
    qint64 m_todayForwardCount = 0;
    QString m_forwardCountDay; // the day m_todayForwardCount counts
};
