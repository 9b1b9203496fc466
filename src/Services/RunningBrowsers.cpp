#include "Services/RunningBrowsers.h"

#include "Platform/ProcessApps.h"

#include <QSet>

#include <algorithm>

RunningBrowsers::Process RunningBrowsers::identify(qint64 pid)
{
    const ProcessApps::Lookup found = m_processes.lookup(pid);
    if (found.kind != ProcessApps::Lookup::Kind::Application)
        return {};
    return Process{m_processes.startTime(pid).value_or(0), found.desktopId.toLower()};
}

std::optional<quint64> RunningBrowsers::firstStarted(const QString &application)
{
    // Each turn either confirms the first process or reads it again; a process
    // read again that is no longer the application's drops out.
    for (qsizetype turn = 0; turn <= m_known.size(); ++turn) {
        qint64 first = 0;
        quint64 started = 0;
        for (auto process = m_known.cbegin(); process != m_known.cend(); ++process) {
            if (process->application == application && (first == 0 || process->started < started)) {
                first = process.key();
                started = process->started;
            }
        }
        if (first == 0)
            return std::nullopt;
        if (m_processes.startTime(first) == started)
            return started;
        m_known.insert(first, identify(first));
    }
    return std::nullopt;
}

QStringList RunningBrowsers::running(const QStringList &browsers)
{
    QHash<qint64, Process> now;
    now.reserve(m_known.size());
    for (const qint64 pid : m_processes.allProcessIds()) {
        const auto known = m_known.constFind(pid);
        now.insert(pid, known == m_known.cend() ? identify(pid) : *known);
    }
    m_known = std::move(now);

    QList<std::pair<quint64, QString>> found;
    QSet<QString> asked;
    for (const QString &browser : browsers) {
        const QString application = browser.toLower();
        if (asked.contains(application))
            continue;
        asked.insert(application);
        if (const std::optional<quint64> started = firstStarted(application))
            found.append({*started, browser});
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const auto &a, const auto &b) { return a.first > b.first; });
    QStringList newestFirst;
    for (const auto &[started, browser] : std::as_const(found))
        newestFirst.append(browser);
    return newestFirst;
}
