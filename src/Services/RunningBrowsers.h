#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <optional>

class ProcessApps;

// Which browsers run now, for "Prefer a browser that is already running". It
// keeps what it learnt of each process, so that a link asks the system only
// about the processes started since the one before (the first question reads
// them all), and checks again only the first process of each browser it
// names, whose id may have gone to another process meanwhile.
class RunningBrowsers final
{
public:
    explicit RunningBrowsers(ProcessApps &processes)
        : m_processes(processes)
    {}

    // Of the browsers given (ids compared ignoring case), those with a process
    // of this user now, the most recently started first (by its first process,
    // which its later helpers do not make younger), as given.
    QStringList running(const QStringList &browsers);

private:
    struct Process
    {
        quint64 started = 0;
        // Lower case; empty for a process of no application, or another user's.
        QString application;
    };
    Process identify(qint64 pid);
    // When the application's first process still running started.
    std::optional<quint64> firstStarted(const QString &application);

    ProcessApps &m_processes;
    QHash<qint64, Process> m_known;
};
