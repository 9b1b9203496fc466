#pragma once

#include "Models/BrowserInfo.h"
#include "Platform/DesktopEntries.h"

#include <QHash>
#include <QList>
#include <QObject>

#include <functional>
#include <optional>

class ConfigFile;

// The browsers links can be routed to: every installed https handler but
// Quillvane, terminal emulators and other non-browsers, one per id, by name;
// and their profiles, read from the browsers' own files when first asked.
class BrowserCatalog final : public QObject
{
    Q_OBJECT

public:
    using ProfileReader = std::function<QList<BrowserProfile>(const QString &desktopId)>;

    // Reads the installed browsers now; which ones the person hid comes from
    // the configuration.
    BrowserCatalog(DesktopEntries &entries, const ConfigFile &config, ProfileReader profiles,
                   QObject *parent = nullptr);

    // One pass over what the desktop has installed now.
    static QList<BrowserInfo> discover(DesktopEntries &entries);
    // Whether links given to this entry would come straight back: Quillvane's own
    // entry, or one whose Exec runs Quillvane or its forwarder (also behind env).
    static bool isQuillvane(const DesktopEntry &entry);
    // The same for an id, installed or not.
    bool isQuillvane(const QString &desktopId) const;

    // Every installed browser: what links can open in, and whose names show.
    const QList<BrowserInfo> &all() const { return m_browsers; }
    // The browsers the lists offer: the installed ones the person did not
    // hide, and chosen, the one a list has selected now (hidden or not).
    QList<BrowserInfo> shown(const QString &chosen = {}) const;
    // The name the browser is shown with; none when it is not installed.
    std::optional<QString> installedName(const QString &desktopId) const;
    // The same, or its id when it is not installed.
    QString name(const QString &desktopId) const
    {
        return installedName(desktopId).value_or(desktopId);
    }
    // A browser's profiles, read from its files once until they change.
    QList<BrowserProfile> profiles(const QString &desktopId) const;
    // The name the browser shows a profile by; none when it has no such profile.
    std::optional<QString> profileName(const QString &desktopId, const QString &profileId) const;

    // What is installed changed: read again.
    void refresh();
    // A browser's profile file changed: its profiles are read again when asked.
    void refreshProfiles();

Q_SIGNALS:
    void changed();
    void profilesChanged();

private:
    DesktopEntries &m_entries;
    const ConfigFile &m_config;
    ProfileReader m_readProfiles;
    QList<BrowserInfo> m_browsers;
    mutable QHash<QString, QList<BrowserProfile>> m_profiles;
};
