#pragma once

#include <QString>

namespace Automation {
class Target;
}

#include <functional>

// The ready-made shortcuts of Quillvane's desktop entry ([Desktop Action …]),
// which launchers and docks offer beside the application: route the link on
// the clipboard, list the browsers, create a rule. They arrive through
// org.freedesktop.Application.ActivateAction or "quillvane --action ID".
namespace DesktopActions {

inline constexpr QLatin1StringView RouteClipboard{"route-clipboard"};
inline constexpr QLatin1StringView ListBrowsers{"list-browsers"};
inline constexpr QLatin1StringView CreateRule{"create-rule"};

bool isKnown(const QString &id);

// Runs the action; its answer comes as a desktop notification. openRuleEditor
// is where a new rule is made (the settings window).
void run(Automation::Target &target, const QString &id,
         const std::function<void()> &openRuleEditor);

} // namespace DesktopActions
