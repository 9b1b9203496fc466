#pragma once

#include "Platform/ProcessLauncher.h"

#include <QHash>
#include <QString>

#include <functional>
#include <optional>

// Starts browsers through another launcher and remembers, for a few seconds,
// what it handed to each: a browser entry that only passes links back to
// Quillvane (a wrapper around its forwarder, or a copy of its own entry) would
// otherwise bounce one link between the two for ever.
class LaunchLedger final : public ProcessLauncher
{
public:
    static constexpr qint64 WindowMs = 10000;

    // now: a monotonic clock in milliseconds (tests set their own).
    explicit LaunchLedger(ProcessLauncher &launcher, std::function<qint64()> now = {});

    Expected<Verdict, QString> spawn(const QStringList &argv, const QString &workingDirectory,
                                     const QString &activationToken) override;
    QFuture<Result> activate(const QString &desktopEntryPath, const QString &link,
                             const QString &activationToken) override;

    // What was started with exactly this argument (a link) within the window:
    // the program or the desktop entry; none when nothing was.
    std::optional<QString> recentlyHandedTo(const QString &argument) const;

private:
    struct Handed
    {
        QString to;
        qint64 at = 0;
    };
    void note(const QString &argument, const QString &to);

    ProcessLauncher &m_launcher;
    std::function<qint64()> m_now;
    // By the argument's hash: a burst of long links costs a few bytes each.
    QHash<size_t, Handed> m_handed;
};
