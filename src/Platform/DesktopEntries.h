#pragma once

#include "Models/Expected.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// One installed application as its desktop entry describes it.
struct DesktopEntry
{
    // The desktop-entry id without ".desktop" (Quillvane's "bundle identifier").
    QString id;
    // Absolute path of the .desktop file.
    QString path;
    // The Name key (localized); absent when the entry has none.
    std::optional<QString> name;
    QString exec;
    QString tryExec;
    QString icon;
    // The Path key: the directory the program starts in.
    QString workingDirectory;
    QStringList categories;
    // What its windows call themselves (an X11 class, a Wayland app id).
    QString startupWMClass;
    bool dbusActivatable = false;
    bool noDisplay = false;
};

// The desktop's registry of installed applications (desktop entries in the XDG
// data directories, native, Flatpak and Snap exports alike).
class DesktopEntries
{
public:
    virtual ~DesktopEntries() = default;

    // Every application registered for links of the scheme, in the desktop's order.
    virtual QList<DesktopEntry> handlersForScheme(const QString &scheme) = 0;
    // The application with the id, searched the standard way; none when no
    // such entry is installed (or it is hidden, or its TryExec is missing).
    virtual std::optional<DesktopEntry> entry(const QString &id) = 0;
    // The entry in exactly this file (its id is not known from the file alone).
    virtual std::optional<DesktopEntry> entryAt(const QString &path) = 0;
    // The id of the desktop's default handler for the scheme.
    virtual std::optional<QString> defaultHandler(const QString &scheme) = 0;
    // Every installed application that is not hidden.
    virtual QList<DesktopEntry> allEntries() = 0;
    // Done, or the description of what failed.
    using Result = Expected<void, QString>;
    // Makes the application the default for a content type such as "x-scheme-handler/https".
    virtual Result setDefaultForType(const QString &id, const QString &contentType) = 0;
};

// The registry as GIO sees it.
class GioDesktopEntries final : public DesktopEntries
{
public:
    QList<DesktopEntry> handlersForScheme(const QString &scheme) override;
    std::optional<DesktopEntry> entry(const QString &id) override;
    std::optional<DesktopEntry> entryAt(const QString &path) override;
    std::optional<QString> defaultHandler(const QString &scheme) override;
    QList<DesktopEntry> allEntries() override;
    Result setDefaultForType(const QString &id, const QString &contentType) override;

    // The process's one instance.
    static GioDesktopEntries &instance();

    // XDG_DATA_DIRS (as dataDirs holds it; empty is the standard default) with
    // the folders Flatpak and Snap export their applications to added when
    // missing: a session started without their profile scripts lacks them, and
    // then no sandboxed application would be known by its name.
    static QByteArray withSandboxExports(const QByteArray &dataDirs, const QByteArray &dataHome);
    // Does so for this process and what it starts; before anything asks GIO.
    static void includeSandboxExports();

private:
    // The entry read, kept on the main thread until GIO reports a change of
    // the installed applications; read each time elsewhere.
    std::optional<DesktopEntry> cached(QHash<QString, std::optional<DesktopEntry>> &cache,
                                       const QString &key,
                                       const std::function<struct _GDesktopAppInfo *()> &read);

    struct _GAppInfoMonitor *m_monitor = nullptr;
    QHash<QString, std::optional<DesktopEntry>> m_byId;
    QHash<QString, std::optional<DesktopEntry>> m_byPath;
};
