#pragma once

#include <QObject>
#include <QStringList>

#include <memory>

class ActiveApplication;
class AppState;
class LinkIntake;
class LinuxProcessApps;
class QSettings;
class RuleStore;
class SourceAppResolver;
class XdgAutostart;

// The running application: it builds the state, takes links from the session
// bus and its own command line, and asks once per start to become the default
// browser.
class AppDelegate final : public QObject
{
public:
    explicit AppDelegate(QObject *parent = nullptr);
    ~AppDelegate() override;

    // Publishes the link interface and owns Quillvane's name on the session
    // bus; false when another instance owns it (or there is no bus).
    bool applicationWillFinishLaunching();
    void applicationDidFinishLaunching();
    void promptSetAsDefaultBrowserIfNeeded();
    // Where the desktop entry's "Create Rule" leads.
    void openRuleEditor();

    AppState &appState() const { return *m_appState; }
    LinkIntake &intake() const { return *m_intake; }

private:
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<RuleStore> m_store;
    std::unique_ptr<XdgAutostart> m_autostart;
    std::unique_ptr<AppState> m_appState;
    std::unique_ptr<LinuxProcessApps> m_processApps;
    std::unique_ptr<ActiveApplication> m_activeApplication;
    std::unique_ptr<SourceAppResolver> m_resolver;
    std::unique_ptr<LinkIntake> m_intake;
};
