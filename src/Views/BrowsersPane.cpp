#include "Views/BrowsersPane.h"

#include "App/AppState.h"
#include "Services/ProfileDiscovery.h"
#include "Views/BrowserIcons.h"
#include "Views/ViewKit.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

BrowsersPane::BrowsersPane(AppState &state, DesktopEntries &entries, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_entries(entries)
    , m_list(new QListWidget)
    , m_details(new QWidget)
    , m_name(new QLabel)
    , m_id(new QLabel)
    , m_shown(new QCheckBox(u"Show in browser lists"_s))
    , m_arguments(new QLineEdit)
    , m_argumentsError(new QLabel)
    , m_privateWindow(ViewKit::caption({}))
{
    setObjectName(u"browsersPane"_s);
    m_list->setObjectName(u"browsersList"_s);
    m_list->setIconSize(QSize(20, 20));
    m_list->setAccessibleName(u"Installed browsers"_s);
    m_list->setMinimumWidth(160);

    m_name->setObjectName(u"browserName"_s);
    m_name->setFont(ViewKit::scaled(font(), 1.15, QFont::DemiBold));
    m_id->setObjectName(u"browserId"_s);
    m_id->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_id->setForegroundRole(QPalette::PlaceholderText);
    m_shown->setObjectName(u"browserShownCheck"_s);
    m_arguments->setObjectName(u"browserArgumentsField"_s);
    m_arguments->setAccessibleName(u"Extra arguments"_s);
    m_arguments->setPlaceholderText(u"e.g. --new-window"_s);
    m_argumentsError->setObjectName(u"browserArgumentsError"_s);
    m_argumentsError->setWordWrap(true);
    m_argumentsError->setStyleSheet(u"color: #c0392b;"_s);
    m_argumentsError->hide();
    m_privateWindow->setObjectName(u"browserPrivateWindow"_s);

    auto *details = new QVBoxLayout(m_details);
    details->setContentsMargins(16, 16, 16, 16);
    details->setSpacing(8);
    details->addWidget(m_name);
    details->addWidget(m_id);
    details->addSpacing(6);
    details->addWidget(m_shown);
    details->addWidget(ViewKit::caption(
        u"A hidden browser is left out of the fallback menu, the rule sheets and \"quillvane browsers\"; rules that name it keep working."_s));
    details->addSpacing(6);
    auto *argumentsTitle = new QLabel(u"Extra arguments"_s);
    argumentsTitle->setFont(ViewKit::scaled(font(), 1.0, QFont::Medium));
    details->addWidget(argumentsTitle);
    details->addWidget(m_arguments);
    details->addWidget(m_argumentsError);
    details->addWidget(ViewKit::caption(
        u"Given to the browser before the link, every time Quillvane starts it. Quote as in a desktop entry (\"two words\"); field codes such as %u are not allowed."_s));
    details->addSpacing(6);
    details->addWidget(m_privateWindow);
    details->addStretch();

    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_list, 2);
    layout->addWidget(m_details, 3);

    connect(m_list, &QListWidget::currentRowChanged, this, &BrowsersPane::showDetails);
    connect(m_shown, &QCheckBox::clicked, this, &BrowsersPane::saveShown);
    connect(m_arguments, &QLineEdit::editingFinished, this, &BrowsersPane::saveArguments);
    connect(&m_state.browsers(), &BrowserCatalog::changed, this, &BrowsersPane::fillList);
    connect(&m_state, &AppState::configChanged, this, &BrowsersPane::fillList);
    fillList();
}

QString BrowsersPane::selectedBrowser() const
{
    const QListWidgetItem *item = m_list->currentItem();
    return item ? item->data(Qt::UserRole).toString() : QString();
}

void BrowsersPane::selectBrowser(const QString &desktopId)
{
    for (int row = 0; row < m_list->count(); ++row) {
        if (m_list->item(row)->data(Qt::UserRole).toString() == desktopId)
            m_list->setCurrentRow(row);
    }
}

void BrowsersPane::fillList()
{
    const QString selected = selectedBrowser();
    const QSignalBlocker blocker(m_list);
    m_list->clear();
    for (const BrowserInfo &browser : m_state.browsers().all()) {
        const bool hidden = m_state.browserPreference(browser.desktopId).hidden;
        auto *item = new QListWidgetItem(BrowserIcons::icon(browser, m_entries),
                                         hidden ? browser.name + u" (hidden)"_s : browser.name);
        item->setData(Qt::UserRole, browser.desktopId);
        item->setToolTip(browser.desktopId);
        if (hidden)
            item->setForeground(palette().color(QPalette::PlaceholderText));
        m_list->addItem(item);
    }
    int row = 0;
    for (int i = 0; i < m_list->count(); ++i) {
        if (m_list->item(i)->data(Qt::UserRole).toString() == selected)
            row = i;
    }
    m_list->setCurrentRow(m_list->count() > 0 ? row : -1);
    showDetails();
}

void BrowsersPane::showDetails()
{
    const QString id = selectedBrowser();
    m_details->setEnabled(!id.isEmpty());
    if (id.isEmpty()) {
        m_name->setText(u"No browsers installed"_s);
        m_id->clear();
        return;
    }
    const BrowserPreference preference = m_state.browserPreference(id);
    m_name->setText(m_state.browsers().name(id));
    m_id->setText(id);
    m_shown->setChecked(!preference.hidden);
    // A text the user is still correcting stays as typed.
    if (m_argumentsError->isHidden())
        m_arguments->setText(preference.extraArguments);
    const QString flag = ProfileDiscovery::privateWindowFlag(id);
    m_privateWindow->setText(flag.isEmpty()
                                 ? u"Quillvane does not know how to open a private window of this browser."_s
                                 : u"Rules that ask for a private window start it with %1."_s.arg(flag));
}

void BrowsersPane::saveShown(bool shown)
{
    BrowserPreference preference = m_state.browserPreference(selectedBrowser());
    preference.hidden = !shown;
    m_state.setBrowserPreference(preference);
}

void BrowsersPane::saveArguments()
{
    const QString id = selectedBrowser();
    if (id.isEmpty())
        return;
    BrowserPreference preference = m_state.browserPreference(id);
    preference.extraArguments = m_arguments->text().trimmed();
    const std::optional<QString> refused = m_state.setBrowserPreference(preference);
    m_argumentsError->setText(refused.value_or(QString()));
    m_argumentsError->setVisible(refused.has_value());
}
