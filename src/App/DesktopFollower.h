#pragma once

#include <QObject>
#include <QStringList>

class AppState;
class QFileSystemWatcher;
class QTimer;

// Keeps the state's browsers and profiles as the desktop has them while
// Quillvane runs: a browser installed, removed or overridden, a profile added
// or renamed in the browser. Bursts of changes (a package upgrade writes many
// files) are taken together, a moment after the last one.
class DesktopFollower final : public QObject
{
    Q_OBJECT

public:
    static constexpr int SettleMs = 250;

    explicit DesktopFollower(AppState &state, QObject *parent = nullptr);

    // The installed applications changed (the caller watches them).
    void applicationsChanged();

private:
    // Watches the folders that hold the profile files of the browsers
    // installed now (or the nearest folder that exists, until they do).
    void watchProfileFolders();

    AppState &m_state;
    QFileSystemWatcher *m_watcher;
    QTimer *m_browsersLater;
    QTimer *m_profilesLater;
};
