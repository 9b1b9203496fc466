#pragma once

#include "Views/RuleEditView.h"

#include <QWidget>

#include <functional>

class AppState;
class AppRuleListView;
class BrowsersPane;
class HistoryPane;
class URLRuleListView;
class QTabWidget;

// Quillvane's one window: the App Rules, URL Rules, General and History tabs,
// then Browsers and Apps.
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
        HistoryTab = 3,
        BrowsersTab = 4,
        AppsTab = 5
    };

    SettingsWindow(AppState &state, RuleEditServices services,
                   std::function<void()> checkForUpdates, QWidget *parent = nullptr);

    int selectedTab() const;
    void selectTab(int tab);
    QTabWidget &tabs() const { return *m_tabs; }
    HistoryPane &historyPane() const { return *m_history; }
    AppRuleListView &appRules() const { return *m_appRules; }
    URLRuleListView &urlRules() const { return *m_urlRules; }
    BrowsersPane &browsersPane() const { return *m_browsers; }

private:
    QTabWidget *m_tabs;
    AppRuleListView *m_appRules;
    URLRuleListView *m_urlRules;
    HistoryPane *m_history;
    BrowsersPane *m_browsers;
};
