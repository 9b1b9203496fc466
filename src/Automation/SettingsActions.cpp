#include "Automation/SettingsActions.h"

#include "Services/ConfigFile.h"
#include "Services/ConfigManager.h"
#include "Services/Handoffs.h"

using namespace Qt::Literals::StringLiterals;

namespace Automation {

namespace {

IntentError notSaved(const QString &why)
{
    return IntentError{IntentError::Kind::Refused, why};
}

// The configuration's switch behind a feature; none for launch at login,
// which the desktop's autostart folder keeps.
bool Config::*switchOf(Feature feature)
{
    switch (feature) {
    case Feature::UrlCleaning:
        return &Config::urlCleaningEnabled;
    case Feature::UrlExpansion:
        return &Config::urlExpansionEnabled;
    case Feature::UrlUnwrapping:
        return &Config::urlUnwrappingEnabled;
    case Feature::PreferRunningBrowser:
        return &Config::preferRunningBrowser;
    case Feature::PauseRules:
        return &Config::rulesEnabled;
    case Feature::LaunchAtLogin:
        break;
    }
    return nullptr;
}

} // namespace

Answer setDefaultBrowser(Target &target, const BrowserEntity &browser)
{
    if (const auto why = target.save([&browser](Config &config) {
            config.fallbackBrowser = browser.id;
            config.fallbackAsks = false;
        }))
        return notSaved(*why);
    return u"Default browser set to %1."_s.arg(browser.name);
}

Answer setFallbackToAsk(Target &target)
{
    if (const auto why = target.save([](Config &config) { config.fallbackAsks = true; }))
        return notSaved(*why);
    return u"Fallback set to Ask Every Time."_s;
}

Answer toggleFeature(Target &target, Feature feature, bool enabled)
{
    if (bool Config::*field = switchOf(feature)) {
        // Pause on means the rules off.
        const bool value = feature == Feature::PauseRules ? !enabled : enabled;
        if (const auto why = target.save([field, value](Config &config) { config.*field = value; }))
            return notSaved(*why);
    } else if (target.launchAtLogin() != enabled) {
        target.setLaunchAtLogin(enabled);
    }
    QString title;
    for (const FeatureInfo &info : features()) {
        if (info.feature == feature)
            title = info.title.toString();
    }
    // Restates the request, whatever a failing launch-at-login switch did.
    return u"%1 is now %2."_s.arg(title, enabled ? u"enabled"_s : u"disabled"_s);
}

QList<BrowserEntity> listBrowsers(const Target &target)
{
    // A browser the user hid is left out of lists; its id still resolves.
    return allBrowsers(target, true);
}

Answer checkConfig(const Target &target, const QString &path)
{
    const auto config = ConfigFile::peek(path.isEmpty() ? target.configPath() : path);
    if (!config)
        return IntentError{IntentError::Kind::ValidationFailed, config.error().text()};
    return u"Nothing wrong: %1 rule(s)."_s.arg(config->rules.size());
}

QString exportConfig(const Target &target)
{
    return QString::fromUtf8(ConfigManager::encode(ConfigManager::exportConfig(target.config())));
}

Answer importConfig(Target &target, const QByteArray &document)
{
    const auto imported = ConfigManager::importFromJSON(document);
    if (!imported)
        return IntentError{IntentError::Kind::ValidationFailed, imported.error().description()};
    if (const auto why = target.save(
            [&imported](Config &config) { ConfigManager::apply(*imported, config); }))
        return notSaved(*why);
    return u"Imported %1 rule(s)."_s.arg(imported->rules.size());
}

Answer setHandoff(Target &target, const QString &id, bool enabled)
{
    const Handoffs::Handoff *handoff = Handoffs::find(id);
    if (!handoff)
        return IntentError{IntentError::Kind::ValidationFailed,
                           u"There is no handoff named \"%1\"."_s.arg(id.left(80))};
    if (const auto why = target.save([&](Config &config) {
            config.handoffs = Handoffs::switched(config.handoffs, handoff->id, enabled);
        }))
        return notSaved(*why);
    return u"%1 links now open %2."_s.arg(handoff->name,
                                          enabled ? u"in its app"_s : u"in a browser"_s);
}

QList<QVariantMap> handoffs(const Target &target)
{
    QList<QVariantMap> list;
    for (const Handoffs::Handoff &handoff : Handoffs::builtIn()) {
        QVariantMap entry{{u"id"_s, handoff.id},
                          {u"name"_s, handoff.name},
                          {u"enabled"_s, target.config().handoffs.contains(handoff.id)}};
        if (const auto app = target.schemeApp(handoff.scheme))
            entry.insert(u"app"_s, *app);
        list.append(entry);
    }
    return list;
}

} // namespace Automation
