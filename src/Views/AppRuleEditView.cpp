#include "Views/AppRuleEditView.h"

#include "Views/BrowserIcons.h"
#include "Views/ViewKit.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLineEdit>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

AppRuleEditView::AppRuleEditView(AppState &state, RuleEditServices services,
                                 std::optional<RoutingRule> existing, QWidget *parent)
    : RuleEditView(state, std::move(services), std::move(existing),
                   {u"App Rule"_s, QSize(440, 440), false}, parent)
    , m_running(m_services.runningApps ? m_services.runningApps() : QList<RunningAppInfo>())
    , m_manual(new QCheckBox(u"Enter manually"_s))
    , m_source(new QComboBox)
    , m_installed(new QComboBox)
    , m_manualId(new QLineEdit)
    , m_manualName(new QLineEdit)
{
    setObjectName(u"appRuleSheet"_s);
    QVBoxLayout *section = ViewKit::addSection(form(), u"application-x-executable"_s,
                                               u"Source Application"_s, false, 6);
    m_manual->setObjectName(u"manualSwitch"_s);
    section->addWidget(m_manual);

    m_source->setObjectName(u"sourcePicker"_s);
    m_source->setAccessibleName(u"Application"_s);
    m_source->addItem(u"Select an application..."_s, QString());
    for (const RunningAppInfo &app : std::as_const(m_running))
        m_source->addItem(BrowserIcons::appIcon(app.desktopId, m_services.entries),
                          u"%1 (%2)"_s.arg(app.name, app.desktopId), app.desktopId);

    // By hand: an id is not something people know, so the installed
    // applications can fill the fields.
    auto *manualPage = new QWidget;
    auto *manualColumn = new QVBoxLayout(manualPage);
    manualColumn->setContentsMargins(0, 0, 0, 0);
    manualColumn->setSpacing(6);
    m_installed->setObjectName(u"installedPicker"_s);
    m_installed->setAccessibleName(u"Installed application"_s);
    m_installed->addItem(u"Choose from installed applications..."_s, QString());
    for (const RunningAppInfo &app : RunningApps::installed(m_services.entries))
        m_installed->addItem(u"%1 (%2)"_s.arg(app.name, app.desktopId),
                             QStringList{app.desktopId, app.name});
    m_manualId->setObjectName(u"manualBundleID"_s);
    m_manualId->setPlaceholderText(u"Bundle ID"_s);
    m_manualName->setObjectName(u"manualAppName"_s);
    m_manualName->setPlaceholderText(u"App Name (optional)"_s);
    manualColumn->addWidget(m_installed);
    manualColumn->addWidget(m_manualId);
    manualColumn->addWidget(m_manualName);

    // One mode shows at a time; a hidden one takes no room.
    m_manualPage = manualPage;
    m_manualPage->hide();
    section->addWidget(m_source);
    section->addWidget(m_manualPage);

    connect(m_manual, &QCheckBox::toggled, this, &AppRuleEditView::setManual);
    connect(m_source, &QComboBox::currentIndexChanged, this, &AppRuleEditView::updateSaveButton);
    connect(m_manualId, &QLineEdit::textChanged, this, &AppRuleEditView::updateSaveButton);
    connect(m_installed, &QComboBox::activated, this, [this](int index) {
        const QStringList picked = m_installed->itemData(index).toStringList();
        if (picked.size() == 2) {
            m_manualId->setText(picked[0]);
            m_manualName->setText(picked[1]);
        }
    });

    if (const auto rule = existingRule()) {
        const bool running =
            std::any_of(m_running.cbegin(), m_running.cend(), [&](const RunningAppInfo &app) {
                return app.desktopId == rule->sourceAppId;
            });
        if (running) {
            m_source->setCurrentIndex(m_source->findData(rule->sourceAppId));
        } else {
            m_manualId->setText(rule->sourceAppId);
            m_manualName->setText(rule->sourceAppName);
            m_manual->setChecked(true);
        }
    }
    finishForm();
}

void AppRuleEditView::setManual(bool manual)
{
    // What was entered in the other mode stays, but only this one counts.
    m_source->setVisible(!manual);
    m_manualPage->setVisible(manual);
    updateSaveButton();
}

QString AppRuleEditView::resolvedSourceId() const
{
    return m_manual->isChecked() ? m_manualId->text() : m_source->currentData().toString();
}

QString AppRuleEditView::resolvedSourceName() const
{
    if (m_manual->isChecked())
        return m_manualName->text().isEmpty() ? m_manualId->text() : m_manualName->text();
    const QString id = m_source->currentData().toString();
    // Asked again: an application that quit meanwhile is saved under its id.
    const QList<RunningAppInfo> now =
        m_services.runningApps ? m_services.runningApps() : QList<RunningAppInfo>();
    for (const RunningAppInfo &app : now) {
        if (app.desktopId == id)
            return app.name;
    }
    return id;
}

bool AppRuleEditView::canSaveOwnFields() const
{
    return !resolvedSourceId().isEmpty();
}

RoutingRule AppRuleEditView::ownFields() const
{
    // This sheet makes no patterns: saving an app rule that had one removes it.
    RoutingRule rule;
    rule.sourceAppId = resolvedSourceId();
    rule.sourceAppName = resolvedSourceName();
    rule.urlPattern = std::nullopt;
    return rule;
}
