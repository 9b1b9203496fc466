#include "Platform/DesktopEntries.h"

#include "Models/DisplayText.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QThread>

#include <algorithm>

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

namespace {

QString fromUtf8(const char *text)
{
    return text ? QString::fromUtf8(text) : QString();
}

QString takeUtf8(char *text)
{
    const QString result = fromUtf8(text);
    g_free(text);
    return result;
}

QString idWithoutSuffix(const char *desktopId)
{
    QString id = fromUtf8(desktopId);
    if (id.endsWith(u".desktop"))
        id.chop(8);
    return id;
}

DesktopEntry toEntry(GDesktopAppInfo *info)
{
    DesktopEntry entry;
    entry.id = idWithoutSuffix(g_app_info_get_id(G_APP_INFO(info)));
    entry.path = fromUtf8(g_desktop_app_info_get_filename(info));
    // A name is only ever shown; written as "Name=Tom\nJerry" (which the
    // key file reads as a line break) it would forge lines wherever it is.
    if (g_desktop_app_info_has_key(info, "Name"))
        entry.name = DisplayText::escapeControls(fromUtf8(g_app_info_get_name(G_APP_INFO(info))));
    entry.exec = takeUtf8(g_desktop_app_info_get_string(info, "Exec"));
    entry.tryExec = takeUtf8(g_desktop_app_info_get_string(info, "TryExec"));
    entry.icon = takeUtf8(g_desktop_app_info_get_string(info, "Icon"));
    entry.workingDirectory = takeUtf8(g_desktop_app_info_get_string(info, "Path"));
    if (const char *windowClass = g_desktop_app_info_get_startup_wm_class(info))
        entry.startupWMClass = QString::fromUtf8(windowClass);
    entry.categories =
        fromUtf8(g_desktop_app_info_get_categories(info)).split(u';', Qt::SkipEmptyParts);
    entry.dbusActivatable = g_desktop_app_info_get_boolean(info, "DBusActivatable");
    entry.noDisplay = g_desktop_app_info_get_nodisplay(info);
    return entry;
}

std::optional<DesktopEntry> takeEntry(GDesktopAppInfo *info)
{
    if (!info)
        return std::nullopt;
    DesktopEntry result = toEntry(info);
    g_object_unref(info);
    return result;
}

} // namespace

QByteArray GioDesktopEntries::withSandboxExports(const QByteArray &dataDirs,
                                                 const QByteArray &dataHome)
{
    QByteArrayList dirs = (dataDirs.isEmpty() ? QByteArray("/usr/local/share:/usr/share")
                                              : dataDirs)
                              .split(':');
    const QByteArray home =
        dataHome.isEmpty() ? QFile::encodeName(QDir::homePath()) + "/.local/share" : dataHome;
    for (const QByteArray &exports : {QByteArray(home + "/flatpak/exports/share"),
                                      QByteArray("/var/lib/flatpak/exports/share"),
                                      QByteArray("/var/lib/snapd/desktop")}) {
        const auto same = [&exports](const QByteArray &dir) {
            return dir == exports || dir == exports + '/';
        };
        if (std::none_of(dirs.cbegin(), dirs.cend(), same))
            dirs.append(exports);
    }
    return dirs.join(':');
}

void GioDesktopEntries::includeSandboxExports()
{
    qputenv("XDG_DATA_DIRS", withSandboxExports(qgetenv("XDG_DATA_DIRS"), qgetenv("XDG_DATA_HOME")));
}

QList<DesktopEntry> GioDesktopEntries::handlersForScheme(const QString &scheme)
{
    const QByteArray type = "x-scheme-handler/" + scheme.toUtf8();
    GList *infos = g_app_info_get_all_for_type(type.constData());
    QList<DesktopEntry> entries;
    for (GList *item = infos; item; item = item->next) {
        if (G_IS_DESKTOP_APP_INFO(item->data))
            entries.append(toEntry(G_DESKTOP_APP_INFO(item->data)));
    }
    g_list_free_full(infos, g_object_unref);
    return entries;
}

// A click asks for a few entries (the sender's candidates, the browser's), and
// each read opens and parses a file: they are read once, and again after GIO
// reports a change of the installed applications. Only on the thread that
// watches for the change; elsewhere each is read as asked.
std::optional<DesktopEntry> GioDesktopEntries::cached(QHash<QString, std::optional<DesktopEntry>> &cache,
                                                      const QString &key,
                                                      const std::function<GDesktopAppInfo *()> &read)
{
    const QCoreApplication *application = QCoreApplication::instance();
    if (!application || QThread::currentThread() != application->thread())
        return takeEntry(read());
    if (!m_monitor) {
        m_monitor = g_app_info_monitor_get();
        g_signal_connect_swapped(m_monitor, "changed", G_CALLBACK(+[](gpointer self) {
                                     auto *entries = static_cast<GioDesktopEntries *>(self);
                                     entries->m_byId.clear();
                                     entries->m_byPath.clear();
                                 }),
                                 this);
    }
    if (const auto known = cache.constFind(key); known != cache.cend())
        return *known;
    return *cache.insert(key, takeEntry(read()));
}

std::optional<DesktopEntry> GioDesktopEntries::entry(const QString &id)
{
    return cached(m_byId, id, [&id] {
        return g_desktop_app_info_new((id + u".desktop").toUtf8().constData());
    });
}

std::optional<DesktopEntry> GioDesktopEntries::entryAt(const QString &path)
{
    return cached(m_byPath, path, [&path] {
        return g_desktop_app_info_new_from_filename(QFile::encodeName(path).constData());
    });
}

std::optional<QString> GioDesktopEntries::defaultHandler(const QString &scheme)
{
    GAppInfo *info = g_app_info_get_default_for_uri_scheme(scheme.toUtf8().constData());
    if (!info)
        return std::nullopt;
    const QString id = idWithoutSuffix(g_app_info_get_id(info));
    g_object_unref(info);
    if (id.isEmpty())
        return std::nullopt;
    return id;
}

QList<DesktopEntry> GioDesktopEntries::allEntries()
{
    GList *infos = g_app_info_get_all();
    QList<DesktopEntry> entries;
    for (GList *item = infos; item; item = item->next) {
        if (G_IS_DESKTOP_APP_INFO(item->data))
            entries.append(toEntry(G_DESKTOP_APP_INFO(item->data)));
    }
    g_list_free_full(infos, g_object_unref);
    return entries;
}

DesktopEntries::Result GioDesktopEntries::setDefaultForType(const QString &id,
                                                            const QString &contentType)
{
    const QByteArray desktopId = (id + u".desktop").toUtf8();
    GDesktopAppInfo *info = g_desktop_app_info_new(desktopId.constData());
    if (!info)
        return QStringLiteral("The application %1 is not installed.").arg(id);
    GError *error = nullptr;
    const gboolean done = g_app_info_set_as_default_for_type(
        G_APP_INFO(info), contentType.toUtf8().constData(), &error);
    g_object_unref(info);
    if (done)
        return {};
    const QString message = fromUtf8(error ? error->message : "unknown error");
    if (error)
        g_error_free(error);
    return message;
}

GioDesktopEntries &GioDesktopEntries::instance()
{
    static GioDesktopEntries entries;
    return entries;
}
