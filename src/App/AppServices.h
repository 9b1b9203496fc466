#pragma once

#include "Models/Link.h"
#include "Platform/Autostart.h"
#include "Platform/DesktopEntries.h"
#include "Platform/Notifications.h"
#include "Platform/ProcessLauncher.h"
#include "Services/ProfileDiscovery.h"
#include "Services/URLExpander.h"
#include "Storage/LinkJournal.h"

#include <QDateTime>
#include <QFuture>
#include <QTimer>

#include <chrono>

#include <functional>

// What the application state needs of the world outside it. The running
// application passes the real platform; tests pass their own pieces.
struct AppServices
{
    DesktopEntries &entries;
    ProcessLauncher &processes;
    Autostart &autostart;
    std::function<bool(const Link &)> isShortLink = &URLExpander::isShortLink;
    std::function<QFuture<Link>(const Link &)> expand = [](const Link &url) {
        return URLExpander::expand(url);
    };
    std::function<QDateTime()> clock = [] { return QDateTime::currentDateTime(); };
    // A monotonic clock in milliseconds for pacing browser starts (none: the system's).
    std::function<qint64()> monotonicMs{};
    // Who writes the intake journal, and its clocks.
    LinkJournal::Writer journal{};
    // A browser's profiles, as its own files list them now.
    std::function<QList<BrowserProfile>(const QString &desktopId)> profiles =
        &ProfileDiscovery::discoverProfiles;
    // Tells the user what went wrong with a link nobody waits for.
    std::function<void(const QString &summary, const QString &body)> notify = &Notifications::show;
    // Runs work on context's thread after a delay, unless context is gone by then.
    using Later =
        std::function<void(std::chrono::milliseconds, QObject *context, std::function<void()>)>;
    Later later = [](std::chrono::milliseconds delay, QObject *context,
                     std::function<void()> work) {
        QTimer::singleShot(delay, context, std::move(work));
    };
};
