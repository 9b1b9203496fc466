#include "Storage/ForwardingHistory.h"

#include "Storage/HistoryStore.h"

#include <QTimer>

namespace {
// How often what the history database did not take is offered to it again.
constexpr int RetryMs = 2000;

// A single-shot timer of owner's, made when first needed.
QTimer *timer(QTimer *&made, QObject *owner, int intervalMs, std::function<bool()> again)
{
    if (!made) {
        made = new QTimer(owner);
        made->setSingleShot(true);
        made->setInterval(intervalMs);
        QObject::connect(made, &QTimer::timeout, owner, [&made, again = std::move(again)] {
            if (again())
                made->start();
        });
    }
    return made;
}
} // namespace

ForwardingHistory::ForwardingHistory(HistoryDatabase &database, std::function<QDateTime()> clock,
                                     LinkJournal::Writer journal, QObject *parent)
    : QObject(parent)
    , m_database(database)
    , m_clock(std::move(clock))
    , m_journal(std::move(journal))
{
    reloadTodayForwardCount();
}

qsizetype ForwardingHistory::todayRecordCount() const
{
    return HistoryStore::todayCount(m_database);
}

QList<ForwardingRecord> ForwardingHistory::records(const QString &filter, qsizetype limit) const
{
    return HistoryStore::loadHistory(m_database, filter,
                                     limit < 0 ? HistoryStore::MaxRecords : limit);
}

void ForwardingHistory::clear()
{
    HistoryStore::clearHistory(m_database);
    Q_EMIT cleared();
}

void ForwardingHistory::setCount(const QString &day, qint64 count)
{
    m_forwardCountDay = day;
    m_todayForwardCount = count;
}

void ForwardingHistory::count(const LinkJournal::Ticket &ticket)
{
    if (ticket.counted)
        return;
    const QString day = HistoryStore::dayString(m_clock());
    if (ticket.entry == 0 && ticket.journal) {
        HistoryStore::countLater(m_database, day);
        setCount(day, day == m_forwardCountDay ? m_todayForwardCount + 1
                                               : HistoryStore::loadForwardCount(m_database, day));
    } else {
        setCount(day, HistoryStore::incrementForwardCount(m_database, day, ticket.entry));
    }
}

void ForwardingHistory::reloadTodayForwardCount()
{
    const QString day = HistoryStore::dayString(m_clock());
    setCount(day, HistoryStore::loadForwardCount(m_database, day));
}

void ForwardingHistory::journal(QList<LinkJournal::Entry> &entries)
{
    // Counted in the same write: one transaction a link fewer before its browser starts.
    const QString day = HistoryStore::dayString(m_clock());
    if (const std::optional<qint64> count =
            LinkJournal::accept(m_database, entries, m_journal, day))
        setCount(day, *count);
    keepJournalFresh();
}

QList<LinkJournal::Entry> ForwardingHistory::takeOverJournal()
{
    QList<LinkJournal::Entry> entries = LinkJournal::unfinished(m_database, m_journal);
    if (!entries.isEmpty())
        keepJournalFresh();
    return entries;
}

// While this Quillvane has links in the journal (waiting their turn, or a
// window that asks), it marks them as young now and then: should it be killed,
// their age counts from then, not from when they arrived. With nothing left, it
// stops, and nothing wakes it at rest.
void ForwardingHistory::keepJournalFresh()
{
    QTimer *fresh = timer(m_journalFreshness, this, LinkJournal::KeepFreshMs, [this] {
        return LinkJournal::keepFresh(m_database, m_journal) != 0;
    });
    if (!fresh->isActive())
        fresh->start();
}

void ForwardingHistory::keepWriting()
{
    if (m_database.unwritten().isEmpty())
        return;
    QTimer *retry =
        timer(m_retry, this, RetryMs, [this] { return !HistoryStore::flush(m_database); });
    if (!retry->isActive())
        retry->start();
}
