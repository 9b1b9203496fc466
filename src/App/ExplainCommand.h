#pragma once

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

enum ExitCode
{
    Routed = 0,
    NoRoute = 1,
    BadInput = 2
};

struct Environment
{
    QSettings &settings;
    QTextStream &out;
    QTextStream &err;
    std::function<bool(const Link &)> isShortLink;
    std::function<QFuture<Link>(const Link &)> expand;
};

QString usage();

// arguments: what follows "explain" on the command line.
int run(const QStringList &arguments, const Environment &environment);

} // namespace ExplainCommand
