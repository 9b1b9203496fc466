#include "Views/RuleEditView.h"

#include "App/AppState.h"
#include "Services/ProfileDiscovery.h"
#include "Views/BrowserIcons.h"
#include "Views/ViewKit.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

RuleEditView::RuleEditView(AppState &state, RuleEditServices services,
                           std::optional<RoutingRule> existing, const Looks &looks, QWidget *parent)
    : QDialog(parent)
    , m_state(state)
    , m_services(std::move(services))
    , m_existing(std::move(existing))
    , m_looks(looks)
    , m_form(new QVBoxLayout)
{
    const bool editing = m_existing.has_value();
    setWindowTitle((editing ? u"Edit "_s : u"New "_s) + looks.noun);
    setFixedSize(looks.size);

    auto *header = new QHBoxLayout;
    header->setSpacing(8);
    auto *symbol = new QLabel;
    symbol->setPixmap(
        QIcon::fromTheme(editing ? u"document-edit"_s : u"list-add"_s).pixmap(24, 24));
    auto *title = new QLabel(windowTitle());
    title->setObjectName(u"sheetTitle"_s);
    title->setFont(ViewKit::scaled(title->font(), 1.3, QFont::DemiBold));
    header->addWidget(symbol);
    header->addWidget(title);
    header->addStretch();

    m_form->setSpacing(14);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 18, 20, 16);
    layout->setSpacing(16);
    layout->addLayout(header);
    layout->addLayout(m_form);
    layout->addStretch();
}

void RuleEditView::finishForm()
{
    QVBoxLayout *target =
        ViewKit::addSection(m_form, u"web-browser"_s, u"Target Browser"_s, false, 6);
    m_browser = new QComboBox;
    m_browser->setObjectName(u"browserPicker"_s);
    m_browser->setAccessibleName(u"Browser"_s);
    m_browser->addItem(u"Select a browser..."_s, QString());
    for (const BrowserInfo &browser :
         m_state.browsers().shown(m_existing ? m_existing->targetBrowserId : QString()))
        m_browser->addItem(BrowserIcons::icon(browser, m_services.entries), browser.name,
                           browser.desktopId);
    // Or no browser: a window asks for each link (its item carries no id).
    m_browser->insertSeparator(m_browser->count());
    m_browser->addItem(QIcon::fromTheme(u"dialog-question"_s), RoutingRule::AskName.toString(),
                       QVariant(true));
    target->addWidget(m_browser);
    // Offered for the browsers whose private window Quillvane knows how to ask for.
    m_privateWindow = new QCheckBox(u"Open in a private window"_s);
    m_privateWindow->setObjectName(u"privateWindowCheck"_s);
    m_privateWindow->setChecked(m_existing && m_existing->openInPrivateWindow);
    target->addWidget(m_privateWindow);

    m_profileSection = new QWidget;
    auto *profileColumn = new QVBoxLayout(m_profileSection);
    profileColumn->setContentsMargins(0, 0, 0, 0);
    QVBoxLayout *profile =
        ViewKit::addSection(profileColumn, u"avatar-default"_s, u"Browser Profile"_s, false, 6);
    m_profile = new QComboBox;
    m_profile->setObjectName(u"profilePicker"_s);
    m_profile->setAccessibleName(u"Profile"_s);
    m_profileNote = ViewKit::caption(u"Select a browser with profiles to see options here."_s);
    m_profileNote->setObjectName(u"profileNote"_s);
    profile->addWidget(m_profile);
    profile->addWidget(m_profileNote);
    m_form->addWidget(m_profileSection);

    auto *buttons = new QDialogButtonBox;
    QPushButton *cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setText(u"Cancel"_s);
    cancel->setObjectName(u"cancelButton"_s);
    m_save = buttons->addButton(u"Save"_s, QDialogButtonBox::AcceptRole);
    m_save->setObjectName(u"saveButton"_s);
    m_save->setMinimumWidth(std::max(60, m_save->sizeHint().width()));
    m_save->setDefault(true);
    connect(buttons, &QDialogButtonBox::accepted, this, &RuleEditView::save);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout()->addWidget(buttons);

    // Filled from the rule being edited; the profile so restored stays chosen.
    m_filling = true;
    if (m_existing && m_existing->askWhereToOpen) {
        m_browser->setCurrentIndex(m_browser->count() - 1);
    } else if (m_existing) {
        if (m_browser->findData(m_existing->targetBrowserId) < 0) {
            // Uninstalled since: kept, under the name the rule remembers.
            m_browser->addItem(QIcon::fromTheme(u"web-browser"_s),
                               m_existing->targetBrowserName + u" (not installed)"_s,
                               m_existing->targetBrowserId);
        }
        selectBrowser(m_existing->targetBrowserId);
    }
    loadProfiles(m_existing ? m_existing->targetProfileID.value_or(QString()) : QString());
    updatePrivateWindow();
    m_filling = false;
    connect(m_browser, &QComboBox::currentIndexChanged, this, &RuleEditView::browserChanged);
    updateSaveButton();
}

