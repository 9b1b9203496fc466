#pragma once

#include <QWidget>

#include <functional>

class AppState;
class DesktopEntries;
class HistoryPane;
class QSettings;
class QTabWidget;

// Quillvane's one window: the App Rules, URL Rules, General and History tabs.
// It is made on first use and kept, so it reopens on the tab last shown.
class SettingsWindow final : public QWidget
{
    Q_OBJECT

public:
    enum Tab
    {
        AppRulesTab = 0,
        UrlRulesTab = 1,
        GeneralTab = 2,
        HistoryTab = 3
    };

    SettingsWindow(AppState &state, QSettings &settings, DesktopEntries &entries,
                   std::function<void()> checkForUpdates, QWidget *parent = nullptr);

    int selectedTab() const;
    void selectTab(int tab);
    QTabWidget &tabs() const { return *m_tabs; }
    HistoryPane &historyPane() const { return *m_history; }

private:
    QTabWidget *m_tabs;
    HistoryPane *m_history;
};
