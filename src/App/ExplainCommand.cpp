#include "App/ExplainCommand.h"

#include "Models/HostName.h"
#include "Services/RoutePlanner.h"
#include "Services/URLCleaner.h"

#include <QEventLoop>
#include <QFutureWatcher>

using namespace Qt::Literals::StringLiterals;

namespace ExplainCommand {

namespace {

Link waitFor(QFuture<Link> future)
{
    if (!future.isFinished()) {
        QEventLoop loop;
        QFutureWatcher<Link> watcher;
        QObject::connect(&watcher, &QFutureWatcher<Link>::finished, &loop, &QEventLoop::quit);
        watcher.setFuture(future);
        if (!future.isFinished())
            loop.exec();
    }
    return future.result();
}

QString describe(const RoutePlan &plan, const QList<RoutingRule> &rules)
{
    using Decision = RoutePlan::Decision;
    switch (plan.decision) {
    case Decision::Paused:
        return u"fallback (rules are paused)"_s;
    case Decision::Fallback:
        return u"fallback (no rule matched)"_s;
    case Decision::Ask:
        return u"ask (no rule matched, and the fallback asks)"_s;
    case Decision::NoRoute:
    case Decision::Pending:
        return u"no route (no rule matched and no fallback browser is set)"_s;
    case Decision::Handoff:
        return u"handoff to %1's app (no rule names a browser for the link)"_s.arg(
            plan.handoff->name);
    case Decision::RunningBrowser:
        return u"running browser (no rule matched, and the fallback browser does not run)"_s;
    default:
        break;
    }
    const RoutingRule &rule = rules[plan.ruleIndex];
    // The spelling the pattern was compared in, when it is not the one stored.
    const QString stored = rule.urlPattern.value_or(QString());
    QString pattern = u'"' + stored + u'"';
    if (const auto canonical = HostName::canonicalPattern(stored))
        pattern += u" (compared as \""_s + *canonical + u"\")"_s;
    const QString number = u"rule %1 of %2 (id %3)"_s.arg(QString::number(plan.ruleIndex + 1),
                                                          QString::number(rules.size()),
                                                          JsonFields::uuidText(rule.id));
    switch (plan.decision) {
    case Decision::Combined:
        return u"app rule for %1 with pattern %2, %3"_s.arg(rule.sourceAppId, pattern,
                                                            number);
    case Decision::SourceOnly:
        return u"app rule for every link from %1, %2"_s.arg(rule.sourceAppId, number);
    case Decision::UrlOnly:
        return u"URL rule with pattern %1, %2"_s.arg(pattern, number);
    default:
        return {};
    }
}

void printField(QTextStream &out, QStringView label, QStringView value)
{
    out << QString(label + u':').leftJustified(12) << value << '\n';
}

} // namespace

int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment)
{
    QTextStream &out = output.out;
    const std::optional<QString> from = arguments.value(u"--from"_s);
    if (from && from->trimmed().isEmpty())
        return output.fail(u"--from needs an application id, such as org.gnome.Evolution."_s,
                           BadUsage);
    const auto parsed = Link::parseWebLink(arguments.positional.first());
    if (!parsed)
        return output.fail(parsed.error().description, BadUsage);

    RouteSettings settings = RoutePlanner::settingsFor(environment.config, environment.config.rules,
                                                       environment.isShortLink);
    // Expanded only when asked for with --expand.
    settings.urlExpansionEnabled = true;
    settings.schemeHandler = environment.schemeHandler;
    settings.runningBrowsers = environment.runningBrowsers;
    std::optional<SourceApp> source;
    if (from)
        source = SourceApp{*from, *from};

    const RoutePolicy policy = RoutePolicy::explanation();
    RoutePlan plan = RoutePlanner::prepare(*parsed, source, settings, policy);
    printField(out, u"Link", plan.received.toString());
    if (plan.unwrappedSomething())
        printField(out, u"Unwrapped", plan.unwrapped.toString());
    if (!settings.urlCleaningEnabled)
        printField(out, u"Cleaning", u"off");
    else if (plan.cleanedSomething())
        printField(out, u"Cleaned", plan.cleaned.toString());
    printField(out, u"Source", source ? source->desktopId : u"unknown"_s);

    if (plan.decision == RoutePlan::Decision::Paused) {
        printField(out, u"Rules", u"paused: every link opens in the fallback browser");
        printField(out, u"Browser",
                   plan.asks()     ? u"ask"_s
                   : plan.result ? plan.result->browserId
                                 : u"none (no fallback browser is set)"_s);
        printField(out, u"Decided by", describe(plan, environment.config.rules));
        out.flush();
        return plan.result ? Success : Failed;
    }

    if (arguments.flag(u"--expand"_s) && plan.shortLink) {
        const Link expanded = waitFor(environment.expand(plan.working));
        if (!(expanded == plan.working)) {
            printField(out, u"Expanded", expanded.toString());
            RoutePlanner::expanded(plan, expanded);
        }
    }
    RoutePlanner::decide(plan, settings, policy);

    // The host as the rules compare it.
    printField(out, u"Host", HostName::canonical(plan.working.hostView()));
    printField(out, u"Rules", u"%1 stored"_s.arg(settings.rules.size()));
    if (const auto &app = plan.handoff ? plan.handoff : plan.offeredHandoff)
        printField(out, u"Handoff",
                   u"%1 → %2%3"_s.arg(app->name, app->link.toString(),
                                      plan.handoff ? QString() : u" (switched off in Apps)"_s));
    if (plan.handoff) {
        printField(out, u"App", u"%1 (%2)"_s.arg(plan.handoff->app.id, plan.handoff->app.name));
    } else if (plan.asks()) {
        // The window that asks would appear.
        printField(out, u"Browser",
                   plan.result->browserId.isEmpty()
                       ? u"ask"_s
                       : u"ask (offered first: %1)"_s.arg(plan.result->browserId));
    } else if (plan.result) {
        printField(out, u"Browser", plan.result->browserId);
        if (plan.result->profileID)
            printField(out, u"Profile", *plan.result->profileID);
    } else {
        printField(out, u"Browser", u"none");
    }
    printField(out, u"Decided by", describe(plan, environment.config.rules));
    out << "\nRouter trail:\n";
    for (const QString &line : std::as_const(plan.trail))
        out << "  " << line << '\n';
    out.flush();
    return plan.result ? Success : Failed;
}

} // namespace ExplainCommand
