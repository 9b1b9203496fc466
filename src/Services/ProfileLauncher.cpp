#include "Services/ProfileLauncher.h"

#include "Platform/SystemLog.h"
#include "Services/BrowserLauncher.h"
#include "Services/ExecLine.h"
#include "Services/ProfileDiscovery.h"

#include <QFileInfo>
#include <QPromise>
#include <QStandardPaths>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcProfileLauncher, "ProfileLauncher")

namespace ProfileLauncher {

namespace {

// The program's full path when it can be started: an absolute path that is an
// executable file, or a name found on PATH.
QString executablePath(const QString &program)
{
    if (program.contains(u'/')) {
        const QFileInfo info(program);
        return info.isFile() && info.isExecutable() ? info.absoluteFilePath() : QString();
    }
    return QStandardPaths::findExecutable(program);
}

} // namespace

QString LaunchError::description() const
{
    switch (kind) {
    case Kind::BrowserExecutableNotFound:
        return u"Browser executable not found at %1"_s.arg(browserPath);
    case Kind::LaunchFailed:
        return u"Failed to launch browser with profile: %1"_s.arg(underlying);
    case Kind::UnsupportedBrowser:
        return u"Profile launch is not supported for browser: %1"_s.arg(desktopId);
    }
    return {};
}

QStringList profileArguments(const QString &desktopId, const QString &profileID)
{
    const auto browser = ProfileDiscovery::supportedBrowser(desktopId);
    if (!browser)
        return {};
    if (browser->family == ProfileDiscovery::Family::Firefox)
        return {u"-P"_s, profileID};
    return {u"--profile-directory="_s + profileID};
}

std::optional<QString> startedProfile(const QStringList &arguments)
{
    std::optional<QString> profile;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument.startsWith(u"--user-data-dir"_s) || argument == u"--profile"_s
            || argument == u"-profile"_s)
            return std::nullopt;
        if (argument.startsWith(u"--profile-directory="_s))
            profile = argument.sliced(20);
        else if ((argument == u"-P"_s || argument == u"--profile-directory"_s)
                 && i + 1 < arguments.size())
            profile = arguments[++i];
    }
    return profile && !profile->isEmpty() ? profile : std::nullopt;
}

QFuture<Outcome> open(const Link &url, const BrowserInfo &browser, const QString &profileID,
                      const LaunchPlatform &platform, const LaunchOptions &options)
{
    const auto supported = ProfileDiscovery::supportedBrowser(browser.desktopId);
    if (!supported) {
        qCCritical(lcProfileLauncher).noquote()
            << u"Unsupported browser for profile launch: %1"_s.arg(
                   SystemLog::priv(browser.desktopId));
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::UnsupportedBrowser, {}, {}, browser.desktopId});
    }
    const QString family =
        supported->family == ProfileDiscovery::Family::Firefox ? u"Firefox"_s : u"Chromium"_s;
    // A rule stored before ids were checked (or edited by hand) must not put an
    // option on the browser's command line.
    if (const auto unusable = ProfileDiscovery::unusableProfileID(profileID)) {
        qCCritical(lcProfileLauncher).noquote()
            << u"Failed to launch %1: %2"_s.arg(family, SystemLog::priv(*unusable));
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::LaunchFailed, {}, *unusable, {}});
    }
    const QString entryPath = browser.path.toLocalFile();

    const auto entry = platform.entries.entryAt(entryPath);
    const auto argv = entry ? ExecLine::split(entry->exec) : ExecLine::split(QString());
    if (entry && !argv) {
        qCCritical(lcProfileLauncher).noquote()
            << u"Failed to launch %1: %2"_s.arg(family, argv.error().description);
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::LaunchFailed, {}, argv.error().description, {}});
    }
    // The profile's options go where the entry's own options end, as any of Quillvane's.
    QStringList command =
        argv ? ExecLine::forLink(*argv, *entry, url.toString(),
                                 profileArguments(browser.desktopId, profileID)
                                     + BrowserLauncher::argumentsBeforeLink(browser.desktopId,
                                                                            options))
             : QStringList();
    const QString program = command.isEmpty() ? QString() : executablePath(command.first());
    if (program.isEmpty()) {
        qCCritical(lcProfileLauncher).noquote()
            << u"%1 executable not found in %2"_s.arg(family, SystemLog::priv(entryPath));
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::BrowserExecutableNotFound, entryPath, {}, {}});
    }
    command.first() = program;

    qCInfo(lcProfileLauncher).noquote() << u"Launching %1 at %2 with profile %3 for %4"_s.arg(
        family, SystemLog::priv(program), SystemLog::priv(profileID),
        SystemLog::priv(url.toString()));
    if (const auto refused = ExecLine::linkRunsAsCode(command, url.toString(), entryPath)) {
        qCCritical(lcProfileLauncher).noquote() << SystemLog::priv(*refused);
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::LaunchFailed, {}, *refused, {}});
    }
    if (options.spawning)
        options.spawning();
    auto spawned =
        platform.processes.spawn(command, entry->workingDirectory, options.activationToken);
    if (!spawned) {
        qCCritical(lcProfileLauncher).noquote()
            << u"Failed to launch %1: %2"_s.arg(family, spawned.error());
        return QtFuture::makeReadyFuture<Outcome>(
            LaunchError{LaunchError::Kind::LaunchFailed, {}, spawned.error(), {}});
    }
    if (options.started)
        options.started();
    return std::move(spawned).value().then(
        [family, profileID, name = browser.name](const ProcessLauncher::Result &verdict) -> Outcome {
            if (!verdict) {
                const QString why = name + u' ' + verdict.error();
                qCCritical(lcProfileLauncher).noquote()
                    << u"Failed to launch %1: %2"_s.arg(family, SystemLog::priv(why));
                return LaunchError{LaunchError::Kind::LaunchFailed, {}, why, {}};
            }
            qCInfo(lcProfileLauncher).noquote() << u"Successfully launched %1 with profile %2"_s.arg(
                family, SystemLog::priv(profileID));
            return {};
        });
}

} // namespace ProfileLauncher
