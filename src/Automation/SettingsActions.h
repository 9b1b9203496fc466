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

// "Nothing wrong: N rule(s)." for a configuration file Quillvane can take
// (none: the target's own); its file:line:column and what is wrong when not.
Answer checkConfig(const Target &target, const QString &path);
// The export document of the configuration.
QString exportConfig(const Target &target);
// Imports an export document at once (the caller asks the user first).
Answer importConfig(Target &target, const QByteArray &document);
Answer setHandoff(Target &target, const QString &id, bool enabled);
// Each handoff: "id", "name", "enabled" and, when one is installed, "app".
QList<QVariantMap> handoffs(const Target &target);

} // namespace Automation
