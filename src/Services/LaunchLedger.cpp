#include "Services/LaunchLedger.h"

#include <QElapsedTimer>

LaunchLedger::LaunchLedger(ProcessLauncher &launcher, std::function<qint64()> now)
    : m_launcher(launcher)
    , m_now(now ? std::move(now) : [] {
        // QElapsedTimer's monotonic reading, shared by every ledger.
        static QElapsedTimer clock = [] {
            QElapsedTimer started;
            started.start();
            return started;
        }();
        return clock.elapsed();
    })
{}

void LaunchLedger::note(const QString &argument, const QString &to)
{
    const qint64 now = m_now();
    // Old entries go as new ones come, so the ledger stays as small as a few
    // seconds of launches.
    m_handed.removeIf([now](const auto &entry) { return now - entry.value().at > WindowMs; });
    m_handed.insert(qHash(argument, QHashSeed::globalSeed()), Handed{to, now});
}

Expected<ProcessLauncher::Verdict, QString> LaunchLedger::spawn(const QStringList &argv,
                                                                const QString &workingDirectory,
                                                                const QString &activationToken)
{
    // Noted before the start: the started program may answer before this returns.
    for (qsizetype i = 1; i < argv.size(); ++i)
        note(argv[i], argv.first());
    return m_launcher.spawn(argv, workingDirectory, activationToken);
}

QFuture<ProcessLauncher::Result> LaunchLedger::activate(const QString &desktopEntryPath,
                                                        const QString &link,
                                                        const QString &activationToken)
{
    note(link, desktopEntryPath);
    return m_launcher.activate(desktopEntryPath, link, activationToken);
}

std::optional<QString> LaunchLedger::recentlyHandedTo(const QString &argument) const
{
    const auto found = m_handed.constFind(qHash(argument, QHashSeed::globalSeed()));
    if (found == m_handed.cend() || m_now() - found->at > WindowMs)
        return std::nullopt;
    return found->to;
}
