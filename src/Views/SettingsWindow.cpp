#include "Views/SettingsWindow.h"

#include "App/AppState.h"
#include "Views/AppsPane.h"
#include "Views/BrowsersPane.h"
#include "Views/GeneralPane.h"
#include "Views/HistoryPane.h"
#include "Views/RuleListView.h"

#include <QApplication>
#include <QScreen>
#include <QShortcut>
#include <QTabWidget>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

SettingsWindow::SettingsWindow(AppState &state, RuleEditServices services,
                               std::function<void()> checkForUpdates, QWidget *parent)
    : QWidget(parent, Qt::Window)
    , m_tabs(new QTabWidget)
    , m_appRules(new AppRuleListView(state, services))
    , m_urlRules(new URLRuleListView(state, services))
    , m_history(new HistoryPane(state))
    , m_browsers(new BrowsersPane(state, services.entries))
{
    setObjectName(u"settingsWindow"_s);
    setWindowTitle(u"Quillvane Settings"_s);
    setWindowIcon(QIcon::fromTheme(u"work.vorpa.Quillvane"_s));
    m_tabs->setObjectName(u"settingsTabs"_s);
    m_tabs->setDocumentMode(true);
    m_tabs->addTab(m_appRules, QIcon::fromTheme(u"applications-other"_s), u"App Rules"_s);
    m_tabs->addTab(m_urlRules, QIcon::fromTheme(u"insert-link"_s), u"URL Rules"_s);
    m_tabs->addTab(new GeneralPane(state, services.entries, std::move(checkForUpdates)),
                   QIcon::fromTheme(u"preferences-system"_s), u"General"_s);
    m_tabs->addTab(m_history, QIcon::fromTheme(u"document-open-recent"_s), u"History"_s);
    m_tabs->addTab(m_browsers, QIcon::fromTheme(u"web-browser"_s), u"Browsers"_s);
    m_tabs->addTab(new AppsPane(state, services.entries),
                   QIcon::fromTheme(u"applications-internet"_s), u"Apps"_s);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_tabs);

    resize(520, 520);
    setMinimumSize(400, 300);
    if (const QScreen *screen = QApplication::primaryScreen())
        move(screen->availableGeometry().center() - rect().center());

    // The standard window keys: close the window, quit Quillvane.
    new QShortcut(QKeySequence::Close, this, this, &QWidget::close);
    new QShortcut(QKeySequence(u"Ctrl+Q"_s), this, qApp, &QCoreApplication::quit);
    // Tabs change from the keyboard wherever the focus is, even before any
    // control has it.
    const auto step = [this](int by) {
        m_tabs->setCurrentIndex((m_tabs->currentIndex() + by + m_tabs->count()) % m_tabs->count());
    };
    for (const QKeySequence &next :
         {QKeySequence(QKeySequence::NextChild), QKeySequence(u"Ctrl+PgDown"_s)})
        new QShortcut(next, this, this, [step] { step(1); });
    for (const QKeySequence &previous :
         {QKeySequence(QKeySequence::PreviousChild), QKeySequence(u"Ctrl+PgUp"_s)})
        new QShortcut(previous, this, this, [step] { step(-1); });
    for (int tab = 0; tab < m_tabs->count(); ++tab)
        new QShortcut(QKeySequence(u"Alt+%1"_s.arg(tab + 1)), this, this,
                      [this, tab] { m_tabs->setCurrentIndex(tab); });
}

int SettingsWindow::selectedTab() const
{
    return m_tabs->currentIndex();
}

void SettingsWindow::selectTab(int tab)
{
    m_tabs->setCurrentIndex(tab);
}
