#pragma once

#include "Automation/AutomationTarget.h"

class AppState;

// The running Quillvane as scripts reach it: its state, and routing as a
// script's action routes (see Automation::Target::routeURL).
class AutomationBridge final : public Automation::Target
{
public:
    explicit AutomationBridge(AppState &state);

    const Config &config() const override;
    QString configPath() const override;
    std::optional<QString> save(const std::function<void(Config &)> &change) override;
    QList<BrowserInfo> browsers(bool shownOnly) const override;
    QList<BrowserProfile> profiles(const QString &browserID) const override;
    std::optional<QString> applicationName(const QString &desktopID) const override;
    std::optional<QString> schemeApp(const QString &scheme) const override;
    bool launchAtLogin() const override;
    void setLaunchAtLogin(bool enabled) override;
    QFuture<Automation::Answer> routeURL(const Link &url,
                                         const std::optional<Automation::BrowserEntity> &browser,
                                         qint64 journalEntry = 0) override;

private:
    QFuture<Automation::Answer> open(const Link &url, const QString &browserID, bool privateWindow,
                                     const QString &success, qint64 journalEntry);

    AppState &m_state;
};
