#pragma once

#include <QString>

#include <array>
#include <chrono>

// When a link passed each step between the arrival of its request and the
// start of its browser, on the monotonic clock: the trail states it for each
// link, so that a slow click can be told apart from a slow browser.
struct LinkTiming
{
    enum Step { SenderKnown, SourceFound, Journalled, Decided, Spawning, Started, StepCount };

    static qint64 nowNs()
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void mark(Step step) { steps[size_t(step)] = nowNs(); }
    bool known() const { return arrived > 0; }
    // "Browser started 0.92 ms after the request arrived, asked to start after
    // 0.41 (sender 0.21, …)"; empty when the arrival is not known (a link from
    // the journal or a script). The start itself (the kernel's process
    // creation) is what any start of the browser costs.
    QString describe() const;

    qint64 arrived = 0;
    std::array<qint64, StepCount> steps{};
};
