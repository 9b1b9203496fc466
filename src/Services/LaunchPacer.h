#pragma once

#include <QtGlobal>

#include <functional>

// The pace at which browsers start. A burst of links (a folder of bookmarks, a
// script gone wrong, a flood from a hostile sender) would otherwise fork
// hundreds of browsers at once and take the desktop down with them; beyond the
// burst, links wait their turn in the journal, in order, and none is dropped.
class LaunchPacer final
{
public:
    // One request's worth starts at once; then this many a second.
    static constexpr int Burst = 100;
    static constexpr int PerSecond = 20;

    // nowMs: a monotonic clock in milliseconds (tests set their own).
    explicit LaunchPacer(std::function<qint64()> nowMs = {});

    // How long until the next start may go (0: now).
    qint64 wait();
    // How many starts may go now without waiting.
    int startsAtOnce();
    // Takes the next turn; how long its start waits for it (0: not at all).
    qint64 reserve();

private:
    void refill();

    std::function<qint64()> m_now;
    // Starts that may go at once; below zero, turns already promised.
    double m_turns = Burst;
    qint64 m_refilledAt = 0;
};
