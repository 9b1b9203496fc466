#pragma once

#include "Models/Command.h"
#include "Models/Link.h"

#include <QFuture>
#include <QSettings>
#include <QStringList>
#include <QTextStream>

#include <functional>

// "quillvane explain URL [--from APP-ID] [--expand]": which browser a link would
// open in, which rule decides, and the router's trail. Reads the stored rules;
// changes nothing and opens nothing.
namespace ExplainCommand {

// Exit status: Success when the link has a route, Failed when it has none,
// BadUsage on bad input.
struct Environment
{
    QSettings &settings;
    std::function<bool(const Link &)> isShortLink;
    std::function<QFuture<Link>(const Link &)> expand;
};

// arguments: the link, and --from / --expand.
int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment);

} // namespace ExplainCommand
