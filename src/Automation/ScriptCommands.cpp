#include "Automation/ScriptCommands.h"

#include "Automation/AutomationClient.h"
#include "Models/DisplayText.h"
#include "Models/Link.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdio>
#include <unistd.h>

using namespace Qt::Literals::StringLiterals;
using namespace Automation;

namespace ScriptCommands {

namespace {

template<typename T>
int failure(const CommandOutput &output, const Expected<T, AutomationClient::Failure> &result)
{
    return output.fail(result.error().message);
}

// The browser the id names, as Quillvane lists it.
Expected<BrowserEntity, QString> resolveBrowser(AutomationClient &client, const QString &id)
{
    if (id.isEmpty())
        return u"the browser id is empty; \"quillvane browsers\" lists the installed browsers."_s;
    const auto found = client.browsers({id});
    if (!found)
        return found.error().message;
    if (found->isEmpty())
        return unknownBrowser(id);
    return found->first();
}

void printJson(const CommandOutput &output, const QJsonArray &array)
{
    output.out << QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Indented));
    output.out.flush();
}

// Two columns, the first padded to its widest entry.
void printTable(const CommandOutput &output, const QList<std::pair<QString, QString>> &rows)
{
    qsizetype width = 0;
    for (const auto &row : rows)
        width = std::max(width, row.first.size());
    for (const auto &row : rows)
        output.out << DisplayText::escapeControls(row.first).leftJustified(width) << "  "
                   << DisplayText::escapeControls(row.second) << '\n';
    output.out.flush();
}

// A list as two columns, id first, or as a JSON array of objects with the
// same two members.
template<typename Entity>
int printList(const CommandArguments &arguments, const CommandOutput &output,
              const AutomationClient::Result<QList<Entity>> &list, QString Entity::*second,
              const QString &secondName, const char *emptyText)
{
    if (!list)
        return failure(output, list);
    if (arguments.flags.contains(u"--json"_s)) {
        QJsonArray array;
        for (const Entity &entity : *list)
            array.append(QJsonObject{{u"id"_s, entity.id}, {secondName, entity.*second}});
        printJson(output, array);
        return Success;
    }
    if (list->isEmpty()) {
        output.err << emptyText << '\n';
        output.err.flush();
        return Success;
    }
    QList<std::pair<QString, QString>> rows;
    for (const Entity &entity : *list)
        rows.append({entity.id, entity.*second});
    printTable(output, rows);
    return Success;
}

} // namespace

int listBrowsers(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    return printList(arguments, output, client.listBrowsers(), &BrowserEntity::name, u"name"_s,
                     "No browsers are installed.");
}

int listRules(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    auto list = client.listRules();
    if (!list)
        return failure(output, list);
    const auto options = client.ruleOptions();
    if (!options)
        return failure(output, options);
    if (arguments.flags.contains(u"--json"_s)) {
        QJsonArray array;
        for (const RuleEntity &rule : *list) {
            QJsonObject object{{u"id"_s, rule.id}, {u"summary"_s, rule.summary}};
            for (const auto &[key, value] : options->value(rule.id).asKeyValueRange())
                object.insert(key, QJsonValue::fromVariant(value));
            array.append(object);
        }
        printJson(output, array);
        return Success;
    }
    QList<RuleEntity> shown;
    for (const RuleEntity &rule : *list) {
        const QVariantMap extra = options->value(rule.id);
        QString summary = rule.summary;
        if (extra.contains(u"profile"_s))
            summary += u"  [profile: %1]"_s.arg(
                extra.contains(u"profileName"_s)
                    ? extra.value(u"profileName"_s).toString()
                    : extra.value(u"profile"_s).toString() + u" (missing)"_s);
        if (extra.value(u"privateWindow"_s).toBool())
            summary += u"  [private window]"_s;
        shown.append({rule.id, summary});
    }
    return printList(arguments, output, AutomationClient::Result<QList<RuleEntity>>(shown),
                     &RuleEntity::summary, u"summary"_s, "No rules yet.");
}

int route(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    const QString &url = arguments.positional.first();
    // Checked here too, so that a mistyped link is explained even when
    // Quillvane is not running.
    const auto link = Link::parseWebLink(url);
    if (!link)
        return output.fail(u"%1: %2"_s.arg(url.left(200), link.error().description), BadUsage);
    AutomationClient::Result<QString> answer = QString();
    if (arguments.values.contains(u"--browser"_s)) {
        const auto browser = resolveBrowser(client, arguments.values.value(u"--browser"_s));
        if (!browser)
            return output.fail(browser.error());
        answer = client.routeURL(url, *browser);
    } else {
        answer = client.routeURL(url);
    }
    if (!answer)
        return failure(output, answer);
    return output.succeed(*answer);
}

