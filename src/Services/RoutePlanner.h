#pragma once

#include "Models/Config.h"
#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "Services/Handoffs.h"
#include "Services/URLRouter.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <functional>
#include <optional>

// What the routing of a link depends on, taken at one moment.
struct RouteSettings
{
    URLRouter::CompiledRules rules;
    QString fallbackBrowserId;
    bool rulesEnabled = true;
    bool urlCleaningEnabled = true;
    bool urlExpansionEnabled = true;
    bool urlUnwrappingEnabled = true;
    // The fallback is "Ask"; fallbackBrowserId is then offered first.
    bool fallbackAsks = false;
    std::function<bool(const Link &)> isShortLink;
    // The handoffs switched on, by id, and the app the desktop opens a scheme
    // with (none: no app, or only Quillvane).
    QStringList handoffs = {};
    std::function<std::optional<SchemeHandler>(const QString &scheme)> schemeHandler = {};
    // "Prefer a browser that is already running", and the browsers the lists
    // offer that run now, most recently started first (asked only when the
    // fallback browser would decide).
    bool preferRunningBrowser = false;
    std::function<QStringList()> runningBrowsers = {};
};

// What a caller wants from a plan. The callers differ on purpose: the real
// route and its explanations honour pause and profiles, a script's routing
// action opens the browser plainly, whatever pause says.
struct RoutePolicy
{
    bool honourPause = true;
    bool keepProfile = true;
    // Whether the plan carries the router's trail (it costs a line per rule).
    bool trail = false;
    // Whether links go to the apps of their services, and the fallback gives
    // way to a browser that runs: a script's routing action keeps to browsers.
    bool desktopChoices = true;

    static RoutePolicy routing(bool trail) { return RoutePolicy{true, true, trail}; }
    static RoutePolicy explanation() { return RoutePolicy{true, true, true}; }
    static RoutePolicy linkTest() { return RoutePolicy{true, true, false}; }
    static RoutePolicy automation() { return RoutePolicy{false, false, false, false}; }
};

// One link's way through cleaning, pause, expansion and the rules, as data.
struct RoutePlan
{
    enum class Decision
    {
        Pending, // prepared, not decided yet
        Paused,  // rules are paused: the fallback browser, if any
        Combined,
        SourceOnly,
        UrlOnly,
        Fallback,
        // No rule decided and the fallback asks where to open the link.
        Ask,
        NoRoute,
        // No rule named a browser, and the link goes to its service's app.
        Handoff,
        // The fallback browser does not run, and the browser that does opens it.
        RunningBrowser,
    };

    // A link handed to the app of its service, rewritten for it.
    struct AppHandoff
    {
        QString id;
        QString name;
        SchemeHandler app;
        Link link;
    };

    Link received;
    // Taken out of its redirect wrappers when unwrapping is on; the very link otherwise.
    Link unwrapped;
    // Without tracking parameters when cleaning is on; unwrapped otherwise.
    Link cleaned;
    // What the rules see: the cleaned link, or where it leads once expanded.
    Link working;
    std::optional<SourceApp> source;
    // A short link, and expansion is on: the caller expands it (or not) before deciding.
    bool shortLink = false;

    Decision decision = Decision::Pending;
    // The browser and profile; none when nothing would open the link.
    std::optional<RouteResult> result;
    // The deciding rule; none for pause, the fallback and no route.
    std::optional<QUuid> ruleID;
    qsizetype ruleIndex = -1;
    // The deciding rule as it read when it decided (rules change meanwhile).
    std::optional<QString> ruleDescription;
    // What the history says decided: the sending application's first rule,
    // whichever rule decided, or the pause.
    std::optional<QString> ruleMatched;
    QStringList trail;
    // The app the link goes to (decision Handoff, or chosen where the user is
    // asked); while asking, the app offered first: a handoff whose switch is off.
    std::optional<AppHandoff> handoff;
    std::optional<AppHandoff> offeredHandoff;

    // What opens: the link rewritten for the app, or the link the rules saw.
    const Link &linkToOpen() const { return handoff ? handoff->link : working; }
    bool decided() const { return decision != Decision::Pending; }
    // The user is asked where to open the link (the fallback asks, or the
    // deciding rule does).
    bool asks() const { return result && result->ask; }
    // What the history records as the decision: the rule's id, "fallback",
    // "paused", "handoff:<id>" or "running"; none while undecided or without a route.
    std::optional<QString> decidedBy() const;
    bool unwrappedSomething() const { return !(unwrapped == received); }
    bool cleanedSomething() const { return !(cleaned == unwrapped); }
};

// The one place where the steps of a route are taken; every caller executes
// or shows a plan and takes none of the steps itself.
namespace RoutePlanner {

// What routing needs of a configuration; the rules already compiled, so that
// it is made once per change, not once per link.
RouteSettings settingsFor(const Config &config, URLRouter::CompiledRules compiled,
                          std::function<bool(const Link &)> isShortLink);

// Cleans the link and applies pause. A paused plan is decided; any other waits
// for decide(), after the caller expanded the link where it wants to.
RoutePlan prepare(const Link &received, const std::optional<SourceApp> &source,
                  const RouteSettings &settings, const RoutePolicy &policy);

// The link the rules will see, once it has been expanded.
void expanded(RoutePlan &plan, const Link &target);

// Decides by the rules as they are in settings (which may be newer than
// those the plan was prepared with: the expansion can take seconds).
void decide(RoutePlan &plan, const RouteSettings &settings, const RoutePolicy &policy);

// Whether a rule sends the link away from the browser that is about to load
// it (desktopId): only a rule's decision for another browser does. The
// fallback, "Ask", a handoff and paused rules leave the link where it is, so
// that browsing never bounces.
bool leavesBrowser(const RoutePlan &plan, const QString &desktopId,
                   const std::optional<QString> &profile = std::nullopt);

} // namespace RoutePlanner
