#pragma once

#include "App/AppServices.h"
#include "App/AskWhereToOpen.h"
#include "App/RouteQueue.h"
#include "Models/BrowserPreference.h"
#include "Models/Config.h"
#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "Services/BrowserCatalog.h"
#include "Services/ConfigFile.h"
#include "Services/ConfigManager.h"
#include "Services/LaunchLedger.h"
#include "Services/LaunchOptions.h"
#include "Services/RoutePlanner.h"
#include "Storage/ForwardingHistory.h"
#include "Storage/LinkJournal.h"

#include <QDeadlineTimer>
#include <QFuture>
#include <QList>
#include <QObject>
#include <QString>

#include <optional>

class HistoryDatabase;
class ProcessApps;
class RunningBrowsers;

// The state that the person sees and changes: the configuration, the
// browsers, the history and the last routing; and what a link's route needs
// of them. What the person configures lives in the configuration file: a
// change is saved there at once, and a change there, by anyone, is announced
// by configChanged, on the main thread.
class AppState final : public QObject
{
    Q_OBJECT

public:
    // Loads everything and chooses a fallback browser when none is stored.
    AppState(ConfigFile &file, HistoryDatabase &history, AppServices services,
             QObject *parent = nullptr);
    ~AppState() override;

    // What the person configured, as last read.
    const Config &config() const { return m_file.config(); }
    const ConfigFile &configFile() const { return m_file; }
    const QList<RoutingRule> &rules() const { return config().rules; }
    // What the person set for the browser (id ignoring case); defaults when nothing.
    BrowserPreference browserPreference(const QString &desktopId) const;
    // How a browser starts: with the user's extra arguments for it.
    LaunchOptions launchOptions(const QString &desktopId) const;
    const QString &fallbackBrowserId() const { return config().fallbackBrowser; }
    bool isSystemDefaultBrowser() const { return m_isSystemDefaultBrowser; }
    const QString &lastRouteLog() const { return m_lastRouteLog; }
    bool launchAtLogin() const { return m_launchAtLogin; }
    // The app the desktop opens the scheme with; none without one, or when it
    // is Quillvane (a link handed to it would come straight back).
    std::optional<SchemeHandler> schemeHandler(const QString &scheme) const;
    // What routing a link depends on, as it is now.
    RouteSettings routeSettings() const;
    // The installed browsers and their profiles.
    BrowserCatalog &browsers() { return m_browsers; }
    const BrowserCatalog &browsers() const { return m_browsers; }
    // Today's count, the history and the journal of links not opened yet.
    ForwardingHistory &history() { return m_history; }
    const ForwardingHistory &history() const { return m_history; }
    const AppServices &services() const { return m_services; }
    // Starts browsers through the ledger of what was just handed to them.
    LaunchPlatform launchPlatform() { return LaunchPlatform{m_services.entries, m_launches}; }
    // A link that Quillvane handed to a browser moments ago, coming back from
    // a process it started (asked only then): refused, with a notification
    // naming what sent it back. Returns the refusal.
    std::optional<QString> refuseLoop(const Link &url,
                                      const std::function<bool()> &cameFromOwnLaunch);

    // The configuration as stored, as an export document.
    Expected<QByteArray, ConfigManager::ConfigError> exportConfig() const;

    void addRule(const RoutingRule &rule);
    void updateRule(const RoutingRule &rule);
    void deleteRule(const RoutingRule &rule);
    // A browser (or none) as the fallback: it no longer asks.
    void setDefaultBrowser(const QString &desktopId);
    // "Ask" as the fallback; the fallback browser stays, offered first.
    void setFallbackAsks();
    // Switches one of the configuration's switches over.
    void toggle(bool Config::*flag);
    // Stores what the user set for one browser (the extra arguments checked
    // first); returns why it was refused.
    std::optional<QString> setBrowserPreference(const BrowserPreference &preference);
    void toggleLaunchAtLogin();
    void setHandoffEnabled(const QString &id, bool enabled);
    // Where to learn which browsers run (the processes of this user); without
    // it, none does.
    void setProcesses(ProcessApps &processes);
    bool checkIsDefaultBrowser() const;
    void refreshDefaultBrowserStatus();
    // False when the configuration file refused it (saveFailed says why).
    bool applyImportedConfig(const ConfigManager::ExportData &imported);
    // Applies a change to the configuration file; false, with the person told
    // why, when it could not be saved.
    bool save(const std::function<void(Config &)> &change);
    // The same for those who answer a script: why it was not saved, told to
    // them instead of the person.
    std::optional<QString> saveForScript(const std::function<void(Config &)> &change)
    {
        return m_file.update(change);
    }
    // How links are asked about (the window that asks, once there is one);
    // without it, every link that asks goes to the fallback browser.
    void setAskWhereToOpen(AskWhereToOpen ask) { m_ask = std::move(ask); }
    void askWhereToOpen(const AskRequest &request, std::function<void(const AskAnswer &)> answer);
    // Asks the desktop to make Quillvane the default browser, then checks
    // again a second later. Returns at once.
    void requestSetAsDefaultBrowser();

    // Whether this many links routed now would start their browsers without
    // waiting: nothing queued before them, and the pace allows them all.
    bool routesStartAtOnce(qsizetype count);
    // Settles when a browser may start: at once, or when the pace allows.
    QFuture<void> launchTurn();

    // Routes one link from its source application. Returns once the link is
    // counted; its route starts after the links before it, when the event loop
    // has nothing more urgent to do, and opening and recording finish later. The
    // activation token, when the link came with one, goes to the browser. A
    // journalled link leaves the journal when its route ends.
    void routeURL(const Link &url, const std::optional<SourceApp> &source,
                  const QString &activationToken = {}, const LinkJournal::Ticket &ticket = {});

Q_SIGNALS:
    // The configuration changed (on disk or here), or a change of it was
    // refused: what shows it reads it again.
    void configChanged();
    void isSystemDefaultBrowserChanged();
    void lastRouteLogChanged();
    void launchAtLoginChanged();
    // A link's route has ended: opened, failed or without a route.
    void routeFinished();
    // A change was not saved, or saved only in memory: why.
    void saveFailed(const QString &why);

private:
    void followConfig(const Config &previous);
    void reportConfigProblem();
    // Learns the processes that run now, so that a link's question costs little.
    void watchRunningBrowsersLater();
    void setLastRouteLog(const QString &text);
    // The sender was told long ago that Quillvane has the link; only a
    // notification can still tell the user it did not open.
    void notifyRouteFailure(const QString &link, const QString &why, const QString &browserID);
    // A fallback browser uninstalled while it is the fallback: told once.
    void reportMissingFallback();
    void setFlag(bool AppState::*field, bool value, void (AppState::*changed)());
    void chooseFallbackBrowser();

    void startRoute(const RouteQueue::Route &route);

    ConfigFile &m_file;
    // The rules as the router matches them, made again when they change.
    URLRouter::CompiledRules m_compiledRules;
    AppServices m_services;
    ForwardingHistory m_history;
    BrowserCatalog m_browsers;
    LaunchLedger m_launches{m_services.processes};
    RouteQueue *m_queue;
    // The last failure the user was notified of, and until when it is not again.
    QString m_lastNotifiedFailure;
    QString m_reportedMissingFallback;
    QDeadlineTimer m_failureQuietUntil;
    AskWhereToOpen m_ask;
    bool m_isSystemDefaultBrowser = false;
    QString m_lastRouteLog;
    bool m_launchAtLogin = false;
    std::unique_ptr<RunningBrowsers> m_runningBrowsers;
};
