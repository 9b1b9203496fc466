#include "Services/NativeMessaging.h"

#include "Storage/HistoryDatabase.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

using namespace Qt::Literals::StringLiterals;

namespace NativeMessaging {

namespace {

QString configHome()
{
    const QString configured = qEnvironmentVariable("XDG_CONFIG_HOME");
    return QDir::isAbsolutePath(configured) ? configured : QDir::homePath() + u"/.config"_s;
}

QString fileName()
{
    return QString::fromUtf16(HostName) + u".json"_s;
}

QString connectionsPath()
{
    return QFileInfo(HistoryDatabase::defaultPath()).absolutePath()
           + u"/browser-extension.json"_s;
}

// Why the manifest would not start this host for this extension; empty when
// it would.
QString problemWith(const QString &path, const Browser &browser)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return u"cannot be read: "_s + file.errorString();
    const QJsonObject manifest = QJsonDocument::fromJson(file.read(64 * 1024)).object();
    if (manifest.value(u"name"_s).toString() != QString::fromUtf16(HostName))
        return u"is not a manifest for %1"_s.arg(QString::fromUtf16(HostName));
    const QFileInfo host(manifest.value(u"path"_s).toString());
    if (!host.isAbsolute() || !host.isFile() || !host.isExecutable())
        return u"names a host that is not there: "_s + host.filePath();
    const QJsonArray allowed = browser.firefox ? manifest.value(u"allowed_extensions"_s).toArray()
                                               : manifest.value(u"allowed_origins"_s).toArray();
    const QString ours = browser.firefox ? QString::fromUtf16(FirefoxExtensionId)
                                         : u"chrome-extension://%1/"_s.arg(
                                               QString::fromUtf16(ChromiumExtensionId));
    if (!allowed.contains(ours))
        return u"does not let Quillvane's extension (%1) use the host"_s.arg(ours);
    return {};
}

} // namespace

QList<Browser> browsers()
{
    const QString home = QDir::homePath();
    const QString config = configHome();
    const auto chromium = [&config](const QString &name, const QString &folder,
                                    const QStringList &system) {
        return Browser{name, false, config + u'/' + folder,
                       config + u'/' + folder + u"/NativeMessagingHosts"_s, system};
    };
    return {
        Browser{u"Firefox"_s, true, home + u"/.mozilla"_s,
                home + u"/.mozilla/native-messaging-hosts"_s,
                {u"/usr/lib/mozilla/native-messaging-hosts"_s,
                 u"/usr/lib64/mozilla/native-messaging-hosts"_s}},
        chromium(u"Chromium"_s, u"chromium"_s, {u"/etc/chromium/native-messaging-hosts"_s}),
        chromium(u"Google Chrome"_s, u"google-chrome"_s,
                 {u"/etc/opt/chrome/native-messaging-hosts"_s}),
        chromium(u"Google Chrome Beta"_s, u"google-chrome-beta"_s,
                 {u"/etc/opt/chrome/native-messaging-hosts"_s}),
        chromium(u"Brave"_s, u"BraveSoftware/Brave-Browser"_s,
                 {u"/etc/opt/chrome/native-messaging-hosts"_s}),
        chromium(u"Microsoft Edge"_s, u"microsoft-edge"_s,
                 {u"/etc/opt/edge/native-messaging-hosts"_s}),
        chromium(u"Vivaldi"_s, u"vivaldi"_s, {u"/etc/opt/chrome/native-messaging-hosts"_s}),
    };
}

QByteArray manifest(const Browser &browser, const QString &hostPath)
{
    QJsonObject object{
        {u"name"_s, QString::fromUtf16(HostName)},
        {u"description"_s, u"Quillvane: links that a rule sends to another browser"_s},
        {u"path"_s, hostPath},
        {u"type"_s, u"stdio"_s},
    };
    if (browser.firefox)
        object.insert(u"allowed_extensions"_s,
                      QJsonArray{QString::fromUtf16(FirefoxExtensionId)});
    else
        object.insert(u"allowed_origins"_s,
                      QJsonArray{u"chrome-extension://%1/"_s.arg(
                          QString::fromUtf16(ChromiumExtensionId))});
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

QString installedHost(const QString &programFolder)
{
    const QFileInfo host(programFolder + u"/../libexec/quillvane/quillvane-native-host"_s);
    return host.isFile() && host.isExecutable() ? host.canonicalFilePath() : QString();
}

QStringList registerForUser(const QString &hostPath)
{
    QStringList problems;
    for (const Browser &browser : browsers()) {
        if (!QFileInfo(browser.configFolder).isDir())
            continue;
        const QString path = browser.userFolder + u'/' + fileName();
        const QByteArray wanted = manifest(browser, hostPath);
        QFile current(path);
        if (current.open(QIODevice::ReadOnly) && current.read(wanted.size() + 1) == wanted)
            continue;
        QSaveFile file(path);
        if (!QDir().mkpath(browser.userFolder) || !file.open(QIODevice::WriteOnly)
            || file.write(wanted) != wanted.size() || !file.commit())
            problems.append(u"%1: %2 could not be written (%3)"_s.arg(browser.name, path,
                                                                       file.errorString()));
    }
    return problems;
}

QList<Registration> registrations()
{
    QList<Registration> found;
    for (const Browser &browser : browsers()) {
        Registration registration{browser, QFileInfo(browser.configFolder).isDir(), {}, {}};
        for (const QString &folder : QStringList{browser.userFolder} + browser.systemFolders) {
            const QString path = folder + u'/' + fileName();
            if (QFileInfo::exists(path)) {
                registration.manifest = path;
                registration.problem = problemWith(path, browser);
                break;
            }
        }
        found.append(registration);
    }
    return found;
}

void noteConnection(const QString &desktopId)
{
    QFile current(connectionsPath());
    QJsonObject seen;
    if (current.open(QIODevice::ReadOnly))
        seen = QJsonDocument::fromJson(current.read(256 * 1024)).object();
    // To the millisecond: two starts of a browser within a second differ.
    seen.insert(desktopId, QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
    QDir().mkpath(QFileInfo(connectionsPath()).absolutePath());
    QSaveFile file(connectionsPath());
    // Only doctor reads it: a disk that refuses it loses a line of a report.
    if (file.open(QIODevice::WriteOnly)) {
        file.write(QJsonDocument(seen).toJson(QJsonDocument::Indented));
        file.commit();
    }
}

QMap<QString, QDateTime> connections()
{
    QFile file(connectionsPath());
    QMap<QString, QDateTime> seen;
    if (!file.open(QIODevice::ReadOnly))
        return seen;
    const QJsonObject object = QJsonDocument::fromJson(file.read(256 * 1024)).object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QDateTime when = QDateTime::fromString(it.value().toString(), Qt::ISODate);
        if (when.isValid())
            seen.insert(it.key(), when);
    }
    return seen;
}

} // namespace NativeMessaging
