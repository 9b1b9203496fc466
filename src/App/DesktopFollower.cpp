#include "App/DesktopFollower.h"

#include "App/AppState.h"
#include "Services/ProfileDiscovery.h"

#include <QDir>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QTimer>

DesktopFollower::DesktopFollower(AppState &state, QObject *parent)
    : QObject(parent)
    , m_state(state)
    , m_watcher(new QFileSystemWatcher(this))
    , m_browsersLater(new QTimer(this))
    , m_profilesLater(new QTimer(this))
{
    for (QTimer *timer : {m_browsersLater, m_profilesLater}) {
        timer->setSingleShot(true);
        timer->setInterval(SettleMs);
    }
    connect(m_browsersLater, &QTimer::timeout, this, [this] {
        m_state.browsers().refresh();
        watchProfileFolders();
    });
    connect(m_profilesLater, &QTimer::timeout, this, [this] {
        m_state.browsers().refreshProfiles();
        // A folder that appeared (the browser's first start) is watched now.
        watchProfileFolders();
    });
    connect(m_watcher, &QFileSystemWatcher::directoryChanged, m_profilesLater,
            qOverload<>(&QTimer::start));
    connect(m_watcher, &QFileSystemWatcher::fileChanged, m_profilesLater,
            qOverload<>(&QTimer::start));
    watchProfileFolders();
}

void DesktopFollower::applicationsChanged()
{
    m_browsersLater->start();
}

void DesktopFollower::watchProfileFolders()
{
    QStringList wanted;
    for (const BrowserInfo &browser : m_state.browsers().all()) {
        const auto supported = ProfileDiscovery::supportedBrowser(browser.desktopId);
        if (!supported)
            continue;
        // Browsers replace their profile file by renaming a new one over it,
        // which only its folder sees.
        QString folder = QFileInfo(supported->profileFile).absolutePath();
        while (!QFileInfo(folder).isDir() && folder != QDir::rootPath())
            folder = QFileInfo(folder).absolutePath();
        if (!wanted.contains(folder))
            wanted.append(folder);
        if (QFileInfo::exists(supported->profileFile) && !wanted.contains(supported->profileFile))
            wanted.append(supported->profileFile);
    }
    const QStringList watched = m_watcher->directories() + m_watcher->files();
    QStringList gone;
    for (const QString &path : watched) {
        if (!wanted.contains(path))
            gone.append(path);
    }
    if (!gone.isEmpty())
        m_watcher->removePaths(gone);
    QStringList added;
    for (const QString &path : std::as_const(wanted)) {
        if (!watched.contains(path))
            added.append(path);
    }
    if (!added.isEmpty())
        m_watcher->addPaths(added);
}
