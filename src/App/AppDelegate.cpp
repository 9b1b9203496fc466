#include "App/AppDelegate.h"

#include "App/AppState.h"
#include "Models/BuildInfo.h"
#include "App/DesktopActions.h"
#include "App/DesktopFollower.h"
#include "App/LinkIntake.h"
#include "App/LinkSocket.h"
#include "Views/UpdateController.h"
#include "Automation/AutomationAdaptor.h"
#include "Platform/ActiveApplication.h"
#include "Platform/ApplicationsMonitor.h"
#include "Platform/Autostart.h"
#include "Platform/DesktopEntries.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/OpenRequestMonitor.h"
#include "Platform/ProcessApps.h"
#include "Platform/ProcessLauncher.h"
#include "Platform/SystemLog.h"
#include "Services/DefaultBrowserRegistration.h"
#include "Services/NativeMessaging.h"
#include "Models/DisplayText.h"
#include "Services/OpenRequestSources.h"
#include "Services/ProfileDiscovery.h"
#include "Services/RunningApps.h"
#include "Services/SourceAppResolver.h"
#include "Services/UpdateChecker.h"
#include "Storage/HistoryDatabase.h"
#include "Storage/HistoryMigration.h"
#include "Storage/HistoryStore.h"
#include "Views/LinkPicker.h"
#include "Views/MessageBox.h"
#include "Views/RuleListView.h"
#include "Views/SettingsWindow.h"
#include "Views/StatusItem.h"
#include "applicationadaptor.h"
#include "browseradaptor.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QFileInfo>
#include <QTimer>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcAppDelegate, "AppDelegate")

namespace {

void debugLog(const QString &message)
{
    DiagnosticLog::write({}, message);
}

bool hasDisplay()
{
    const QString platform = QApplication::platformName();
    return !platform.isEmpty() && platform != u"offscreen" && platform != u"minimal";
}

} // namespace

AppDelegate::AppDelegate(QObject *parent, AppServices::Later later)
    : QObject(parent)
    , m_config(std::make_unique<ConfigFile>(ConfigFile::defaultPath(),
                                            ConfigFile::defaultLegacyPath()))
    , m_history(std::make_unique<HistoryDatabase>())
    , m_autostart(std::make_unique<XdgAutostart>(QCoreApplication::applicationFilePath()))
{
    // What an earlier version's settings file still holds of the history is
    // taken before the file is moved aside, and written once the history is ours.
    if (!QFileInfo::exists(m_config->path()) && QFileInfo(ConfigFile::defaultLegacyPath()).isFile())
        m_pendingHistory =
            HistoryMigration::take(QSettings(ConfigFile::defaultLegacyPath(), QSettings::IniFormat));
    m_config->load();
    m_config->watch();
    AppServices services{GioDesktopEntries::instance(), GioProcessLauncher::instance(),
                         *m_autostart};
    if (later)
        services.later = std::move(later);
    m_appState = std::make_unique<AppState>(*m_config, *m_history, std::move(services));
    // The release notes go where the user's rules send links from Quillvane.
    m_updates = std::make_unique<UpdateController>(
        [this] { return m_appState->config().automaticUpdateChecks; }, *m_history,
        UpdateController::makeBuildChecker(), [this](const QUrl &link) {
            if (m_intake)
                m_intake->handleURLs({link.toString()}, QCoreApplication::applicationPid(), {});
        });
}

AppDelegate::~AppDelegate()
{
    m_settingsWindow.reset();
    m_statusItem.reset();
    m_appState->setAskWhereToOpen({});
    m_linkPicker.reset();
}

