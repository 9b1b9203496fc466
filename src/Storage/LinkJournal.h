#pragma once

#include "Models/LinkTiming.h"
#include "Models/RoutingRule.h"
#include "Platform/Lifetime.h"
#include "Storage/HistoryDatabase.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <functional>
#include <optional>
#include <utility>

// Links accepted but not yet opened, in the history database. A link that has
// to wait (behind others, for its expansion, for the user's choice) is written
// here before its sender is told that Quillvane has it, and leaves when its
// route has ended; one whose browser starts at once is answered after the start
// instead, and never written. Every Quillvane of the user writes here, whichever of them
// writes the history: each entry names the process that took it, and what a
// process that ended left behind is routed again by the next Quillvane to
// start, if it is recent enough for the user still to want it.
//
// "Recent" protects against a link opening long after it was clicked (a
// Quillvane killed at logout, started again days later). An entry's age counts
// from the last moment its process was known to work on it, on the boot-time
// clock: setting the wall clock back or forward changes nothing. Only across a
// restart of the computer is the wall clock all there is, and then an entry
// whose time lies ahead is too old to tell.
namespace LinkJournal {

// Entries older than this at the next start are dropped, not opened.
inline constexpr int ReplayWindowSeconds = 60;
// How often a running Quillvane marks the entries it still works on as its own
// and young (links waiting for their turn, a window that asks).
inline constexpr int KeepFreshMs = 5000;

enum class Kind
{
    Open = 0,  // a link to route as the rules say, from its source application
    Route = 1, // the automation's routing action, optionally in a chosen browser
};

struct Entry
{
    qint64 id = 0; // 0 until written, and when it could not be
    Kind kind = Kind::Open;
    QDateTime receivedAt;
    QString url;
    std::optional<SourceApp> source;
    QString activationToken;
    QString browser;
    bool counted = false;
};

// What a link's route needs to know of its entry.
struct Ticket
{
    qint64 entry = 0; // none: the link was not journalled
    bool counted = false;
    // For a link that is not journalled: called once it is safe all the same
    // (its browser has it, or its entry was written before a wait) or its
    // route has ended.
    std::function<void()> released{};
    LinkTiming timing{};
    // For a link taken without an entry, because its browser was to start at
    // once: writes the entry, returning its id (0 when it could not be written).
    std::function<qint64()> journal{};

    // Before the link waits (its turn, a short link's expansion, the user's
    // choice): its entry is written, and from then on it is safe.
    void beforeWaiting()
    {
        if (entry != 0 || !journal)
            return;
        entry = std::exchange(journal, {})();
        if (entry > 0 && released)
            std::exchange(released, {})();
    }
};

// The process that writes entries, and how it tells time and whether another
// writer still runs: the running Quillvane's own, or a test's.
struct Writer
{
    QString owner = Lifetime::thisProcess();
    std::function<Lifetime::Instant()> now = &Lifetime::now;
    std::function<bool(const QString &owner)> runs = &Lifetime::isRunning;
};

// Whether an entry last marked at then is still within the window at now.
bool isRecent(const Lifetime::Instant &then, const Lifetime::Instant &now);

// Writes the entries in one transaction and sets their ids (0 where not written).
// With countDay, the links to route (not the scripts' routes) also count
// towards that day's forwards, in the same transaction, and are marked
// counted; returns the day's new count then (none when not written or not asked).
// Entries marked counted were counted in memory already: their count reaches the
// file in the same transaction when this process writes the history.
std::optional<qint64> accept(HistoryDatabase &database, QList<Entry> &entries,
                             const Writer &writer, const QString &countDay = {});
// The route of the entry has ended, whatever its outcome.
void finish(HistoryDatabase &database, qint64 id);
// Marks the writer's entries as young; how many it still has (-1: not written).
qint64 keepFresh(HistoryDatabase &database, const Writer &writer);
// What Quillvanes that no longer run accepted and never finished: the recent
// entries, oldest first, now the writer's. Older entries are dropped, with a
// log line; those of a Quillvane that still runs are left to it.
QList<Entry> unfinished(HistoryDatabase &database, const Writer &writer);

} // namespace LinkJournal
