#pragma once

#include "Models/Link.h"
#include "Models/RoutingRule.h"
#include "Services/RoutePlanner.h"

#include <QString>

#include <functional>
#include <optional>

// Asking the user which browser opens a link: what is asked, and the answer.
// The state asks through whatever the application gives it (the window that
// asks); nothing opens before the answer.
struct AskRequest
{
    Link link;
    std::optional<SourceApp> source;
    // Lets the asking window take the focus, as a browser's would.
    QString activationToken;
    // Offered first: the fallback browser, when one is set.
    QString offeredFirst;
    // Offered before it: the app of the link's service, whose handoff is switched off.
    std::optional<RoutePlan::AppHandoff> app = {};
};

struct AskAnswer
{
    enum class Kind
    {
        Chosen,
        // The user closed the window: nothing opens.
        Cancelled,
        // No window can be shown (no display): the fallback browser decides.
        CannotAsk,
    };
    Kind kind = Kind::CannotAsk;
    QString browserID;
    std::optional<QString> profileID;
    bool privateWindow = false;
    // The app offered was chosen: the link goes to it, rewritten for it.
    bool app = false;
};

using AskWhereToOpen =
    std::function<void(const AskRequest &, std::function<void(const AskAnswer &)> answer)>;
