#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

// Where browsers look for Quillvane's native messaging host, what they find
// there, and which browsers' extensions have reached it. A browser starts the
// host only when a manifest in one of its folders names the host and lets this
// extension (by its id) use it.
namespace NativeMessaging {

inline constexpr auto HostName = u"work.vorpa.quillvane";
inline constexpr auto FirefoxExtensionId = u"quillvane@vorpa.work";
// The Chromium family derives an unpacked extension's id from the public key
// in its manifest.
inline constexpr auto ChromiumExtensionId = u"gmkaiedoeodeloekkaogggchoeomdibk";

struct Browser
{
    QString name;
    bool firefox = false;
    // Where the browser keeps this user's profiles: it has been used here
    // when the folder exists.
    QString configFolder;
    // This user's folder of host manifests, and the system's (the package's).
    QString userFolder;
    QStringList systemFolders;
};

// Firefox and every Chromium-family browser whose folders Quillvane knows, for
// this user's home and configuration folder.
QList<Browser> browsers();

QByteArray manifest(const Browser &browser, const QString &hostPath);

// The host installed beside this program (<prefix>/libexec/quillvane/);
// empty when there is none (a build that was not installed).
QString installedHost(const QString &programFolder);

// Writes this user's manifest for each browser that has been used here and
// has none naming hostPath; a manifest already right is left untouched.
// Answers what could not be written, one line each.
QStringList registerForUser(const QString &hostPath);

struct Registration
{
    Browser browser;
    bool used = false;
    // The manifest a browser would read (this user's first), empty when none.
    QString manifest;
    // Why that manifest would not start the host, empty when it would.
    QString problem;
};
QList<Registration> registrations();

// A browser's extension reached Quillvane through the host.
void noteConnection(const QString &desktopId);
// Each browser (desktop-entry id) whose extension connected, and when last.
QMap<QString, QDateTime> connections();

} // namespace NativeMessaging
