#include "App/ExplainCommand.h"

#include "Services/RoutePlanner.h"
#include "Services/URLCleaner.h"
#include "Storage/RuleStore.h"

#include <QEventLoop>
#include <QFutureWatcher>

using namespace Qt::Literals::StringLiterals;

namespace ExplainCommand {

namespace {

struct Options
{
    QString link;
    std::optional<QString> from;
    bool expand = false;
    bool help = false;
};

Expected<Options, DecodeError> parseArguments(const QStringList &arguments)
{
    Options options;
    bool positionalOnly = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (!positionalOnly && argument == u"--") {
            positionalOnly = true;
        } else if (!positionalOnly && (argument == u"--help" || argument == u"-h")) {
            options.help = true;
        } else if (!positionalOnly && argument == u"--expand") {
            options.expand = true;
        } else if (!positionalOnly && (argument == u"--from" || argument.startsWith(u"--from="))) {
            QString value;
            if (argument == u"--from") {
                if (i + 1 >= arguments.size())
                    return DecodeError{
                        u"--from needs an application id, such as org.gnome.Evolution."_s};
                value = arguments[++i];
            } else {
                value = argument.sliced(7);
            }
            if (value.trimmed().isEmpty())
                return DecodeError{
                    u"--from needs an application id, such as org.gnome.Evolution."_s};
            options.from = value;
        } else if (!positionalOnly && argument.startsWith(u'-') && argument.size() > 1) {
            return DecodeError{u"unknown option \"%1\"."_s.arg(argument.left(80))};
        } else if (options.link.isNull()) {
            options.link = argument;
        } else {
            return DecodeError{u"only one link can be explained at a time."_s};
        }
    }
    if (!options.help && options.link.isNull())
        return DecodeError{u"which link? Give the link to explain."_s};
    return options;
}

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
    case Decision::NoRoute:
    case Decision::Pending:
        return u"no route (no rule matched and no fallback browser is set)"_s;
    default:
        break;
    }
    const RoutingRule &rule = rules[plan.ruleIndex];
    const QString number = u"rule %1 of %2 (id %3)"_s.arg(QString::number(plan.ruleIndex + 1),
                                                          QString::number(rules.size()),
                                                          JsonFields::uuidText(rule.id));
    switch (plan.decision) {
    case Decision::Combined:
        return u"app rule for %1 with pattern \"%2\", %3"_s.arg(rule.sourceAppBundleID,
                                                                *rule.urlPattern, number);
    case Decision::SourceOnly:
        return u"app rule for every link from %1, %2"_s.arg(rule.sourceAppBundleID, number);
    case Decision::UrlOnly:
        return u"URL rule with pattern \"%1\", %2"_s.arg(*rule.urlPattern, number);
    default:
        return {};
    }
}

void printField(QTextStream &out, QStringView label, QStringView value)
{
    out << QString(label + u':').leftJustified(12) << value << '\n';
}

} // namespace

QString usage()
{
    return u"Usage: quillvane explain URL [--from APP-ID] [--expand]\n"
           "\n"
           "Shows which browser (and profile) Quillvane would open URL in, which rule\n"
           "decides, and the router's trail. Uses your stored rules and fallback browser,\n"
           "cleans tracking parameters when cleaning is on, and changes nothing.\n"
           "\n"
           "  --from APP-ID  the application that opens the link, as its desktop-entry id\n"
           "                 without \".desktop\" (for example org.gnome.Evolution)\n"
           "  --expand       also expand a link on a link-shortening host (asks the network)\n"
           "\n"
           "Exit status: 0 when the link has a route, 1 when it has none, 2 on bad input.\n"_s;
}

int run(const QStringList &arguments, const Environment &environment)
{
    QTextStream &out = environment.out;
    QTextStream &err = environment.err;

    const auto options = parseArguments(arguments);
    if (!options) {
        err << "quillvane explain: " << options.error().description << "\n\n" << usage();
        err.flush();
        return BadInput;
    }
    if (options->help) {
        out << usage();
        out.flush();
        return Routed;
    }

    const auto parsed = Link::parseWebLink(options->link);
    if (!parsed) {
        err << "quillvane explain: " << parsed.error().description << '\n';
        err.flush();
        return BadInput;
    }

    RuleStore store(environment.settings);
    const RouteSettings settings{store.loadRules(), store.loadDefaultBrowserBundleID(),
                                 store.loadRulesEnabled(),
                                 URLCleaner::isEnabled(environment.settings),
                                 // Expanded only when asked for with --expand.
                                 true, environment.isShortLink};
    std::optional<SourceApp> source;
    if (options->from)
        source = SourceApp{*options->from, *options->from};

    const RoutePolicy policy = RoutePolicy::explanation();
    RoutePlan plan = RoutePlanner::prepare(*parsed, source, settings, policy);
    printField(out, u"Link", plan.received.toString());
    if (!settings.urlCleaningEnabled)
        printField(out, u"Cleaning", u"off");
    else if (plan.cleanedSomething())
        printField(out, u"Cleaned", plan.cleaned.toString());
    printField(out, u"Source", source ? source->bundleID : u"unknown"_s);

    if (plan.decision == RoutePlan::Decision::Paused) {
        printField(out, u"Rules", u"paused: every link opens in the fallback browser");
        printField(out, u"Browser",
                   plan.result ? plan.result->browserBundleID
                               : u"none (no fallback browser is set)"_s);
        printField(out, u"Decided by", describe(plan, settings.rules));
        out.flush();
        return plan.result ? Routed : NoRoute;
    }

    if (options->expand && plan.shortLink) {
        const Link expanded = waitFor(environment.expand(plan.working));
        if (!(expanded == plan.working)) {
            printField(out, u"Expanded", expanded.toString());
            RoutePlanner::expanded(plan, expanded);
        }
    }
    RoutePlanner::decide(plan, settings, policy);

    printField(out, u"Rules", u"%1 stored"_s.arg(settings.rules.size()));
    if (plan.result) {
        printField(out, u"Browser", plan.result->browserBundleID);
        if (plan.result->profileID)
            printField(out, u"Profile", *plan.result->profileID);
    } else {
        printField(out, u"Browser", u"none");
    }
    printField(out, u"Decided by", describe(plan, settings.rules));
    out << "\nRouter trail:\n";
    for (const QString &line : std::as_const(plan.trail))
        out << "  " << line << '\n';
    out.flush();
    return plan.result ? Routed : NoRoute;
}

} // namespace ExplainCommand