int addRule(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    const bool ask = arguments.flags.contains(u"--ask"_s);
    if (ask == arguments.values.contains(u"--browser"_s))
        return output.fail(
            u"which browser? Give it with --browser ID (\"quillvane browsers\" lists them), or --ask to be asked every time."_s,
            BadUsage);
    // A rule that asks names no browser.
    Expected<BrowserEntity, QString> browser = BrowserEntity{};
    if (!ask)
        browser = resolveBrowser(client, arguments.values.value(u"--browser"_s));
    if (!browser)
        return output.fail(browser.error());
    QVariantMap options;
    if (ask)
        options.insert(u"askWhereToOpen"_s, true);
    const std::pair<QString, QString> names[] = {{u"--app"_s, u"sourceAppBundleID"_s},
                                                 {u"--app-name"_s, u"sourceAppName"_s},
                                                 {u"--pattern"_s, u"urlPattern"_s}};
    for (const auto &[option, key] : names) {
        if (arguments.values.contains(option))
            options.insert(key, arguments.values.value(option));
    }
    if (arguments.values.contains(u"--profile"_s))
        options.insert(u"profile"_s, arguments.values.value(u"--profile"_s));
    if (arguments.flags.contains(u"--private"_s))
        options.insert(u"privateWindow"_s, true);
    const auto answer = client.createRule(*browser, options);
    if (!answer)
        return failure(output, answer);
    return output.succeed(*answer);
}

int deleteRule(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    const QString &id = arguments.positional.first();
    const auto found = client.rules({id});
    if (!found)
        return failure(output, found);
    // A rule that is gone (deleted meanwhile, or never there) has nothing to
    // confirm: Quillvane answers for it as for any vanished rule.
    const RuleEntity rule = found->isEmpty() ? RuleEntity{id.left(200), {}} : found->first();
    if (!found->isEmpty() && !arguments.flags.contains(u"--yes"_s)) {
        const QString question = u"Delete rule \"%1\"?"_s.arg(rule.summary);
        const std::optional<bool> confirmed = output.confirm(question);
        if (!confirmed)
            return output.fail(
                u"%1 There is no terminal to ask on: add --yes to delete without asking. The rule was not deleted."_s
                    .arg(question));
        if (!*confirmed)
            return output.fail(u"The rule was not deleted."_s);
    }
    const auto answer = client.deleteRule(rule);
    if (!answer)
        return failure(output, answer);
    return output.succeed(*answer);
}

int setFallback(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    const bool ask = arguments.flags.contains(u"--ask"_s);
    if (ask == !arguments.positional.isEmpty())
        return output.fail(
            u"give a browser id or --ask (\"quillvane browsers\" lists the browsers)."_s,
            BadUsage);
    if (ask) {
        const auto answer = client.setFallbackToAsk();
        if (!answer)
            return failure(output, answer);
        return output.succeed(*answer);
    }
    const auto browser = resolveBrowser(client, arguments.positional.first());
    if (!browser)
        return output.fail(browser.error());
    const auto answer = client.setDefaultBrowser(*browser);
    if (!answer)
        return failure(output, answer);
    return output.succeed(*answer);
}

QString featureList()
{
    qsizetype width = 0;
    for (const FeatureInfo &info : features())
        width = std::max(width, info.rawValue.size());
    QString text;
    for (const FeatureInfo &info : features())
        text += u"  %1  %2\n"_s.arg(info.rawValue.toString().leftJustified(width), info.title);
    return text;
}

int toggleFeature(const CommandArguments &arguments, const CommandOutput &output)
{
    AutomationClient client;
    const QString &name = arguments.positional[0];
    const QString &state = arguments.positional[1];
    if (!featureFromRawValue(name))
        return output.fail(u"there is no feature named \"%1\". The features are:\n%2"_s.arg(
                               name.left(80), featureList().chopped(1)),
                           BadUsage);
    if (state != u"on" && state != u"off")
        return output.fail(u"say \"on\" or \"off\", not \"%1\"."_s.arg(state.left(80)), BadUsage);
    const auto answer = client.toggleFeature(name, state == u"on");
    if (!answer)
        return failure(output, answer);
    return output.succeed(*answer);
}

std::optional<bool> askOnTerminal(const QString &question)
{
    if (!isatty(STDIN_FILENO))
        return std::nullopt;
    const QByteArray prompt = (DisplayText::escapeControls(question) + u" [y/N] "_s).toUtf8();
    std::fwrite(prompt.constData(), 1, size_t(prompt.size()), stderr);
    std::fflush(stderr);
    char line[64] = {};
    if (!std::fgets(line, sizeof line, stdin))
        return false;
    const QString answer = QString::fromLocal8Bit(line).trimmed().toLower();
    return answer == u"y" || answer == u"yes";
}

} // namespace ScriptCommands
