#include "App/RouteQueue.h"

#include <QCoreApplication>
#include <QPromise>
#include <QTimer>

RouteQueue::RouteQueue(std::function<qint64()> monotonicMs,
                       std::function<void(const Route &)> start, QObject *parent)
    : QObject(parent)
    , m_pacer(std::move(monotonicMs))
    , m_start(std::move(start))
{}

void RouteQueue::add(Route route)
{
    if (route.ticket.journal && m_waiting.isEmpty() && !m_startPosted && m_pacer.wait() == 0) {
        // The next link waits for the next turn, as if this one had waited for it.
        m_startPosted = true;
        QCoreApplication::postEvent(this, new QEvent(startEvent()), Qt::LowEventPriority);
        startNow(route);
        return;
    }
    m_waiting.append(std::move(route));
    startLater();
}

bool RouteQueue::startsAtOnce(qsizetype count)
{
    return m_waiting.isEmpty() && m_pacer.startsAtOnce() >= count;
}

QFuture<void> RouteQueue::launchTurn()
{
    const qint64 wait = m_pacer.reserve();
    if (wait == 0)
        return QtFuture::makeReadyFuture();
    auto turn = std::make_shared<QPromise<void>>();
    turn->start();
    QTimer::singleShot(wait, this, [turn] { turn->finish(); });
    return turn->future();
}

// A burst of links must not keep the next caller on the bus waiting for its
// answer until every link before it has reached its browser.
void RouteQueue::startLater()
{
    if (m_startPosted || m_waiting.isEmpty())
        return;
    m_startPosted = true;
    QCoreApplication::postEvent(this, new QEvent(startEvent()), Qt::LowEventPriority);
}

QEvent::Type RouteQueue::startEvent()
{
    static const auto type = QEvent::Type(QEvent::registerEventType());
    return type;
}

bool RouteQueue::event(QEvent *event)
{
    if (event->type() != startEvent())
        return QObject::event(event);
    m_startPosted = false;
    if (!m_waiting.isEmpty()) {
        if (const qint64 wait = m_pacer.wait(); wait > 0) {
            for (Route &route : m_waiting)
                route.ticket.beforeWaiting();
            m_startPosted = true;
            QTimer::singleShot(wait, this, [this] {
                m_startPosted = false;
                startLater();
            });
            return true;
        }
        startNow(m_waiting.takeFirst());
    }
    startLater();
    return true;
}

void RouteQueue::startNow(const Route &route)
{
    m_pacer.reserve();
    m_start(route);
}
