#pragma once

#include <QObject>

#include <functional>
#include <memory>

class AppState;
class DesktopEntries;
class QMenu;
class QSystemTrayIcon;
class QIcon;

// Quillvane in the panel: a tray icon that shows whether rules are active, and
// a menu rebuilt from the application state each time it opens, so it never
// shows stale values.
class StatusItem final : public QObject
{
    Q_OBJECT

public:
    // Where the menu's commands lead.
    struct Commands
    {
        std::function<void()> openHistory;
        std::function<void()> openSettings;
        std::function<void()> checkForUpdates;
        std::function<void()> quit;
    };

    StatusItem(AppState &state, DesktopEntries &entries, Commands commands,
               QObject *parent = nullptr);
    ~StatusItem() override;

    // Puts the icon in the tray; false when the desktop has no tray (yet).
    bool setUp();
    // Follows rulesEnabled; only set-up and the menu's own pause command call it.
    void updateIcon();
    // Empties the menu and fills it from the state as it is now.
    void rebuild(QMenu &menu);

    QMenu &menu() const { return *m_menu; }
    // The icon shown now ("active" or "paused"), for tests.
    QString iconState() const { return m_iconState; }

    static QIcon activeIcon();
    static QIcon pausedIcon();

private:
    void togglePauseRules();

    AppState &m_state;
    DesktopEntries &m_entries;
    Commands m_commands;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    QString m_iconState;
};
