#pragma once

#include "Automation/AutomationTarget.h"

#include <functional>

// The rule actions scripts can run: create, delete (after asking), list. They
// change rules only through the target's configuration, which saves at once.
namespace Automation {

// The confirmation's answer for the question it is given.
using Confirm = std::function<bool(const QString &question)>;

// What a script asks a new rule to be.
struct RuleRequest
{
    std::optional<QString> sourceAppId;
    std::optional<QString> sourceAppName;
    std::optional<QString> urlPattern;
    // One of the target browser's profiles, by id.
    std::optional<QString> profile;
    // Only for a browser whose private window Quillvane knows how to open.
    bool privateWindow = false;
    // Asks which browser opens the link; the target browser is then ignored.
    bool askWhereToOpen = false;
};

// "Created rule: {summary}".
Expected<QString, IntentError> createRule(Target &target, const RuleRequest &request,
                                          const BrowserEntity &targetBrowser);
// "Deleted rule: {summary}", or "Rule not found. …" for a rule that is gone; a
// refused confirmation is an error and deletes nothing.
Expected<QString, IntentError> deleteRule(Target &target, const RuleEntity &rule,
                                          const Confirm &confirm);

// What a rule asks of its browser beyond opening the link: a profile (with the
// name the browser shows it by, none when the browser no longer has it) and a
// private window.
struct RuleOptions
{
    QString id;
    std::optional<QString> profile;
    std::optional<QString> profileName;
    bool privateWindow = false;
};
// For the rules that ask anything of the kind, in stored order.
QList<RuleOptions> ruleOptions(const Target &target);

} // namespace Automation