bool AppDelegate::applicationWillFinishLaunching()
{
    debugLog(u"applicationWillFinishLaunching — registering Apple Event handler"_s);
    m_processApps = std::make_unique<LinuxProcessApps>(GioDesktopEntries::instance());
    m_appState->setProcesses(*m_processApps);
    m_activeApplication = ActiveApplication::create();
    m_resolver = std::make_unique<SourceAppResolver>(*m_processApps, *m_activeApplication);
    m_intake = std::make_unique<LinkIntake>(*m_appState, *m_resolver);
    // Made at the first link that asks, then kept hidden: its widgets and the
    // fonts they load are megabytes that a router at rest does not need.
    // Without a display, links that ask go to the fallback browser.
    if (hasDisplay()) {
        m_appState->setAskWhereToOpen(
            [this](const AskRequest &request, std::function<void(const AskAnswer &)> answer) {
                if (!m_linkPicker)
                    m_linkPicker =
                        std::make_unique<LinkPicker>(*m_appState, GioDesktopEntries::instance());
                m_linkPicker->ask(request, std::move(answer));
            });
    }
    m_intake->onActivate = [this] { openSettings(); };
    m_intake->onAction = [this](const QString &action) {
        DesktopActions::run(m_intake->scripts(), action, [this] { openRuleEditor(); });
    };
    QDBusConnection bus = QDBusConnection::sessionBus();
    new ApplicationAdaptor(m_intake.get());
    new BrowserAdaptor(m_intake.get());
    new AutomationAdaptor(m_intake.get(), bus, m_intake->scripts());

    if (!bus.isConnected()) {
        qCCritical(lcAppDelegate).noquote()
            << u"No D-Bus session bus: Quillvane cannot receive links. %1"_s.arg(
                   bus.lastError().message());
        return false;
    }
    // Before the name is taken: a link an application asks the portal or snapd
    // to open from now on is credited to it.
    QString refused;
    m_openRequestMonitor = BusOpenRequestMonitor::start(&refused);
    if (m_openRequestMonitor) {
        m_openRequests = std::make_unique<OpenRequestSources>(*m_openRequestMonitor,
                                                              *m_processApps, *m_resolver);
        m_intake->setOpenRequests(m_openRequests.get());
    } else {
        qCWarning(lcAppDelegate).noquote()
            << u"Links that sandboxed applications open through the desktop portal or snapd "
               "cannot be credited to them: %1."_s.arg(refused);
    }
    // The object first, so that a call arriving with the name finds it.
    if (!bus.registerObject(BusNames::ObjectPath, m_intake.get())) {
        qCCritical(lcAppDelegate).noquote()
            << u"Could not publish %1 on the session bus."_s.arg(BusNames::ObjectPath);
        return false;
    }
    m_processApps->listenForLaunches();
    const auto owned = bus.interface()->registerService(
        QString::fromUtf16(BuildInfo::AppId), QDBusConnectionInterface::DontQueueService,
        QDBusConnectionInterface::DontAllowReplacement);
    if (!owned.isValid() || owned.value() != QDBusConnectionInterface::ServiceRegistered) {
        bus.unregisterObject(BusNames::ObjectPath);
        return false;
    }
    // Once the name is this instance's: no other one listens there now.
    m_linkSocket = std::make_unique<LinkSocket>(*m_intake);
    if (QString why; !m_linkSocket->listen(&why))
        qCWarning(lcAppDelegate).noquote()
            << u"quillvane-open reaches Quillvane through the session bus only: %1."_s.arg(why);
    m_resolver->startTracking();
    debugLog(u"SourceAppResolver tracking started"_s);
    // Browsers installed, removed or changed while Quillvane runs.
    m_desktopFollower = std::make_unique<DesktopFollower>(*m_appState);
    m_applicationsMonitor = std::make_unique<ApplicationsMonitor>();
    connect(m_applicationsMonitor.get(), &ApplicationsMonitor::changed, m_desktopFollower.get(),
            &DesktopFollower::applicationsChanged);
    // Quillvane's one instance now: the history is its to write, and what the
    // previous one accepted and did not open is its to open.
    m_history->claimWriter();
    if (m_pendingHistory)
        HistoryMigration::run(*std::exchange(m_pendingHistory, std::nullopt), *m_history);
    m_appState->history().reloadTodayForwardCount();
    m_intake->resumeUnfinished();
    // Without its bus the session is over, and no link can reach Quillvane any more.
    bus.connect(QString(), u"/org/freedesktop/DBus/Local"_s, u"org.freedesktop.DBus.Local"_s,
                u"Disconnected"_s, QCoreApplication::instance(), SLOT(quit()));
    return true;
}

void AppDelegate::applicationDidFinishLaunching()
{
    debugLog(u"applicationDidFinishLaunching — setting up status item"_s);
    setupStatusItem();
    m_updates->startAutomaticChecks();
    promptSetAsDefaultBrowserIfNeeded();
    registerNativeHost();
}