QString RuleEditView::selectedBrowserId() const
{
    return asksWhereToOpen() ? QString() : m_browser->currentData().toString();
}

bool RuleEditView::asksWhereToOpen() const
{
    return m_browser->currentData().typeId() == QMetaType::Bool;
}

bool RuleEditView::hasTarget() const
{
    return asksWhereToOpen() || !selectedBrowserId().isEmpty();
}

QString RuleEditView::selectedProfileID() const
{
    return m_profileSection->isHidden() ? QString() : m_profile->currentData().toString();
}

void RuleEditView::selectBrowser(const QString &desktopId)
{
    m_browser->setCurrentIndex(std::max(0, m_browser->findData(desktopId)));
}

void RuleEditView::browserChanged()
{
    if (m_filling)
        return;
    // Another browser's profiles; back to no specific one.
    loadProfiles(QString());
    updatePrivateWindow();
    updateSaveButton();
}

void RuleEditView::updatePrivateWindow()
{
    m_privateWindow->setVisible(
        !ProfileDiscovery::privateWindowFlag(selectedBrowserId()).isEmpty());
}

bool RuleEditView::privateWindowChosen() const
{
    return !m_privateWindow->isHidden() && m_privateWindow->isChecked();
}

void RuleEditView::loadProfiles(const QString &keepProfile)
{
    const QString browser = selectedBrowserId();
    const QList<BrowserProfile> profiles =
        browser.isEmpty() ? QList<BrowserProfile>() : m_state.browsers().profiles(browser);
    m_profile->clear();
    m_profile->addItem(u"Default (no specific profile)"_s, QString());
    for (const BrowserProfile &profile : profiles)
        m_profile->addItem(profile.name, profile.id);
    if (!keepProfile.isEmpty()) {
        // A profile removed from the browser since is kept as the rule has it.
        if (m_profile->findData(keepProfile) < 0)
            m_profile->addItem(keepProfile, keepProfile);
        m_profile->setCurrentIndex(m_profile->findData(keepProfile));
    }
    const bool any = m_profile->count() > 1;
    m_profile->setVisible(any);
    m_profileNote->setVisible(!any);
    m_profileSection->setVisible(any || m_looks.profileNoteWhenEmpty);
}

void RuleEditView::updateSaveButton()
{
    if (m_save)
        m_save->setEnabled(canSaveOwnFields() && hasTarget());
}

void RuleEditView::save()
{
    if (!canSaveOwnFields() || !hasTarget())
        return;
    RoutingRule rule = ownFields();
    const QString browser = selectedBrowserId();
    rule.askWhereToOpen = asksWhereToOpen();
    rule.targetBrowserId = browser;
    rule.targetBrowserName =
        rule.askWhereToOpen ? RoutingRule::AskName.toString() : m_state.browsers().name(browser);
    const QString profile = selectedProfileID();
    rule.targetProfileID = profile.isEmpty() ? std::nullopt : std::optional(profile);
    rule.openInPrivateWindow = privateWindowChosen();
    if (m_existing) {
        // A rule deleted meanwhile stays deleted: unknown ids change nothing.
        rule.id = m_existing->id;
        m_state.updateRule(rule);
    } else {
        rule.id = QUuid::createUuid();
        m_state.addRule(rule);
    }
    accept();
}
