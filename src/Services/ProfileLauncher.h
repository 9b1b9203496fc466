#pragma once

#include "Models/BrowserInfo.h"
#include "Models/Expected.h"
#include "Models/Link.h"
#include "Platform/DesktopEntries.h"
#include "Platform/ProcessLauncher.h"
#include "Services/LaunchOptions.h"

#include <QFuture>

#include <optional>

// Opens a link in one profile of a Chromium browser (--profile-directory=<id>)
// or of Firefox (-P <name>), by starting the browser's own command with those
// arguments. Never falls back: that is the caller's decision.
namespace ProfileLauncher {

struct LaunchError
{
    enum class Kind
    {
        BrowserExecutableNotFound,
        LaunchFailed,
        UnsupportedBrowser
    };

    Kind kind;
    // The browser's desktop entry, for BrowserExecutableNotFound.
    QString browserPath;
    QString underlying;
    QString desktopId;

    QString description() const;
};

using Outcome = Expected<void, LaunchError>;

// The arguments that choose the profile, for a browser of that family.
QStringList profileArguments(const QString &desktopId, const QString &profileID);

// The profile a browser's command line chose by those arguments; none when it
// chose none, or when it names its own folder of profiles (--user-data-dir,
// --profile), which the profiles Quillvane lists are not in.
std::optional<QString> startedProfile(const QStringList &arguments);

// Settles with the launch's verdict, as the browser launcher's does.
QFuture<Outcome> open(const Link &url, const BrowserInfo &browser, const QString &profileID,
                      const LaunchPlatform &platform, const LaunchOptions &options = {});

} // namespace ProfileLauncher
