#include "Services/ProfileDiscovery.h"

#include "Models/DisplayText.h"
#include "Platform/SystemLog.h"
#include "Services/LocalStateReader.h"

#include <QCollator>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStringDecoder>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcProfileDiscovery, "ProfileDiscovery")

namespace ProfileDiscovery {

namespace {

enum class Home
{
    Config,
    Home
};

struct KnownBrowser
{
    QStringView id;
    Family family;
    Home base;
    // Below the base: the directory holding "Local State" or profiles.ini.
    QStringView directory;
};

// Native packages, Flatpak and Snap builds of each browser keep their profiles
// in a home of their own.
constexpr KnownBrowser KnownBrowsers[] = {
    {u"google-chrome", Family::Chromium, Home::Config, u"google-chrome"},
    {u"google-chrome-beta", Family::Chromium, Home::Config, u"google-chrome-beta"},
    {u"google-chrome-unstable", Family::Chromium, Home::Config, u"google-chrome-unstable"},
    {u"com.google.Chrome", Family::Chromium, Home::Home,
     u".var/app/com.google.Chrome/config/google-chrome"},
    {u"microsoft-edge", Family::Chromium, Home::Config, u"microsoft-edge"},
    {u"microsoft-edge-beta", Family::Chromium, Home::Config, u"microsoft-edge-beta"},
    {u"microsoft-edge-dev", Family::Chromium, Home::Config, u"microsoft-edge-dev"},
    {u"com.microsoft.Edge", Family::Chromium, Home::Home,
     u".var/app/com.microsoft.Edge/config/microsoft-edge"},
    {u"firefox", Family::Firefox, Home::Home, u".mozilla/firefox"},
    {u"firefox-esr", Family::Firefox, Home::Home, u".mozilla/firefox"},
    {u"org.mozilla.firefox", Family::Firefox, Home::Home,
     u".var/app/org.mozilla.firefox/.mozilla/firefox"},
    {u"firefox_firefox", Family::Firefox, Home::Home, u"snap/firefox/common/.mozilla/firefox"},
    {u"chromium", Family::Chromium, Home::Config, u"chromium"},
    {u"chromium-browser", Family::Chromium, Home::Config, u"chromium"},
    {u"chromium_chromium", Family::Chromium, Home::Home, u"snap/chromium/common/chromium"},
    {u"org.chromium.Chromium", Family::Chromium, Home::Home,
     u".var/app/org.chromium.Chromium/config/chromium"},
    {u"brave-browser", Family::Chromium, Home::Config, u"BraveSoftware/Brave-Browser"},
    {u"com.brave.Browser", Family::Chromium, Home::Home,
     u".var/app/com.brave.Browser/config/BraveSoftware/Brave-Browser"},
    {u"vivaldi-stable", Family::Chromium, Home::Config, u"vivaldi"},
    {u"com.vivaldi.Vivaldi", Family::Chromium, Home::Home,
     u".var/app/com.vivaldi.Vivaldi/config/vivaldi"},
};

QString configHome()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
}

// Recent Firefox keeps its profiles under $XDG_CONFIG_HOME when ~/.mozilla does
// not exist; the Flatpak build does the same inside its own home.
QString firefoxDirectory(const KnownBrowser &browser)
{
    const QString home = QDir::homePath();
    const QString legacy = home + u'/' + browser.directory;
    if (QFileInfo::exists(legacy))
        return legacy;
    if (browser.id == u"firefox" || browser.id == u"firefox-esr")
        return configHome() + u"/mozilla/firefox";
    if (browser.id == u"org.mozilla.firefox")
        return home + u"/.var/app/org.mozilla.firefox/config/mozilla/firefox";
    return legacy;
}

QString chromiumDirectory(const KnownBrowser &browser)
{
    if (browser.id == u"google-chrome") {
        const QString chromeHome = qEnvironmentVariable("CHROME_CONFIG_HOME");
        if (!chromeHome.isEmpty())
            return chromeHome + u"/google-chrome";
    }
    const QString base = browser.base == Home::Config ? configHome() : QDir::homePath();
    return base + u'/' + browser.directory;
}

// The file's bytes, or nothing (with the log line) when it is missing,
// unreadable or too large.
std::optional<QByteArray> readProfileFile(const QString &path, QStringView what)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcProfileDiscovery).noquote()
            << u"%1 not found at %2"_s.arg(what, SystemLog::priv(path));
        return std::nullopt;
    }
    QFile file(path);
    if (info.size() > MaxFileSize || !file.open(QIODevice::ReadOnly)) {
        qCCritical(lcProfileDiscovery).noquote()
            << u"Could not read %1 at %2"_s.arg(what, SystemLog::priv(path));
        return std::nullopt;
    }
    const QByteArray bytes = file.readAll();
    if (bytes.size() > MaxFileSize || file.error() != QFileDevice::NoError) {
        qCCritical(lcProfileDiscovery).noquote()
            << u"Could not read %1 at %2"_s.arg(what, SystemLog::priv(path));
        return std::nullopt;
    }
    return bytes;
}

