#pragma once

#include <QFuture>
#include <QString>
#include <QStringList>

#include <optional>

// Starts browsers. Failures come back as the platform's own description.
class ProcessLauncher
{
public:
    using Failure = std::optional<QString>;

    virtual ~ProcessLauncher() = default;

    // Starts argv[0] (a path, or a name searched on PATH) with the rest as its
    // arguments: no shell, output and errors to the null device, not waited for.
    // The activation token, when there is one, lets the new window take focus.
    virtual Failure spawn(const QStringList &argv, const QString &workingDirectory,
                          const QString &activationToken) = 0;

    // Asks a D-Bus activatable application (by desktop-entry path) to open the link.
    virtual QFuture<Failure> activate(const QString &desktopEntryPath, const QString &link,
                                      const QString &activationToken) = 0;
};

// Spawns with posix_spawn (reaped by a GLib child watch on the main loop) and
// activates through GIO.
class GioProcessLauncher final : public ProcessLauncher
{
public:
    Failure spawn(const QStringList &argv, const QString &workingDirectory,
                  const QString &activationToken) override;
    QFuture<Failure> activate(const QString &desktopEntryPath, const QString &link,
                              const QString &activationToken) override;

    static GioProcessLauncher &instance();
};
