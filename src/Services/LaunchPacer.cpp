#include "Services/LaunchPacer.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cmath>

LaunchPacer::LaunchPacer(std::function<qint64()> nowMs)
    : m_now(nowMs ? std::move(nowMs) : [] {
        static QElapsedTimer clock = [] {
            QElapsedTimer started;
            started.start();
            return started;
        }();
        return clock.elapsed();
    })
    , m_refilledAt(m_now())
{}

void LaunchPacer::refill()
{
    const qint64 now = m_now();
    m_turns = std::min<double>(Burst, m_turns + double(now - m_refilledAt) * PerSecond / 1000.0);
    m_refilledAt = now;
}

qint64 LaunchPacer::wait()
{
    refill();
    return m_turns >= 1 ? 0 : qint64(std::ceil((1 - m_turns) * 1000.0 / PerSecond));
}

int LaunchPacer::startsAtOnce()
{
    refill();
    return std::max(0, int(std::floor(m_turns)));
}

qint64 LaunchPacer::reserve()
{
    const qint64 delay = wait();
    m_turns -= 1;
    return delay;
}
