#pragma once

#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "Services/LaunchPacer.h"
#include "Storage/LinkJournal.h"

#include <QEvent>
#include <QFuture>
#include <QList>
#include <QObject>

#include <functional>
#include <optional>

// The links counted and waiting for their route to start, oldest first, and
// the pace browsers start at. A click's link with nothing before it starts at
// once; the links of a burst start one per turn of the event loop, behind
// everything else that waits, and beyond the pacer's burst at its pace.
class RouteQueue final : public QObject
{
public:
    struct Route
    {
        Link url;
        std::optional<SourceApp> source;
        QString activationToken;
        LinkJournal::Ticket ticket;
    };

    // start: begins a route's work (the queue has already taken its turn).
    RouteQueue(std::function<qint64()> monotonicMs, std::function<void(const Route &)> start,
               QObject *parent = nullptr);

    void add(Route route);
    // Whether this many links routed now would start their browsers without
    // waiting: nothing queued before them, and the pace allows them all.
    bool startsAtOnce(qsizetype count);
    // Settles when a browser may start: at once, or when the pace allows.
    QFuture<void> launchTurn();

protected:
    bool event(QEvent *event) override;

private:
    void startLater();
    void startNow(const Route &route);
    static QEvent::Type startEvent();

    LaunchPacer m_pacer;
    std::function<void(const Route &)> m_start;
    QList<Route> m_waiting;
    bool m_startPosted = false;
};
