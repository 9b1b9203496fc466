#include "App/DoctorCommand.h"

#include "Models/BuildInfo.h"
#include "Platform/ActiveApplication.h"
#include "Platform/CompositorFocus.h"
#include "Platform/DesktopSettings.h"
#include "Platform/OpenRequestMonitor.h"
#include "Platform/DiagnosticLog.h"
#include "Services/BrowserCatalog.h"
#include "Services/LaunchAtLoginManager.h"
#include "Services/NativeMessaging.h"
#include "Services/ProfileDiscovery.h"
#include "Models/DisplayText.h"
#include "Services/ConfigFile.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace DoctorCommand {

namespace {

QString sessionType()
{
    const QString declared = qEnvironmentVariable("XDG_SESSION_TYPE").toLower();
    if (declared == u"x11" || declared == u"wayland")
        return declared;
    if (!qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        return u"wayland"_s;
    if (!qEnvironmentVariableIsEmpty("DISPLAY"))
        return u"x11"_s;
    return declared.isEmpty() ? u"none"_s : declared;
}

QJsonValue orNull(const std::optional<QString> &text)
{
    return text ? QJsonValue(*text) : QJsonValue(QJsonValue::Null);
}

QJsonObject file(const QString &path)
{
    return QJsonObject{{u"path"_s, path}, {u"exists"_s, QFileInfo::exists(path)}};
}

// The configuration file, and why it cannot be read (null when it can).
QJsonObject configFile()
{
    QJsonObject result = file(ConfigFile::defaultPath());
    const auto config = ConfigFile::peek(ConfigFile::defaultPath());
    result.insert(u"problem"_s, config ? QJsonValue() : QJsonValue(config.error().text()));
    return result;
}

QString yesNo(bool value)
{
    return value ? u"yes"_s : u"no"_s;
}

// The ways this desktop offers of telling which application a link came from,
// beyond its sender process, each with whether it works now and why (not).
QJsonObject sourceApps(const QString &session)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    const auto onBus = [&bus](const QString &name) {
        if (!bus.isConnected())
            return false;
        return bus.interface()->isServiceRegistered(name).value()
               || bus.interface()->activatableServiceNames().value().contains(name);
    };
    QString refused = u"no session bus"_s;
    const bool canWatch = bus.isConnected() && BusOpenRequestMonitor::canWatch(&refused);
    QJsonArray ways;
    const auto add = [&ways](const QString &id, bool works, const QString &detail) {
        ways.append(QJsonObject{{u"id"_s, id}, {u"works"_s, works}, {u"detail"_s, detail}});
    };
    const auto monitor = [&](const QString &id, const QString &service, const QString &what,
                             const QString &missing) {
        if (!canWatch)
            add(id, false, refused);
        else if (!onBus(service))
            add(id, false, missing);
        else
            add(id, true, what);
    };
    monitor(u"portal-monitor"_s, u"org.freedesktop.portal.Desktop"_s,
            u"links from Flatpak apps through the desktop portal"_s,
            u"the desktop portal (xdg-desktop-portal) is not on the bus"_s);
    monitor(u"snap-monitor"_s, u"io.snapcraft.Launcher"_s,
            u"links from Snap apps through snapd's session agent"_s,
            u"snapd's session agent (snap userd) is not on the bus"_s);
    const bool x11 = ActiveApplication::isX11Session();
    if (!x11)
        add(u"x11-active-window"_s, false, u"not an X11 session"_s);
    else if (!ActiveApplication::x11Reachable())
        add(u"x11-active-window"_s, false, u"the X server does not answer"_s);
    else
        add(u"x11-active-window"_s, true, u"the focused window's process"_s);
    const bool kwin = bus.isConnected()
                      && bus.interface()->isServiceRegistered(u"org.kde.KWin"_s).value();
    if (x11)
        add(u"kwin-active-window"_s, false, u"an X11 session: X11 says which window is active"_s);
    else if (!kwin)
        add(u"kwin-active-window"_s, false, u"KWin is not running"_s);
    else
        add(u"kwin-active-window"_s, true, u"a KWin script reports the active window"_s);
    // The socket's state, not a conversation with it: doctor runs beside Quillvane.
    const auto compositor = [&](const QString &id, const QString &socket, const QString &unset,
                                const QString &what) {
        if (socket.isEmpty())
            add(id, false, unset);
        else if (const QString why = CompositorFocus::refusal(socket); !why.isEmpty())
            add(id, false, why);
        else
            add(id, true, what);
    };
    compositor(u"sway-focus"_s, CompositorFocus::swaySocket(), u"SWAYSOCK is not set"_s,
               u"sway's IPC reports each focus change"_s);
    const QString hyprland = CompositorFocus::hyprlandFolder();
    compositor(u"hyprland-focus"_s, hyprland.isEmpty() ? QString() : hyprland + u"/.socket2.sock"_s,
               u"HYPRLAND_INSTANCE_SIGNATURE is not set"_s,
               u"Hyprland's event socket reports each focus change"_s);
    const bool any = std::any_of(ways.cbegin(), ways.cend(), [](const QJsonValue &way) {
        return way.toObject().value(u"works"_s).toBool();
    });
    QString note;
    if (session == u"wayland" && qEnvironmentVariable("XDG_CURRENT_DESKTOP").contains(u"GNOME"))
        note = u"GNOME on Wayland offers ordinary applications no way to learn which window is "
               "active."_s;
    return QJsonObject{{u"ways"_s, ways}, {u"none"_s, !any}, {u"note"_s, note}};
}

// Per browser, whether it would start the extension's host; and which
// browsers' extensions have reached Quillvane.
QJsonObject browserExtension()
{
    QJsonArray hosts;
    for (const NativeMessaging::Registration &registration : NativeMessaging::registrations()) {
        hosts.append(QJsonObject{
            {u"browser"_s, registration.browser.name},
            {u"used"_s, registration.used},
            {u"manifest"_s, registration.manifest.isEmpty() ? QJsonValue()
                                                            : QJsonValue(registration.manifest)},
            {u"registered"_s, !registration.manifest.isEmpty() && registration.problem.isEmpty()},
            {u"problem"_s, registration.problem.isEmpty() ? QJsonValue()
                                                          : QJsonValue(registration.problem)}});
    }
    QJsonObject connected;
    const QMap<QString, QDateTime> connections = NativeMessaging::connections();
    for (auto it = connections.begin(); it != connections.end(); ++it)
        connected.insert(it.key(), it.value().toString(Qt::ISODate));
    return QJsonObject{{u"hosts"_s, hosts}, {u"connected"_s, connected}};
}

void printExtension(QTextStream &out, const QJsonObject &extension)
{
    out << "\nBrowser extension (native messaging host):\n";
    for (const QJsonValue &value : extension.value(u"hosts"_s).toArray()) {
        const QJsonObject host = value.toObject();
        if (!host.value(u"used"_s).toBool() && host.value(u"manifest"_s).isNull())
            continue;
        out << "  " << QString(host.value(u"browser"_s).toString() + u':').leftJustified(20);
        if (host.value(u"registered"_s).toBool())
            out << "host registered (" << host.value(u"manifest"_s).toString() << ")\n";
        else if (host.value(u"manifest"_s).isString())
            out << "host not usable: " << host.value(u"manifest"_s).toString() << ' '
                << DisplayText::escapeControls(host.value(u"problem"_s).toString()) << '\n';
        else
            out << "host not registered (Quillvane registers it when it starts)\n";
    }
    const QJsonObject connected = extension.value(u"connected"_s).toObject();
    if (connected.isEmpty())
        out << "  the extension has not connected from any browser yet\n";
    for (auto it = connected.begin(); it != connected.end(); ++it)
        out << "  connected from " << DisplayText::escapeControls(it.key()) << ", last at "
            << it.value().toString() << '\n';
}

void printText(QTextStream &out, const QJsonObject &report)
{
    const QJsonObject session = report.value(u"session"_s).toObject();
    const QJsonObject handlers = report.value(u"defaultBrowser"_s).toObject();
    const auto handler = [](const QJsonValue &id) {
        return id.isNull() ? u"(none)"_s : id.toString();
    };
    out << "Quillvane " << report.value(u"version"_s).toString() << "\n\n";
    out << "Session:          " << session.value(u"type"_s).toString();
    if (!session.value(u"desktop"_s).toString().isEmpty())
        out << " (" << session.value(u"desktop"_s).toString() << ')';
    out << '\n';
    out << "Default browser:  "
        << (handlers.value(u"isQuillvane"_s).toBool() ? "Quillvane" : "not Quillvane") << '\n';
    out << "  https handler:  " << handler(handlers.value(u"https"_s)) << '\n';
    out << "  http handler:   " << handler(handlers.value(u"http"_s)) << '\n';
    // What the desktops that keep a browser of their own have, and where.
    const QJsonObject desktops = handlers.value(u"desktops"_s).toObject();
    out << "  KDE Plasma:     " << handler(desktops.value(u"kde"_s))
        << " (kdeglobals, BrowserApplication)\n";
    out << "  XFCE:           " << handler(desktops.value(u"xfce"_s))
        << " (xfce4/helpers.rc, WebBrowser)\n";
    const QJsonObject login = report.value(u"launchAtLogin"_s).toObject();
    out << "Launch at login:  " << yesNo(login.value(u"enabled"_s).toBool()) << " ("
        << login.value(u"autostartFile"_s).toString() << ")\n";
    const QJsonObject config = report.value(u"configFile"_s).toObject();
    out << "Configuration:    " << config.value(u"path"_s).toString()
        << (config.value(u"exists"_s).toBool() ? "" : " (not created yet)") << '\n';
    if (config.value(u"problem"_s).isString())
        out << "  cannot be read: "
            << DisplayText::escapeControls(config.value(u"problem"_s).toString()) << '\n';
    const QJsonObject log = report.value(u"diagnosticLog"_s).toObject();
    out << "Diagnostic log:   " << log.value(u"path"_s).toString()
        << (log.value(u"exists"_s).toBool() ? "" : " (not created yet)") << '\n';

    const QJsonObject sources = report.value(u"sourceApps"_s).toObject();
    out << "\nSource apps, beyond the process that sent a link:\n";
    for (const QJsonValue &value : sources.value(u"ways"_s).toArray()) {
        const QJsonObject way = value.toObject();
        out << "  " << QString(way.value(u"id"_s).toString() + u':').leftJustified(20)
            << (way.value(u"works"_s).toBool() ? "works: " : "no: ")
            << way.value(u"detail"_s).toString() << '\n';
    }
    if (sources.value(u"none"_s).toBool())
        out << "  none works here: links are credited by their sender process alone\n";
    if (!sources.value(u"note"_s).toString().isEmpty())
        out << "  " << sources.value(u"note"_s).toString() << '\n';

    const QJsonArray browsers = report.value(u"browsers"_s).toArray();
    out << "\nBrowsers (" << browsers.size() << "):\n";
    if (browsers.isEmpty())
        out << "  none found: no installed application opens https links\n";
    for (const QJsonValue &value : browsers) {
        const QJsonObject browser = value.toObject();
        out << "  " << browser.value(u"name"_s).toString() << " ["
            << browser.value(u"id"_s).toString() << "]\n"
            << "    " << browser.value(u"desktopEntry"_s).toString() << '\n';
        const QJsonValue profiles = browser.value(u"profiles"_s);
        if (profiles.isNull())
            continue;
        out << "    profiles:";
        if (profiles.toArray().isEmpty())
            out << " none found";
        for (const QJsonValue &profile : profiles.toArray())
            out << "\n      " << profile.toObject().value(u"name"_s).toString() << " ("
                << profile.toObject().value(u"id"_s).toString() << ')';
        out << '\n';
    }
    printExtension(out, report.value(u"browserExtension"_s).toObject());
}

} // namespace

