#pragma once

#include "Models/RoutingRule.h"
#include "Storage/HistoryDatabase.h"

#include <QDateTime>
#include <QList>
#include <QString>

#include <optional>

// Links accepted but not yet opened, in the history database. A link is written
// here before its sender is told that Quillvane has it, and leaves when its
// route has ended; what a Quillvane that was killed leaves behind is routed
// again by the next one, if it is recent enough for the user still to want it.
namespace LinkJournal {

// Entries older than this at the next start are dropped, not opened.
inline constexpr int ReplayWindowSeconds = 60;

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
};

// Writes the entries in one transaction and sets their ids.
void accept(HistoryDatabase &database, QList<Entry> &entries);
// The route of the entry has ended, whatever its outcome.
void finish(HistoryDatabase &database, qint64 id);
// What an earlier run accepted and never finished: the entries received within
// the window before now, oldest first. Older entries are dropped, with a log line.
QList<Entry> unfinished(HistoryDatabase &database, const QDateTime &now);

} // namespace LinkJournal
