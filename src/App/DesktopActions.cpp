#include "App/DesktopActions.h"

#include "Automation/SettingsActions.h"
#include "Platform/Notifications.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QGuiApplication>

using namespace Qt::Literals::StringLiterals;

namespace DesktopActions {

namespace {

void routeClipboard(Automation::Target &target)
{
    const QString title = u"Route URL"_s;
    const QClipboard *clipboard = qobject_cast<QGuiApplication *>(QCoreApplication::instance())
                                      ? QGuiApplication::clipboard()
                                      : nullptr;
    const QString text = clipboard ? clipboard->text().trimmed() : QString();
    if (text.isEmpty()) {
        Notifications::show(title, u"The clipboard holds no text. Copy a link first."_s);
        return;
    }
    const auto link = Link::parseWebLink(text);
    if (!link) {
        Notifications::show(
            title, u"The clipboard holds no link to route: %1"_s.arg(link.error().description));
        return;
    }
    target.routeURL(*link, std::nullopt)
        .then(QCoreApplication::instance(), [title](const Automation::Answer &answer) {
            Notifications::show(title, answer ? *answer : answer.error().description());
        });
}

void showBrowsers(const Automation::Target &target)
{
    QStringList lines;
    for (const Automation::BrowserEntity &browser : Automation::listBrowsers(target))
        lines.append(u"%1 (%2)"_s.arg(browser.name, browser.id));
    Notifications::show(u"List Browsers"_s,
                        lines.isEmpty() ? u"No browsers are installed."_s : lines.join(u'\n'));
}

} // namespace

bool isKnown(const QString &id)
{
    return id == RouteClipboard || id == ListBrowsers || id == CreateRule;
}

void run(Automation::Target &target, const QString &id,
         const std::function<void()> &openRuleEditor)
{
    if (id == RouteClipboard)
        routeClipboard(target);
    else if (id == ListBrowsers)
        showBrowsers(target);
    else if (id == CreateRule && openRuleEditor)
        openRuleEditor();
}

} // namespace DesktopActions
