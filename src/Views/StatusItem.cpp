#include "Views/StatusItem.h"

#include "App/AppState.h"
#include "Models/BuildInfo.h"
#include "Models/DisplayText.h"
#include "Views/BrowserIcons.h"
#include "Views/ViewKit.h"

#include <QMenu>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;

namespace {

// Names in these lines come from outside (applications, browsers, links).
QAction *addInformation(QMenu &menu, const QString &text)
{
    QAction *action = menu.addAction(DisplayText::forMenu(text));
    action->setEnabled(false);
    return action;
}

// After the menu has closed, like every change made from it.
void later(QObject *context, std::function<void()> work)
{
    QTimer::singleShot(0, context, std::move(work));
}

} // namespace

StatusItem::StatusItem(AppState &state, DesktopEntries &entries, Commands commands, QObject *parent)
    : QObject(parent)
    , m_state(state)
    , m_entries(entries)
    , m_commands(std::move(commands))
    , m_menu(std::make_unique<QMenu>())
{
    m_menu->setObjectName(u"statusMenu"_s);
    connect(m_menu.get(), &QMenu::aboutToShow, this, [this] {
        // "⏸ Pause Rules": the default Debian fonts have no pause sign. Not at
        // start: fonts are megabytes that a router at rest does not need.
        ViewKit::installSymbolFont();
        rebuild(*m_menu);
    });
    // Paused from the menu, the settings window, a script or the command line alike.
    connect(&m_state, &AppState::configChanged, this, &StatusItem::updateIcon);
}

StatusItem::~StatusItem() = default;

QIcon StatusItem::activeIcon()
{
    return QIcon(u":/icons/tray-active.svg"_s);
}

QIcon StatusItem::pausedIcon()
{
    return QIcon(u":/icons/tray-paused.svg"_s);
}

bool StatusItem::setUp()
{
    rebuild(*m_menu);
    // Made even without a tray now: a panel that starts after Quillvane (at
    // login) still gets the icon.
    m_tray = std::make_unique<QSystemTrayIcon>();
    m_tray->setToolTip(u"Quillvane"_s);
    m_tray->setContextMenu(m_menu.get());
    updateIcon();
    // A click shows the menu too, where the tray host does not do so itself.
    connect(m_tray.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger && !m_menu->isVisible())
                    m_menu->popup(QCursor::pos());
            });
    m_tray->show();
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void StatusItem::updateIcon()
{
    m_iconState = m_state.config().rulesEnabled ? u"active"_s : u"paused"_s;
    if (m_tray)
        m_tray->setIcon(m_state.config().rulesEnabled ? activeIcon() : pausedIcon());
}

void StatusItem::togglePauseRules()
{
    later(this, [this] { m_state.toggle(&Config::rulesEnabled); });
}

void StatusItem::rebuild(QMenu &menu)
{
    menu.clear();
    addInformation(menu, m_state.checkIsDefaultBrowser() ? u"Default Browser: Activated"_s
                                                         : u"Default Browser: Not Set"_s);
    menu.addSeparator();
    const QList<RoutingRule> &rules = m_state.rules();
    const auto urlRules = std::count_if(rules.cbegin(), rules.cend(), [](const RoutingRule &rule) {
        return rule.kind() == RoutingRule::Kind::UrlOnly;
    });
    const auto appRules = std::count_if(rules.cbegin(), rules.cend(), [](const RoutingRule &rule) {
        return !rule.sourceAppId.isEmpty();
    });
    addInformation(menu, u"Rules: %1 app, %2 URL"_s.arg(appRules).arg(urlRules));
    addInformation(menu, u"Today: %1 forwarded"_s.arg(m_state.history().todayRecordCount()));
    if (!m_state.lastRouteLog().isEmpty())
        addInformation(menu, u"Last: "_s + m_state.lastRouteLog());
    menu.addSeparator();

    menu.addAction(m_state.config().rulesEnabled ? u"\u23F8 Pause Rules"_s : u"\u25B6 Resume Rules"_s,
                   this, &StatusItem::togglePauseRules)
        ->setObjectName(u"pauseRulesAction"_s);

    const bool asks = m_state.config().fallbackAsks;
    const QString fallbackName =
        asks ? RoutingRule::AskName.toString()
             : m_state.browsers().installedName(m_state.fallbackBrowserId()).value_or(u"None"_s);
    QMenu *fallback = menu.addMenu(u"Fallback: "_s + DisplayText::forMenu(fallbackName));
    fallback->menuAction()->setObjectName(u"fallbackAction"_s);
    for (const BrowserInfo &browser : m_state.browsers().shown(m_state.fallbackBrowserId())) {
        QAction *item = fallback->addAction(BrowserIcons::icon(browser, m_entries),
                                            DisplayText::forMenu(browser.name));
        item->setData(browser.desktopId);
        item->setCheckable(true);
        item->setChecked(!asks && browser.desktopId == m_state.fallbackBrowserId());
        connect(item, &QAction::triggered, this, [this, item] {
            const QVariant desktopId = item->data();
            if (desktopId.typeId() == QMetaType::QString)
                later(this, [this, id = desktopId.toString()] { m_state.setDefaultBrowser(id); });
        });
    }
    // Beyond the browsers: a window asks for each link that no rule claims.
    fallback->addSeparator();
    QAction *askEveryTime = fallback->addAction(RoutingRule::AskName.toString(), this, [this] {
        later(this, [this] { m_state.setFallbackAsks(); });
    });
    askEveryTime->setObjectName(u"fallbackAskAction"_s);
    askEveryTime->setCheckable(true);
    askEveryTime->setChecked(asks);
    menu.addSeparator();

    QAction *launchAtLogin = menu.addAction(u"Launch at Login"_s, this, [this] {
        later(this, [this] { m_state.toggleLaunchAtLogin(); });
    });
    launchAtLogin->setObjectName(u"launchAtLoginAction"_s);
    launchAtLogin->setCheckable(true);
    launchAtLogin->setChecked(m_state.launchAtLogin());
    menu.addSeparator();

    menu.addAction(u"Forwarding History..."_s, this, [this] { m_commands.openHistory(); })
        ->setObjectName(u"historyAction"_s);
    QAction *settings =
        menu.addAction(u"Settings..."_s, this, [this] { m_commands.openSettings(); });
    settings->setObjectName(u"settingsAction"_s);
    settings->setShortcut(QKeySequence(u"Ctrl+,"_s));
    menu.addAction(u"Check for Updates..."_s, this, [this] { m_commands.checkForUpdates(); })
        ->setObjectName(u"updatesAction"_s);
    menu.addSeparator();
    addInformation(menu, u"Quillvane v%1 (%2) · %3"_s.arg(QStringView(BuildInfo::Version),
                                                          QStringView(BuildInfo::BuildNumber),
                                                          QStringView(BuildInfo::Commit)));
    QAction *quit = menu.addAction(u"Quit Quillvane"_s, this, [this] { m_commands.quit(); });
    quit->setObjectName(u"quitAction"_s);
    quit->setShortcut(QKeySequence(u"Ctrl+Q"_s));
}
