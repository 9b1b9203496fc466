#include "Services/DefaultBrowserRegistration.h"

#include "Platform/DesktopSettings.h"
#include "Platform/SystemLog.h"
#include "Services/ExecLine.h"

#include <QProcess>
#include <QStandardPaths>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcRegistration, "DefaultBrowser")

namespace DefaultBrowserRegistration {

DesktopEntries::Result request(DesktopEntries &entries, const QString &appId)
{
    for (const QString &scheme : {u"http"_s, u"https"_s}) {
        if (auto claimed = entries.setDefaultForType(appId, u"x-scheme-handler/"_s + scheme);
            !claimed.hasValue())
            return claimed;
    }
    // Opening a saved page follows the links' handler, as browsers register it.
    for (const QString &type : {u"text/html"_s, u"application/xhtml+xml"_s}) {
        if (const auto claimed = entries.setDefaultForType(appId, type); !claimed.hasValue())
            qCInfo(lcRegistration).noquote()
                << u"Could not become the handler of %1: %2"_s.arg(type, claimed.error());
    }
    // XFCE's own preferred web browser, which xdg-settings and exo-open ask there.
    if (DesktopSettings::isCurrentDesktop(u"XFCE")) {
        const auto own = entries.entry(appId);
        const auto argv = own ? ExecLine::split(own->exec) : ExecLine::split(QString());
        if (argv) {
            const auto set = DesktopSettings::setXfceWebBrowser(
                appId, own->name.value_or(appId), own->icon, argv->first());
            if (!set)
                qCInfo(lcRegistration).noquote()
                    << u"Could not become XFCE's web browser: %1"_s.arg(set.error());
        }
    }
    // Plasma opens links with the browser named in kdeglobals before asking the MIME registry.
    if (DesktopSettings::isCurrentDesktop(u"KDE")) {
        for (const QString &tool : {u"kwriteconfig6"_s, u"kwriteconfig5"_s}) {
            const QString program = QStandardPaths::findExecutable(tool);
            if (program.isEmpty())
                continue;
            QProcess::execute(program,
                              {u"--file"_s, u"kdeglobals"_s, u"--group"_s, u"General"_s, u"--key"_s,
                               u"BrowserApplication"_s, appId + u".desktop"_s});
            break;
        }
    }
    return {};
}

} // namespace DefaultBrowserRegistration
