#pragma once

#include "App/AppServices.h"
#include "Storage/HistoryMigration.h"

#include <QObject>
#include <QStringList>

#include <functional>

#include <memory>

class ActiveApplication;
class ConfigFile;
class ApplicationsMonitor;
class DesktopFollower;
class AppState;
class HistoryDatabase;
class LinkIntake;
class LinkSocket;
class LinkPicker;
class LinuxProcessApps;
class OpenRequestMonitor;
class OpenRequestSources;
class SettingsWindow;
class SourceAppResolver;
class StatusItem;
class UpdateController;
class XdgAutostart;
struct RuleEditServices;

// The running application: it builds the state, takes links from the session
// bus and its own command line, and asks once per start to become the default
// browser.
class AppDelegate final : public QObject
{
public:
    // later: how the state waits (tests run the wait when they choose).
    explicit AppDelegate(QObject *parent = nullptr, AppServices::Later later = {});
    ~AppDelegate() override;

    // Publishes the link interface and owns Quillvane's name on the session
    // bus; false when another instance owns it (or there is no bus).
    bool applicationWillFinishLaunching();
    void applicationDidFinishLaunching();
    // After the event loop ended: writes what the history still holds in memory.
    void applicationWillTerminate();
    void promptSetAsDefaultBrowserIfNeeded();
    void registerNativeHost();
    // Where the desktop entry's "Create Rule" leads.
    void openRuleEditor();
    // The tray icon and its menu; says in the log how to reach the settings
    // when the desktop has no tray.
    void setupStatusItem();
    // Shows the settings window, made on first use; openHistory then shows its
    // History tab.
    void openSettings();
    void openHistory();
    void checkForUpdates();

    StatusItem *statusItem() const { return m_statusItem.get(); }
    // None until first opened.
    SettingsWindow *settingsWindow() const { return m_settingsWindow.get(); }

    AppState &appState() const { return *m_appState; }
    LinkIntake &intake() const { return *m_intake; }

private:
    // Shows the window on the tab (its current one when negative), then runs
    // then.
    void openSettingsOn(int tab, std::function<void()> then = {});
    RuleEditServices ruleEditServices();

    std::unique_ptr<ConfigFile> m_config;
    std::optional<HistoryMigration::Pending> m_pendingHistory;
    std::unique_ptr<HistoryDatabase> m_history;
    std::unique_ptr<XdgAutostart> m_autostart;
    std::unique_ptr<AppState> m_appState;
    std::unique_ptr<UpdateController> m_updates;
    std::unique_ptr<LinuxProcessApps> m_processApps;
    std::unique_ptr<ActiveApplication> m_activeApplication;
    std::unique_ptr<SourceAppResolver> m_resolver;
    std::unique_ptr<OpenRequestMonitor> m_openRequestMonitor;
    std::unique_ptr<OpenRequestSources> m_openRequests;
    std::unique_ptr<DesktopFollower> m_desktopFollower;
    std::unique_ptr<ApplicationsMonitor> m_applicationsMonitor;
    std::unique_ptr<LinkIntake> m_intake;
    std::unique_ptr<LinkSocket> m_linkSocket;
    std::unique_ptr<StatusItem> m_statusItem;
    std::unique_ptr<SettingsWindow> m_settingsWindow;
    std::unique_ptr<LinkPicker> m_linkPicker;
};
