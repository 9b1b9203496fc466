#pragma once

#include "Models/BrowserInfo.h"

#include <QList>
#include <QString>

#include <optional>

// The profiles of the browsers whose profiles Quillvane can open: Chromium
// browsers (profile id = directory name, from "Local State") and Firefox
// (profile id = name, from profiles.ini). Never fails: a missing, damaged or
// huge file gives an empty list and a log line.
namespace ProfileDiscovery {

// Larger profile files are not read: no real one comes near it.
inline constexpr qint64 MaxFileSize = 32 * 1024 * 1024;

enum class Family
{
    Chromium,
    Firefox
};

struct SupportedBrowser
{
    // The id as Quillvane writes it in profiles, whatever case the caller used.
    QString desktopId;
    Family family;
    // Where the browser keeps its profile list for this user.
    QString profileFile;
};

// The supported browser with this id (ignoring case), if it is one.
std::optional<SupportedBrowser> supportedBrowser(const QString &desktopId);

// The option that opens the browser's private window: --incognito for the
// Chromium family, --private-window for Firefox; empty for other browsers.
QString privateWindowFlag(const QString &desktopId);

// Why a profile id cannot reach a browser's command line; none when it can. An
// id that begins with "-" would be read as an option ("--headless",
// "-new-instance"), and one with a path separator or ".." would lead out of the
// browser's profile folder ("../../elsewhere"). Such profiles are left out where
// their files are read, and refused wherever an id comes in.
std::optional<QString> unusableProfileID(QStringView id);

QList<BrowserProfile> discoverProfiles(const QString &desktopId);

QList<BrowserProfile> discoverChromiumProfiles(const QString &browserId,
                                               const QString &localStatePath);
QList<BrowserProfile> discoverFirefoxProfiles(const QString &browserId,
                                              const QString &profilesIniPath);
QList<BrowserProfile> parseFirefoxProfilesIni(QStringView text, const QString &browserId);

} // namespace ProfileDiscovery
