#pragma once

#include "Models/BrowserPreference.h"
#include "Models/RoutingRule.h"

#include <QList>
#include <QString>
#include <QStringList>

// What the person configures, as the configuration file holds it: one value,
// compared and copied whole, so that a change is seen as the difference of two.
struct Config
{
    // The JSON Schema the file names (kept as the person set it).
    QString schema;
    QList<RoutingRule> rules;
    bool rulesEnabled = true;
    // The fallback browser's desktop-entry id; empty when none is chosen.
    QString fallbackBrowser;
    // The fallback is "Ask": links no rule claims open where the user chooses
    // (the fallback browser, when set, offered first).
    bool fallbackAsks = false;
    bool urlCleaningEnabled = true;
    bool urlExpansionEnabled = false;
    // Links inside redirect wrappers (mail "safe links", /url?q=) are taken out first.
    bool urlUnwrappingEnabled = true;
    // Per browser: hidden from the lists, extra arguments.
    QList<BrowserPreference> browserPreferences;
    // The handoffs switched on, by id: links of their services open in their apps.
    QStringList handoffs;
    // The fallback browser gives way to a browser that runs, when it does not itself.
    bool preferRunningBrowser = false;
    // Links clicked in a browser with Quillvane's extension leave it when a rule
    // sends them to another browser.
    bool linksLeaveBrowsers = true;
    bool automaticUpdateChecks = true;

    friend bool operator==(const Config &, const Config &) = default;
};