bool isProfileSection(QStringView name)
{
    if (!name.startsWith(u"Profile"))
        return false;
    const QStringView rest = name.sliced(7);
    return std::all_of(rest.begin(), rest.end(), [](QChar c) { return c.isDigit(); });
}

bool isLineBreak(QChar c)
{
    return c == u'\n' || c == u'\r' || c == u'\v' || c == u'\f' || c == QChar(0x85)
           || c == QChar(0x2028) || c == QChar(0x2029);
}

// The profile unless its id is unusable, which is logged.
std::optional<BrowserProfile> usableProfile(const QString &id, const QString &name,
                                            const QString &browserId)
{
    if (const auto why = unusableProfileID(id)) {
        qCWarning(lcProfileDiscovery).noquote()
            << u"Leaving out a profile of %1: %2"_s.arg(browserId, *why);
        return std::nullopt;
    }
    // Names are shown in menus, lists and terminals: a line break or an escape
    // sequence in one is written out, here, once.
    return BrowserProfile{id, DisplayText::escapeControls(name), browserId};
}

} // namespace

std::optional<QString> unusableProfileID(QStringView id)
{
    QString why;
    if (id.isEmpty())
        why = u"it is empty"_s;
    else if (id.startsWith(u'-'))
        why = u"it begins with “-”, so the browser would take it for an option"_s;
    else if (id.contains(u'/') || id.contains(u'\\'))
        why = u"it holds a path separator"_s;
    else if (id.contains(u".."))
        why = u"it holds “..”"_s;
    else if (DisplayText::escapeControls(id) != id)
        why = u"it holds a control character"_s;
    else
        return std::nullopt;
    return u"The profile “%1” cannot be used: %2."_s.arg(
        DisplayText::escapeControls(id.left(200)), why);
}

std::optional<SupportedBrowser> supportedBrowser(const QString &desktopId)
{
    for (const KnownBrowser &browser : KnownBrowsers) {
        if (browser.id.compare(desktopId, Qt::CaseInsensitive) != 0)
            continue;
        const QString directory = browser.family == Family::Firefox ? firefoxDirectory(browser)
                                                                    : chromiumDirectory(browser);
        const QString file =
            browser.family == Family::Firefox ? u"/profiles.ini"_s : u"/Local State"_s;
        return SupportedBrowser{browser.id.toString(), browser.family, directory + file};
    }
    return std::nullopt;
}

QString privateWindowFlag(const QString &desktopId)
{
    const auto browser = supportedBrowser(desktopId);
    if (!browser)
        return {};
    return browser->family == Family::Firefox ? u"--private-window"_s : u"--incognito"_s;
}

QList<BrowserProfile> discoverProfiles(const QString &desktopId)
{
    const auto browser = supportedBrowser(desktopId);
    if (!browser) {
        qCDebug(lcProfileDiscovery).noquote()
            << u"Unsupported browser for profile discovery: %1"_s.arg(SystemLog::priv(desktopId));
        return {};
    }
    if (browser->family == Family::Firefox)
        return discoverFirefoxProfiles(browser->desktopId, browser->profileFile);
    return discoverChromiumProfiles(browser->desktopId, browser->profileFile);
}

