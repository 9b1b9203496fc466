#include "Views/AppsPane.h"

#include "App/AppState.h"
#include "Services/Handoffs.h"
#include "Views/BrowserIcons.h"
#include "Views/ViewKit.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QLabel>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

AppsPane::AppsPane(AppState &state, DesktopEntries &entries, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_entries(entries)
{
    setObjectName(u"appsPane"_s);
    auto *content = new QWidget;
    auto *page = new QVBoxLayout(content);
    page->setContentsMargins(20, 20, 20, 20);
    page->setSpacing(12);
    QVBoxLayout *section =
        ViewKit::addSection(page, u"applications-other"_s, u"Open Links in Apps"_s);
    section->addWidget(ViewKit::caption(
        u"Meeting, music and chat links open in the service's own app when it is installed and its switch is on. A rule that names a browser for a link still wins."_s));

    auto *grid = new QGridLayout;
    grid->setHorizontalSpacing(10);
    grid->setVerticalSpacing(8);
    int line = 0;
    for (const Handoffs::Handoff &handoff : Handoffs::builtIn()) {
        Row row{handoff.id, handoff.scheme, new QLabel, ViewKit::caption({}),
                new QCheckBox(handoff.name)};
        row.icon->setFixedSize(24, 24);
        row.app->setObjectName(u"handoffApp_"_s + handoff.id);
        row.app->setWordWrap(false);
        row.toggle->setObjectName(u"handoffSwitch_"_s + handoff.id);
        row.toggle->setFont(ViewKit::scaled(font(), 1.0, QFont::Medium));
        connect(row.toggle, &QCheckBox::clicked, &m_state,
                [this, id = handoff.id](bool on) { m_state.setHandoffEnabled(id, on); });
        grid->addWidget(row.icon, line, 0, 2, 1, Qt::AlignTop);
        grid->addWidget(row.toggle, line, 1);
        grid->addWidget(row.app, line + 1, 1);
        line += 2;
        m_rows.append(row);
    }
    grid->setColumnStretch(1, 1);
    section->addLayout(grid);
    page->addStretch();

    ViewKit::setScrolledContent(this, content);

    connect(&m_state, &AppState::configChanged, this, &AppsPane::showSwitches);
    connect(&m_state.browsers(), &BrowserCatalog::changed, this, &AppsPane::showApps);
    showApps();
    showSwitches();
}

void AppsPane::showEvent(QShowEvent *event)
{
    showApps();
    QWidget::showEvent(event);
}

void AppsPane::showApps()
{
    for (const Row &row : std::as_const(m_rows)) {
        const std::optional<SchemeHandler> app = m_state.schemeHandler(row.scheme);
        row.icon->setPixmap((app ? BrowserIcons::appIcon(app->id, m_entries)
                                 : QIcon::fromTheme(u"application-x-executable"_s))
                                .pixmap(24, 24, app ? QIcon::Normal : QIcon::Disabled));
        row.app->setText(app ? u"Opens in %1"_s.arg(app->name) : u"not installed"_s);
        row.app->setToolTip(app ? app->id : u"No installed app opens %1: links"_s.arg(row.scheme));
    }
}

void AppsPane::showSwitches()
{
    for (const Row &row : std::as_const(m_rows))
        row.toggle->setChecked(m_state.config().handoffs.contains(row.id));
}
