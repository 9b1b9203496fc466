#include "App/ConfigCommand.h"

#include "Services/ConfigFile.h"
#include "Services/ConfigManager.h"
#include "Services/Handoffs.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

using namespace Qt::Literals::StringLiterals;

namespace ConfigCommand {

namespace {

// The file as Quillvane would take it, or why it cannot be.
Expected<Config, QString> current(const Environment &environment)
{
    const auto config = ConfigFile::peek(environment.path, environment.legacyPath);
    if (!config)
        return config.error().text();
    return *config;
}

// Applies a change to the file the way the running Quillvane does: to the
// newest version, never over one it cannot read. Before Quillvane first moved
// the earlier settings in, it is left to do that (with the history).
std::optional<QString> change(const Environment &environment,
                              const std::function<void(Config &)> &apply)
{
    if (!QFileInfo::exists(environment.path) && QFileInfo(environment.legacyPath).isFile())
        return u"Quillvane has not yet moved the settings of %1 into %2: start Quillvane once, then try again."_s
            .arg(environment.legacyPath, environment.path);
    ConfigFile file(environment.path);
    file.load();
    return file.update(apply);
}

bool writeOut(const QString &path, const QByteArray &bytes, QString *why)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit())
        return true;
    *why = u"could not write %1: %2"_s.arg(path, file.errorString());
    return false;
}

} // namespace

int path(const CommandArguments &, const CommandOutput &output, const Environment &environment)
{
    return output.succeed(environment.path);
}

int check(const CommandArguments &arguments, const CommandOutput &output,
          const Environment &environment)
{
    const QString file = arguments.positional.value(0, environment.path);
    if (!arguments.positional.isEmpty() && !QFileInfo::exists(file))
        return output.fail(u"%1 does not exist."_s.arg(file));
    const auto config = ConfigFile::peek(
        file, arguments.positional.isEmpty() ? environment.legacyPath : QString());
    if (!config)
        return output.fail(config.error().text());
    return output.succeed(u"%1: %2 rule(s), nothing wrong."_s.arg(file).arg(config->rules.size()));
}

int exportTo(const CommandArguments &arguments, const CommandOutput &output,
             const Environment &environment)
{
    const auto config = current(environment);
    if (!config)
        return output.fail(config.error());
    const QByteArray document = ConfigManager::encode(ConfigManager::exportConfig(*config)) + '\n';
    if (arguments.positional.isEmpty()) {
        output.out << QString::fromUtf8(document);
        output.out.flush();
        return Success;
    }
    QString why;
    if (!writeOut(arguments.positional.first(), document, &why))
        return output.fail(why);
    return output.succeed(u"Exported %1 rule(s) to %2."_s.arg(config->rules.size())
                              .arg(arguments.positional.first()));
}

int import(const CommandArguments &arguments, const CommandOutput &output,
           const Environment &environment)
{
    const auto imported = ConfigManager::importFromFile(arguments.positional.first());
    if (!imported)
        return output.fail(imported.error().description());
    const auto before = current(environment);
    if (!before)
        return output.fail(before.error());
    Config after = *before;
    ConfigManager::apply(*imported, after);
    const QStringList changes = ConfigManager::describeChanges(*before, after);
    if (changes.isEmpty())
        return output.succeed(u"Nothing to change: the configuration already is as the file says."_s);
    output.out << u"Importing %1 changes %2:\n"_s.arg(arguments.positional.first(), environment.path)
               << changes.join(u'\n') << '\n';
    output.out.flush();
    if (!arguments.flag(u"--yes"_s)) {
        const std::optional<bool> confirmed = output.confirm(u"Import these changes?"_s);
        if (!confirmed)
            return output.fail(
                u"there is no terminal to ask on: add --yes to import without asking. Nothing was changed."_s);
        if (!*confirmed)
            return output.fail(u"Nothing was changed."_s);
    }
    // Applied to the file as it is now, which may have changed while asking.
    if (const auto why = change(environment, [&imported](Config &config) {
            ConfigManager::apply(*imported, config);
        }))
        return output.fail(*why);
    return output.succeed(u"Imported %1 rule(s)."_s.arg(imported->rules.size()));
}

int handoffs(const CommandArguments &arguments, const CommandOutput &output,
             const Environment &environment)
{
    const auto config = current(environment);
    if (!config)
        return output.fail(config.error());
    QJsonArray array;
    for (const Handoffs::Handoff &handoff : Handoffs::builtIn()) {
        const std::optional<QString> app =
            environment.appFor ? environment.appFor(handoff.scheme) : std::nullopt;
        array.append(QJsonObject{{u"id"_s, handoff.id},
                                 {u"name"_s, handoff.name},
                                 {u"enabled"_s, config->handoffs.contains(handoff.id)},
                                 {u"app"_s, app ? QJsonValue(*app) : QJsonValue()}});
    }
    if (arguments.flag(u"--json"_s)) {
        output.out << QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Indented));
        output.out.flush();
        return Success;
    }
    for (const QJsonValue &value : std::as_const(array)) {
        const QJsonObject handoff = value.toObject();
        output.out << handoff[u"id"].toString().leftJustified(10) << ' '
                   << (handoff[u"enabled"].toBool() ? "on " : "off") << "  "
                   << handoff[u"name"].toString() << " → "
                   << (handoff[u"app"].isString() ? handoff[u"app"].toString()
                                                  : u"no app installed"_s)
                   << '\n';
    }
    output.out.flush();
    return Success;
}

int handoff(const CommandArguments &arguments, const CommandOutput &output,
            const Environment &environment)
{
    const QString &name = arguments.positional[0];
    const QString &state = arguments.positional[1];
    const Handoffs::Handoff *known = Handoffs::find(name);
    if (!known) {
        QStringList names;
        for (const Handoffs::Handoff &handoff : Handoffs::builtIn())
            names.append(handoff.id);
        return output.fail(u"there is no handoff named \"%1\". The handoffs are: %2."_s.arg(
                               name.left(80), names.join(u", "_s)),
                           BadUsage);
    }
    if (state != u"on" && state != u"off")
        return output.fail(u"say \"on\" or \"off\", not \"%1\"."_s.arg(state.left(80)), BadUsage);
    const bool on = state == u"on";
    if (const auto why = change(environment, [&](Config &config) {
            config.handoffs = Handoffs::switched(config.handoffs, known->id, on);
        }))
        return output.fail(*why);
    return output.succeed(u"%1 links now open %2."_s.arg(
        known->name, on ? u"in its app"_s : u"in a browser"_s));
}

} // namespace ConfigCommand