QList<BrowserProfile> discoverChromiumProfiles(const QString &browserId,
                                               const QString &localStatePath)
{
    const auto bytes = readProfileFile(localStatePath, u"Local State file");
    if (!bytes)
        return {};
    const auto entries = LocalStateReader::read(*bytes);
    if (!entries && entries.error().kind == LocalStateReader::Error::Kind::NotJson) {
        qCCritical(lcProfileDiscovery).noquote()
            << u"Failed to parse Local State JSON at %1: %2"_s.arg(SystemLog::priv(localStatePath),
                                                                   entries.error().description);
        return {};
    }
    if (!entries) {
        qCCritical(lcProfileDiscovery).noquote()
            << u"Local State file has unexpected structure at %1"_s.arg(
                   SystemLog::priv(localStatePath));
        return {};
    }

    QList<BrowserProfile> profiles;
    for (const LocalStateReader::Entry &entry : *entries) {
        if (!entry.name) {
            qCDebug(lcProfileDiscovery).noquote()
                << u"Skipping malformed profile entry: %1"_s.arg(SystemLog::priv(entry.directory));
            continue;
        }
        if (auto profile = usableProfile(entry.directory, *entry.name, browserId))
            profiles.append(std::move(*profile));
    }
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(profiles.begin(), profiles.end(),
                     [&collator](const BrowserProfile &a, const BrowserProfile &b) {
                         return collator.compare(a.id, b.id) < 0;
                     });
    qCInfo(lcProfileDiscovery).noquote() << u"Discovered %1 profile(s) for %2"_s.arg(
        QString::number(profiles.size()), browserId);
    return profiles;
}

QList<BrowserProfile> discoverFirefoxProfiles(const QString &browserId,
                                              const QString &profilesIniPath)
{
    const auto bytes = readProfileFile(profilesIniPath, u"Firefox profiles.ini");
    if (!bytes)
        return {};
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(*bytes);
    if (decoder.hasError() || bytes->contains('\0')) {
        qCCritical(lcProfileDiscovery).noquote()
            << u"Could not read Firefox profiles.ini at %1"_s.arg(SystemLog::priv(profilesIniPath));
        return {};
    }
    const QList<BrowserProfile> profiles = parseFirefoxProfilesIni(text, browserId);
    qCInfo(lcProfileDiscovery).noquote()
        << u"Discovered %1 Firefox profile(s)"_s.arg(profiles.size());
    return profiles;
}

QList<BrowserProfile> parseFirefoxProfilesIni(QStringView text, const QString &browserId)
{
    QList<BrowserProfile> profiles;
    bool inProfile = false;
    // Not an optional: GCC 12 at -O3 takes its moved-from string for an
    // uninitialised one.
    QString name;
    bool named = false;
    const auto endSection = [&] {
        if (inProfile && named) {
            if (auto profile = usableProfile(name, name, browserId))
                profiles.append(std::move(*profile));
        }
        named = false;
    };
    qsizetype lineStart = 0;
    while (lineStart <= text.size()) {
        qsizetype lineEnd = lineStart;
        while (lineEnd < text.size() && !isLineBreak(text[lineEnd]))
            ++lineEnd;
        const QStringView line = text.sliced(lineStart, lineEnd - lineStart).trimmed();
        lineStart = lineEnd + 1;
        if (line.size() >= 2 && line.startsWith(u'[') && line.endsWith(u']')) {
            endSection();
            inProfile = isProfileSection(line.sliced(1, line.size() - 2));
        } else if (inProfile && line.size() >= 5
                   && line.first(5).compare(u"name=", Qt::CaseInsensitive) == 0) {
            name = line.sliced(5).toString();
            named = true;
        }
    }
    endSection();
    return profiles;
}

} // namespace ProfileDiscovery
