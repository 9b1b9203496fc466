#pragma once

#include "Automation/AutomationValues.h"

#include <functional>

// The rule actions scripts can run: create, delete (after asking), list. They
// change rules only through the application state, which saves at once.
namespace Automation {

// The confirmation's answer for the question it is given.
using Confirm = std::function<bool(const QString &question)>;

// "Created rule: {summary}".
Expected<QString, IntentError> createRule(const std::optional<QString> &sourceAppBundleID,
                                          const std::optional<QString> &sourceAppName,
                                          const std::optional<QString> &urlPattern,
                                          const BrowserEntity &targetBrowser);
// "Deleted rule: {summary}", or "Rule not found. …" for a rule that is gone; a
// refused confirmation is an error and deletes nothing.
Expected<QString, IntentError> deleteRule(const RuleEntity &rule, const Confirm &confirm);
Expected<QList<RuleEntity>, IntentError> listRules();

} // namespace Automation
