#pragma once

#include "Models/Command.h"
#include "Models/Config.h"
#include "Models/Link.h"
#include "Services/Handoffs.h"

#include <QFuture>
#include <QStringList>
#include <QTextStream>

#include <functional>

// "quillvane explain URL [--from APP-ID] [--expand]": which browser (or app) a
// link would open in, which rule decides, and the router's trail. Reads the stored rules;
// changes nothing and opens nothing.
namespace ExplainCommand {

// Exit status: Success when the link has a route, Failed when it has none,
// BadUsage on bad input.
struct Environment
{
    const Config &config;
    std::function<bool(const Link &)> isShortLink;
    std::function<QFuture<Link>(const Link &)> expand;
    // The desktop's app for a scheme (handoffs), and the shown browsers that
    // run, newest first ("Prefer a browser that is already running"); without
    // them, no app is installed and no browser runs.
    std::function<std::optional<SchemeHandler>(const QString &scheme)> schemeHandler = {};
    std::function<QStringList()> runningBrowsers = {};
};

// arguments: the link, and --from / --expand.
int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment);

} // namespace ExplainCommand
