#include "Models/LinkTiming.h"

#include <QStringList>

using namespace Qt::Literals::StringLiterals;

QString LinkTiming::describe() const
{
    if (!known() || steps[Started] == 0)
        return {};
    static constexpr std::array<QStringView, StepCount> Names{
        u"sender", u"source", u"journal", u"decision", u"launch", u"start"};
    const auto ms = [](qint64 ns) { return QString::number(double(ns) / 1e6, 'f', 3); };
    QStringList parts;
    qint64 previous = arrived;
    for (size_t step = 0; step < StepCount; ++step) {
        // A step a link skipped (no sender to look up) adds nothing.
        if (steps[step] == 0)
            continue;
        parts.append(Names[step] + u' ' + ms(steps[step] - previous));
        previous = steps[step];
    }
    return u"Browser started %1 ms after the request arrived, asked to start after %2 (%3)"_s.arg(
        ms(steps[Started] - arrived), ms((steps[Spawning] ? steps[Spawning] : steps[Started]) - arrived),
        parts.join(u", "_s));
}
