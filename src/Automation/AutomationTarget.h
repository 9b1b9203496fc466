#pragma once

#include "Automation/AutomationValues.h"
#include "Models/BrowserInfo.h"
#include "Models/Config.h"
#include "Models/Link.h"

#include <QFuture>

#include <functional>
#include <optional>

namespace Automation {

using Answer = Expected<QString, IntentError>;

// What scripts reach of the running Quillvane. The composition root gives the
// automation its target; tests give theirs.
class Target
{
public:
    virtual ~Target() = default;

    // What the person configured, and a change to it; why it was not saved.
    virtual const Config &config() const = 0;
    virtual QString configPath() const = 0;
    virtual std::optional<QString> save(const std::function<void(Config &)> &change) = 0;
    // The installed browsers; with shownOnly, those the user did not hide.
    virtual QList<BrowserInfo> browsers(bool shownOnly) const = 0;
    virtual QList<BrowserProfile> profiles(const QString &browserID) const = 0;
    // The name an application's desktop entry gives it; none without one.
    virtual std::optional<QString> applicationName(const QString &desktopID) const = 0;
    // The name of the app the desktop opens a link scheme with; none without one.
    virtual std::optional<QString> schemeApp(const QString &scheme) const = 0;
    virtual bool launchAtLogin() const = 0;
    virtual void setLaunchAtLogin(bool enabled) = 0;
    // Answers "Opened in {name}." / "Routed to {name}." / "No routing rule
    // matched and no default browser is set."; a launch error ends it with the
    // launcher's description. Unlike a clicked link: rules apply even while
    // paused, short links are not expanded, a rule's profile is not used, and
    // nothing is counted or recorded. The link is journalled until its launch
    // has ended (journalEntry: one it already has, when routed again after a
    // restart).
    virtual QFuture<Answer> routeURL(const Link &url, const std::optional<BrowserEntity> &browser,
                                     qint64 journalEntry = 0) = 0;
};

} // namespace Automation
