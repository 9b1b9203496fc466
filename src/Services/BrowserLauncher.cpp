#include "Services/BrowserLauncher.h"

#include "Platform/SystemLog.h"
#include "Services/ExecLine.h"
#include "Services/ProfileDiscovery.h"

#include <QFileInfo>
#include <QPromise>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcBrowserLauncher, "BrowserLauncher")

namespace BrowserLauncher {

namespace {

LaunchError openFailed(const BrowserInfo &browser, const QString &underlying)
{
    qCCritical(lcBrowserLauncher).noquote()
        << u"Failed to open URL in %1: %2"_s.arg(SystemLog::priv(browser.name), underlying);
    return LaunchError{LaunchError::Kind::OpenFailed, browser.desktopId, browser.name,
                       browser.path.toLocalFile(), underlying};
}

void logSuccess(const BrowserInfo &browser)
{
    qCInfo(lcBrowserLauncher).noquote()
        << u"Successfully opened URL in %1"_s.arg(SystemLog::priv(browser.name));
}

} // namespace

QString LaunchError::description() const
{
    switch (kind) {
    case Kind::BrowserNotFound:
        return u"No browser found with bundle ID: %1"_s.arg(desktopId);
    case Kind::BrowserNotAvailable:
        return u"Browser \"%1\" is not available at %2"_s.arg(name, path);
    case Kind::OpenFailed:
        return u"Failed to open URL: %1"_s.arg(underlying);
    }
    return {};
}

QStringList argumentsBeforeLink(const QString &desktopId, const LaunchOptions &options)
{
    QStringList arguments = options.extraArguments;
    if (options.privateWindow) {
        const QString flag = ProfileDiscovery::privateWindowFlag(desktopId);
        if (!flag.isEmpty())
            arguments.append(flag);
    }
    return arguments;
}

Outcome fromVerdict(const BrowserInfo &browser, const ProcessLauncher::Result &verdict)
{
    if (!verdict)
        return openFailed(browser, browser.name + u' ' + verdict.error());
    logSuccess(browser);
    return {};
}

QFuture<Outcome> open(const Link &url, const QString &desktopId, const QList<BrowserInfo> &browsers,
                      const LaunchPlatform &platform, const LaunchOptions &options)
{
    for (const BrowserInfo &browser : browsers) {
        if (browser.desktopId.compare(desktopId, Qt::CaseInsensitive) == 0)
            return open(url, browser, platform, options);
    }
    qCInfo(lcBrowserLauncher).noquote()
        << u"Browser %1 not in provided list, attempting system lookup"_s.arg(
               SystemLog::priv(desktopId));
    const auto entry = desktopId.isEmpty() ? std::nullopt : platform.entries.entry(desktopId);
    if (!entry) {
        qCCritical(lcBrowserLauncher).noquote()
            << u"Browser not found: %1"_s.arg(SystemLog::priv(desktopId));
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::BrowserNotFound, desktopId, {}, {}, {}});
    }
    const BrowserInfo found{desktopId, QFileInfo(entry->path).completeBaseName(),
                            QUrl::fromLocalFile(entry->path)};
    return open(url, found, platform, options);
}

QFuture<Outcome> open(const Link &url, const BrowserInfo &browser, const LaunchPlatform &platform,
                      const LaunchOptions &options)
{
    const QString path = browser.path.toLocalFile();
    if (path.isEmpty() || !QFileInfo::exists(path)) {
        qCCritical(lcBrowserLauncher).noquote() << u"Browser not available: %1 at %2"_s.arg(
            SystemLog::priv(browser.name), SystemLog::priv(path));
        return QtFuture::makeReadyFuture<Outcome>(LaunchError{
            LaunchError::Kind::BrowserNotAvailable, browser.desktopId, browser.name, path, {}});
    }
    qCInfo(lcBrowserLauncher).noquote() << u"Opening %1 with %2 (%3)"_s.arg(
        SystemLog::priv(url.toString()), SystemLog::priv(browser.name),
        SystemLog::priv(browser.desktopId));

    const auto entry = platform.entries.entryAt(path);
    if (!entry)
        return QtFuture::makeReadyFuture<Outcome>(
            openFailed(browser, u"The desktop entry %1 cannot be read."_s.arg(path)));

    const QStringList beforeLink = argumentsBeforeLink(browser.desktopId, options);
    // Activation takes links only: arguments need the entry's command line.
    if (entry->dbusActivatable && (beforeLink.isEmpty() || entry->exec.isEmpty())) {
        return platform.processes.activate(path, url.toString(), options.activationToken)
            .then([browser, started = options.started](const ProcessLauncher::Result &activated) {
                if (activated && started)
                    started();
                return activated ? fromVerdict(browser, activated)
                                 : Outcome(openFailed(browser, activated.error()));
            });
    }

    const auto argv = ExecLine::split(entry->exec);
    if (!argv)
        return QtFuture::makeReadyFuture<Outcome>(openFailed(browser, argv.error().description));
    const QStringList command = ExecLine::forLink(*argv, *entry, url.toString(), beforeLink);
    if (const auto refused = ExecLine::linkRunsAsCode(command, url.toString(), path))
        return QtFuture::makeReadyFuture<Outcome>(openFailed(browser, *refused));
    if (options.spawning)
        options.spawning();
    auto spawned = platform.processes.spawn(command, entry->workingDirectory, options.activationToken);
    if (!spawned)
        return QtFuture::makeReadyFuture<Outcome>(openFailed(browser, spawned.error()));
    if (options.started)
        options.started();
    return std::move(spawned).value().then(
        [browser](const ProcessLauncher::Result &verdict) { return fromVerdict(browser, verdict); });
}

} // namespace BrowserLauncher
