#pragma once

#include "Models/BrowserInfo.h"
#include "Models/Expected.h"
#include "Models/Link.h"
#include "Platform/DesktopEntries.h"
#include "Platform/ProcessLauncher.h"
#include "Services/LaunchOptions.h"

#include <QFuture>
#include <QList>

#include <optional>

// Opens a link in one browser, chosen by id. Never falls back to another
// browser: that is the caller's decision.
namespace BrowserLauncher {

struct LaunchError
{
    enum class Kind
    {
        BrowserNotFound,
        BrowserNotAvailable,
        OpenFailed
    };

    Kind kind;
    QString desktopId;
    QString name;
    QString path;
    QString underlying;

    QString description() const;
};

using Outcome = Expected<void, LaunchError>;

// The first listed browser with the id (ignoring case), else the installed
// desktop entry with that id. Settles with the launch's verdict: a browser
// that ends at once with an error has not opened the link.
QFuture<Outcome> open(const Link &url, const QString &desktopId, const QList<BrowserInfo> &browsers,
                      const LaunchPlatform &platform, const LaunchOptions &options = {});

QFuture<Outcome> open(const Link &url, const BrowserInfo &browser, const LaunchPlatform &platform,
                      const LaunchOptions &options = {});

// The arguments Quillvane puts before the link: the user's own, then the
// private-window option of the browser's family when asked for.
QStringList argumentsBeforeLink(const QString &desktopId, const LaunchOptions &options);

// What a verdict means for a launch of this browser.
Outcome fromVerdict(const BrowserInfo &browser, const ProcessLauncher::Result &verdict);

} // namespace BrowserLauncher
