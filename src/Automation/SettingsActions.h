#pragma once

#include "Automation/AutomationValues.h"
#include "Models/Link.h"

#include <QFuture>

// Routing and settings actions for scripts: route a link (through the rules,
// or straight to a browser), set the fallback browser, switch a feature, list
// the browsers.
namespace Automation {

using Answer = Expected<QString, IntentError>;

// Answers "Opened in {name}." / "Routed to {name}." / "No routing rule matched
// and no default browser is set."; a launch error ends it with the launcher's
// description. Unlike a clicked link: rules apply even while paused, short
// links are not expanded, a rule's profile is not used, and nothing is counted
// or recorded. The link is journalled until its launch has ended (journalEntry:
// one it already has, when routed again after a restart).
QFuture<Answer> routeURL(const Link &url, const std::optional<BrowserEntity> &browser,
                         qint64 journalEntry = 0);
Answer setDefaultBrowser(const BrowserEntity &browser);
// "Ask" as the fallback.
Answer setFallbackToAsk();
// Switches only when needed; answers "{title} is now enabled/disabled.".
Answer toggleFeature(Feature feature, bool enabled);
Expected<QList<BrowserEntity>, IntentError> listBrowsers();

} // namespace Automation
