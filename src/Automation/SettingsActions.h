#pragma once

#include "Automation/AutomationTarget.h"

// Settings actions for scripts: set the fallback browser, switch a feature,
// list the browsers. (Routing a link is the target's own.)
namespace Automation {

Answer setDefaultBrowser(Target &target, const BrowserEntity &browser);
// "Ask" as the fallback.
Answer setFallbackToAsk(Target &target);
// Switches only when needed; answers "{title} is now enabled/disabled.".
Answer toggleFeature(Target &target, Feature feature, bool enabled);
QList<BrowserEntity> listBrowsers(const Target &target);

} // namespace Automation
