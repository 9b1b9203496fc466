#pragma once

#include "Models/BrowserInfo.h"
#include "Models/Expected.h"
#include "Models/RoutingRule.h"

#include <QList>
#include <QString>

#include <optional>

namespace Automation {
class Target;
}

// The values scripts exchange with Quillvane: browsers, rules and the
// features they can switch, and the errors every action may answer with.
namespace Automation {

struct BrowserEntity
{
    QString id;
    QString name;

    static BrowserEntity from(const BrowserInfo &browser)
    {
        return {browser.desktopId, browser.name};
    }
    friend bool operator==(const BrowserEntity &, const BrowserEntity &) = default;
};

struct RuleEntity
{
    QString id;
    QString summary;

    static RuleEntity from(const RoutingRule &rule);
    friend bool operator==(const RuleEntity &, const RuleEntity &) = default;
};

enum class Feature
{
    UrlCleaning,
    UrlExpansion,
    LaunchAtLogin,
    PauseRules,
    // Beyond the four that every automation service offers.
    UrlUnwrapping,
    PreferRunningBrowser
};

struct FeatureInfo
{
    Feature feature;
    QStringView rawValue;
    QStringView title;
};

// In declaration order.
const QList<FeatureInfo> &features();
// Only an exact, case-sensitive raw value names a feature.
std::optional<Feature> featureFromRawValue(QStringView rawValue);

struct IntentError
{
    // Refused: the user answered no to a confirmation. LaunchFailed carries the
    // browser launcher's own description.
    enum class Kind
    {
        ValidationFailed,
        AppNotReady,
        Refused,
        LaunchFailed
    };
    Kind kind;
    QString message;

    QString description() const;
    static IntentError appNotReady() { return {Kind::AppNotReady, {}}; }
};

// Every installed browser; with shownOnly, those the user did not hide.
QList<BrowserEntity> allBrowsers(const Target &target, bool shownOnly = false);
// What a caller is told when an id names no installed browser (Quillvane
// itself is none: it never hands a link to itself).
QString unknownBrowser(const QString &id);
// Those with one of the ids (exact), in browser-list order, each once.
QList<BrowserEntity> browsers(const Target &target, const QStringList &ids);
QList<RuleEntity> allRules(const Target &target);
QList<RuleEntity> rules(const Target &target, const QStringList &ids);

} // namespace Automation
