#pragma once

#include "Models/Expected.h"

#include <QFuture>
#include <QString>
#include <QStringList>

#include <optional>

// Starts browsers. Failures come back as the platform's own description.
class ProcessLauncher
{
public:
    // Done, or the platform's description of what failed.
    using Result = Expected<void, QString>;
    // How a started program fares in its first moments: done once it has run
    // for EarlyExitMs, or ended with status 0 before; failed, with the first
    // line of its error output, when it ended otherwise. A browser that cannot
    // run (Chromium as root without --no-sandbox) says so and ends at once.
    using Verdict = QFuture<Result>;
    static constexpr int EarlyExitMs = 1500;

    virtual ~ProcessLauncher() = default;

    // Starts argv[0] (a path, or a name searched on PATH) with the rest as its
    // arguments: no shell, output to the null device, never waited for beyond
    // its verdict. The activation token, when there is one, lets the new
    // window take focus. Fails when the program could not be started at all.
    virtual Expected<Verdict, QString> spawn(const QStringList &argv,
                                             const QString &workingDirectory,
                                             const QString &activationToken) = 0;

    // Asks a D-Bus activatable application (by desktop-entry path) to open the link.
    virtual QFuture<Result> activate(const QString &desktopEntryPath, const QString &link,
                                     const QString &activationToken) = 0;
};

class DesktopEntries;

// What starting a browser needs of the platform: its entry, and a way to start it.
struct LaunchPlatform
{
    DesktopEntries &entries;
    ProcessLauncher &processes;
};

// Spawns with posix_spawn (reaped by a GLib child watch on the main loop, its
// error output caught in a small sealed memory file) and activates through GIO.
class GioProcessLauncher final : public ProcessLauncher
{
public:
    Expected<Verdict, QString> spawn(const QStringList &argv, const QString &workingDirectory,
                                     const QString &activationToken) override;
    QFuture<Result> activate(const QString &desktopEntryPath, const QString &link,
                             const QString &activationToken) override;

    static GioProcessLauncher &instance();
};