QJsonObject report(DesktopEntries &entries, const Autostart &autostart)
{
    QJsonArray browsers;
    for (const BrowserInfo &browser : BrowserCatalog::discover(entries)) {
        QJsonObject object{{u"id"_s, browser.desktopId},
                           {u"name"_s, browser.name},
                           {u"desktopEntry"_s, browser.path.toLocalFile()}};
        if (const auto supported = ProfileDiscovery::supportedBrowser(browser.desktopId)) {
            QJsonArray profiles;
            for (const BrowserProfile &profile :
                 ProfileDiscovery::discoverProfiles(browser.desktopId))
                profiles.append(QJsonObject{{u"id"_s, profile.id}, {u"name"_s, profile.name}});
            object.insert(u"profiles"_s, profiles);
            object.insert(u"profileFile"_s, supported->profileFile);
        } else {
            object.insert(u"profiles"_s, QJsonValue::Null);
        }
        browsers.append(object);
    }
    const std::optional<QString> https = entries.defaultHandler(u"https"_s);
    const QString session = sessionType();
    return QJsonObject{
        {u"version"_s, QString::fromUtf16(BuildInfo::Version)},
        {u"session"_s, QJsonObject{{u"type"_s, session},
                                   {u"desktop"_s, qEnvironmentVariable("XDG_CURRENT_DESKTOP")},
                                   {u"display"_s, qEnvironmentVariable("DISPLAY")},
                                   {u"waylandDisplay"_s, qEnvironmentVariable("WAYLAND_DISPLAY")}}},
        {u"defaultBrowser"_s,
         QJsonObject{{u"http"_s, orNull(entries.defaultHandler(u"http"_s))},
                     {u"https"_s, orNull(https)},
                     {u"isQuillvane"_s, https == QString::fromUtf16(BuildInfo::AppId)},
                     {u"desktops"_s,
                      QJsonObject{{u"kde"_s, orNull(DesktopSettings::kdeBrowserApplication())},
                                  {u"xfce"_s, orNull(DesktopSettings::xfceWebBrowser())}}}}},
        {u"browsers"_s, browsers},
        {u"sourceApps"_s, sourceApps(session)},
        {u"launchAtLogin"_s, QJsonObject{{u"enabled"_s, LaunchAtLoginManager::isEnabled(autostart)},
                                         {u"autostartFile"_s, XdgAutostart::entryPath()}}},
        {u"configFile"_s, configFile()},
        {u"diagnosticLog"_s, file(DiagnosticLog::filePath())},
        {u"browserExtension"_s, browserExtension()},
    };
}

int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment)
{
    const QJsonObject result = report(environment.entries, environment.autostart);
    if (arguments.flag(u"--json"_s))
        output.out << QJsonDocument(result).toJson(QJsonDocument::Indented);
    else
        printText(output.out, result);
    output.out.flush();
    return Success;
}

} // namespace DoctorCommand
