#pragma once

#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "App/AskWhereToOpen.h"
#include "Services/LaunchOptions.h"
#include "Services/RoutePlanner.h"
#include "Storage/LinkJournal.h"

#include <QObject>

#include <functional>
#include <optional>

class AppState;

// What a route tells the state as it goes; only the state changes itself.
struct RouteReports
{
    // The line the tray menu shows for the last route.
    std::function<void(const QString &)> status;
    // A link that did not open after its sender was answered: where it was
    // going, why not, and the browser it was meant for (none without a route).
    std::function<void(const QString &link, const QString &why, const QString &browserID)> failure;
    std::function<void()> finished;
};

// One link on its way from intake to an open browser. It runs at once as far
// as it can (a click's browser starts within start()); where it must wait (for
// the expander, the window that asks, the launchers) it continues on the main
// thread's event loop without blocking, so several links may be in flight.
// Each ends in exactly one outcome.
class RouteTask final : public QObject
{
public:
    static void start(AppState &state, RouteReports reports, const Link &url,
                      const std::optional<SourceApp> &source, const QString &activationToken,
                      const LinkJournal::Ticket &ticket);

private:
    RouteTask(AppState &state, RouteReports reports, RoutePlan plan, const RoutePolicy &policy,
              const QString &activationToken, const LinkJournal::Ticket &ticket);

    void runPaused(const QString &fallbackID, const QString &fallbackName);
    void runRouting();
    void route();
    // The link asks where to open it: the user chooses, or cancels.
    void ask();
    void answered(const AskAnswer &answer);
    // Opens the link where the plan's result says.
    void launch();
    // The user's arguments for the browser, the link's token, and the record
    // the history gets once the browser runs.
    LaunchOptions launchOptions(const QString &browserID, const QString &browserName,
                                const std::optional<QString> &profileID, bool privateWindow);
    void launchPlain(const QString &browserID, const QString &targetName,
                     const QString &successLine);
    // The browser is running with the link: the history records it, and the
    // link leaves the journal.
    void recordOpened(const QString &browserID, const QString &browserName,
                      const std::optional<QString> &profileID);
    // The browser ended at once with an error: it did not open the link.
    void withdrawRecord();
    // userText: what the desktop notification says of the failure.
    void failed(const QString &statusText, const QString &diagnosticLine, const QString &logLine,
                const QString &userText);
    void finish();
    // A link that could not be journalled is safe now: its sender may hear so.
    void release();

    QString sourceName() const;
    QString sourceID() const;

    AppState &m_state;
    RouteReports m_reports;
    RoutePlan m_plan;
    RoutePolicy m_policy;
    QString m_activationToken;
    LinkJournal::Ticket m_ticket;
    std::optional<QUuid> m_record;
};