void AppDelegate::registerNativeHost()
{
    // Browsers find the extension's host through a manifest in their own
    // folders: this user's get one for every browser used here since the last
    // start (the package puts the system's in place).
    const QString host = NativeMessaging::installedHost(QCoreApplication::applicationDirPath());
    if (host.isEmpty())
        return;
    for (const QString &problem : NativeMessaging::registerForUser(host))
        qCWarning(lcAppDelegate).noquote() << DisplayText::escapeControls(problem);
}

void AppDelegate::applicationWillTerminate()
{
    // Links routed while the disk refused them wait in memory for the next retry,
    // which will not come: this is their last chance. Links accepted and not yet
    // opened stay in the journal, and the next start opens them.
    HistoryDatabase::Unwritten &unwritten = m_history->unwritten();
    if (unwritten.isEmpty() || HistoryStore::flush(*m_history))
        return;
    qCCritical(lcAppDelegate).noquote()
        << u"Quitting with %1 forwarded links not yet written to the history: %2"_s.arg(
               QString::number(unwritten.records.size()), m_history->lastFailure());
}

void AppDelegate::promptSetAsDefaultBrowserIfNeeded()
{
    if (m_appState->checkIsDefaultBrowser()) {
        debugLog(u"Already the default browser — skipping prompt"_s);
        return;
    }
    if (!hasDisplay()) {
        debugLog(u"No display — skipping default browser prompt"_s);
        return;
    }
    debugLog(u"Not the default browser — showing prompt"_s);
    MessageBox::ask(
        u"Set Quillvane as Default Browser?"_s,
        u"Quillvane needs to be your default browser to intercept and route URLs. You can change this later in your desktop's settings."_s,
        {u"Set as Default"_s, u"Later"_s}, 0, [](int answer) {
            if (answer != 0) {
                debugLog(u"User chose 'Later' — skipping default browser registration"_s);
                return;
            }
            debugLog(u"User chose 'Set as Default' — requesting system registration"_s);
            const auto requested = DefaultBrowserRegistration::request(
                GioDesktopEntries::instance(), QString::fromUtf16(BuildInfo::AppId));
            if (!requested) {
                debugLog(u"Failed to set default browser: "_s + requested.error());
                qCCritical(lcAppDelegate).noquote() << u"Failed to set default browser: %1"_s.arg(
                    SystemLog::priv(requested.error()));
                return;
            }
            debugLog(u"Successfully requested default browser registration for http + https"_s);
        });
}

void AppDelegate::openRuleEditor()
{
    openSettingsOn(SettingsWindow::AppRulesTab,
                   [this] { m_settingsWindow->appRules().showAddSheet(); });
}

RuleEditServices AppDelegate::ruleEditServices()
{
    return {GioDesktopEntries::instance(),
            [this] {
                return m_processApps
                           ? RunningApps::running(*m_processApps, GioDesktopEntries::instance())
                           : QList<RunningAppInfo>();
            }};
}

void AppDelegate::setupStatusItem()
{
    StatusItem::Commands commands{[this] { openHistory(); }, [this] { openSettings(); },
                                  [this] { checkForUpdates(); }, [] { QCoreApplication::quit(); }};
    m_statusItem =
        std::make_unique<StatusItem>(*m_appState, GioDesktopEntries::instance(), commands);
    if (!m_statusItem->setUp()) {
        // Routing goes on without a tray; only the window is harder to reach.
        qCInfo(lcAppDelegate).noquote()
            << u"This desktop shows no tray icons: Quillvane keeps routing links. Open its settings with \"quillvane --settings\" or from its desktop entry."_s;
    }
}

void AppDelegate::openSettings()
{
    openSettingsOn(-1);
}

void AppDelegate::openHistory()
{
    openSettingsOn(SettingsWindow::HistoryTab);
}

void AppDelegate::openSettingsOn(int tab, std::function<void()> then)
{
    // After the menu that asked has closed.
    QTimer::singleShot(0, this, [this, tab, then = std::move(then)] {
        if (!m_settingsWindow)
            m_settingsWindow = std::make_unique<SettingsWindow>(*m_appState, ruleEditServices(),
                                                                [this] { checkForUpdates(); });
        if (tab >= 0)
            m_settingsWindow->selectTab(tab);
        m_settingsWindow->show();
        m_settingsWindow->raise();
        m_settingsWindow->activateWindow();
        if (then)
            then();
    });
}

void AppDelegate::checkForUpdates()
{
    m_updates->checkForUpdates();
}
