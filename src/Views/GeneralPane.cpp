#include "Views/GeneralPane.h"

#include "App/AppState.h"
#include "Models/BuildInfo.h"
#include "Views/BrowserIcons.h"
#include "Views/ConfigPane.h"
#include "Views/ViewKit.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

GeneralPane::GeneralPane(AppState &state, DesktopEntries &entries,
                         std::function<void()> checkForUpdates, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_entries(entries)
    , m_statusSymbol(new QLabel)
    , m_statusText(new QLabel)
    , m_statusCaption(ViewKit::caption(u"Must be set as default to intercept and route URLs."_s))
    , m_setDefault(new QPushButton(u"Set as Default"_s))
    , m_fallback(new QComboBox)
    , m_config(new ConfigPane(state))
{
    setObjectName(u"generalPane"_s);
    auto *content = new QWidget;
    auto *page = new QVBoxLayout(content);
    page->setContentsMargins(20, 20, 20, 20);
    page->setSpacing(12);

    // System status.
    QVBoxLayout *status = ViewKit::addSection(page, u"security-high"_s, u"System Status"_s);
    m_statusText->setObjectName(u"defaultBrowserStatus"_s);
    m_statusText->setFont(ViewKit::scaled(font(), 0.95, QFont::Medium));
    m_setDefault->setObjectName(u"setAsDefaultButton"_s);
    connect(m_setDefault, &QPushButton::clicked, &m_state, &AppState::requestSetAsDefaultBrowser);
    auto *texts = new QVBoxLayout;
    texts->setSpacing(2);
    texts->addWidget(m_statusText);
    texts->addWidget(m_statusCaption);
    auto *row = new QHBoxLayout;
    m_statusSymbol->setFixedWidth(24);
    row->addWidget(m_statusSymbol);
    row->addLayout(texts, 1);
    row->addWidget(m_setDefault);
    status->addLayout(row);
    connect(&m_state, &AppState::isSystemDefaultBrowserChanged, this,
            &GeneralPane::showDefaultStatus);

    // Fallback browser.
    QVBoxLayout *fallback = ViewKit::addSection(page, u"web-browser"_s, u"Fallback Browser"_s);
    fallback->addWidget(ViewKit::caption(u"When no rule matches, URLs open in this browser."_s));
    m_fallback->setObjectName(u"fallbackPicker"_s);
    m_fallback->setAccessibleName(u"Fallback Browser"_s);
    m_fallback->setIconSize(QSize(16, 16));
    m_fallback->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    fallback->addWidget(m_fallback, 0, Qt::AlignLeft);
    connect(m_fallback, &QComboBox::activated, this, [this](int index) {
        const QVariant chosen = m_fallback->itemData(index);
        if (chosen.typeId() == QMetaType::Bool)
            m_state.setFallbackAsks();
        else
            m_state.setDefaultBrowser(chosen.toString());
    });
    connect(&m_state, &AppState::configChanged, this, &GeneralPane::fillFallbackPicker);
    connect(&m_state.browsers(), &BrowserCatalog::changed, this, &GeneralPane::fillFallbackPicker);
    addSwitch(fallback, u"preferRunningSwitch"_s, u"Prefer a browser that is already running"_s,
              &Config::preferRunningBrowser);
    fallback->addWidget(ViewKit::caption(
        u"When the fallback browser is not running and another browser is, links that no rule matches open in the one started last."_s));

    // Rule engine.
    QVBoxLayout *rules = ViewKit::addSection(page, u"media-playback-pause"_s, u"Pause Rules"_s);
    addSwitch(rules, u"rulesEnabledSwitch"_s, u"Enable rule engine"_s, &Config::rulesEnabled);
    rules->addWidget(ViewKit::caption(
        u"When paused, all links open in the fallback browser. Toggle from the tray icon's menu for quick access."_s));

    // URL processing.
    QVBoxLayout *processing = ViewKit::addSection(page, u"tools-wizard"_s, u"URL Processing"_s);
    addSwitch(processing, u"urlCleaningSwitch"_s, u"Remove tracking parameters"_s,
              &Config::urlCleaningEnabled);
    QLabel *cleaningCaption =
        ViewKit::caption(u"Strips utm_*, fbclid, gclid, and other tracking parameters."_s);
    cleaningCaption->setContentsMargins(0, 0, 0, 4);
    processing->addWidget(cleaningCaption);
    addSwitch(processing, u"urlExpansionSwitch"_s, u"Expand short URLs before routing"_s,
              &Config::urlExpansionEnabled);
    QLabel *expansionCaption = ViewKit::caption(
        u"Resolves bit.ly, t.co, etc. to their destination before matching rules."_s);
    expansionCaption->setContentsMargins(0, 0, 0, 4);
    processing->addWidget(expansionCaption);
    addSwitch(processing, u"urlUnwrappingSwitch"_s, u"Unwrap redirect links"_s,
              &Config::urlUnwrappingEnabled);
    processing->addWidget(ViewKit::caption(
        u"Takes the real link out of mail and chat redirectors (Outlook safe links, Google /url, Facebook, Slack…) before matching rules, without asking the network."_s));

    // Browser extension.
    QVBoxLayout *extension =
        ViewKit::addSection(page, u"applications-internet"_s, u"Browser Extension"_s);
    addSwitch(extension, u"linksLeaveBrowsersSwitch"_s,
              u"Links clicked in a browser follow the rules"_s, &Config::linksLeaveBrowsers);
    extension->addWidget(ViewKit::caption(
        u"With Quillvane's extension in Firefox or a Chromium browser, a link that a rule sends to another browser leaves the one it was clicked in."_s));

    // Startup.
    QVBoxLayout *startup = ViewKit::addSection(page, u"system-shutdown"_s, u"Startup"_s);
    addSwitch(
        startup, u"launchAtLoginSwitch"_s, u"Launch at Login"_s,
        [this] { return m_state.launchAtLogin(); }, [this] { m_state.toggleLaunchAtLogin(); },
        &AppState::launchAtLoginChanged);
    startup->addWidget(ViewKit::caption(u"Automatically start Quillvane when you log in."_s));

    // Configuration.
    QVBoxLayout *configuration =
        ViewKit::addSection(page, u"document-export"_s, u"Configuration"_s);
    configuration->addWidget(m_config);

    // Updates.
    QVBoxLayout *updates = ViewKit::addSection(page, u"view-refresh"_s, u"Updates"_s);
    auto *check = new QPushButton(u"Check for Updates..."_s);
    check->setObjectName(u"checkForUpdatesButton"_s);
    connect(check, &QPushButton::clicked, this, std::move(checkForUpdates));
    updates->addWidget(check, 0, Qt::AlignLeft);
    QCheckBox *automatic =
        addSwitch(updates, u"automaticUpdatesSwitch"_s, u"Automatically check for updates"_s,
                  &Config::automaticUpdateChecks);
    // Kept, so that a build with a feed reads the same setting, but greyed where
    // nothing would be checked.
    // What this build does: a build without a feed leaves updates to the
    // package manager, and says so as "Check for Updates..." does.
    const bool hasFeed = !QStringView(BuildInfo::UpdateFeed).isEmpty();
    if (!hasFeed) {
        automatic->setEnabled(false);
        automatic->setToolTip(QString::fromUtf16(BuildInfo::UpdatesByPackageManager));
    }
    QLabel *updatesCaption = ViewKit::caption(
        hasFeed ? u"Updates are distributed via GitHub Releases with EdDSA signature verification."_s
                : QString::fromUtf16(BuildInfo::UpdatesByPackageManager));
    updatesCaption->setObjectName(u"updatesCaption"_s);
    updates->addWidget(updatesCaption);

    // About.
    QVBoxLayout *about = ViewKit::addSection(page, u"help-about"_s, u"About"_s, false, 6);
    auto *grid = new QGridLayout;
    grid->setHorizontalSpacing(8);
    grid->setVerticalSpacing(4);
    const QList<std::pair<QString, QString>> facts{
        {u"Version"_s,
         u"%1 (%2)"_s.arg(QStringView(BuildInfo::Version), QStringView(BuildInfo::BuildNumber))},
        {u"Build Date"_s, QString::fromUtf16(BuildInfo::BuildDate)},
        {u"Commit"_s, QString::fromUtf16(BuildInfo::Commit)}};
    for (int i = 0; i < facts.size(); ++i) {
        QLabel *label = ViewKit::caption(facts[i].first);
        label->setWordWrap(false);
        auto *value = new QLabel(facts[i].second);
        value->setFont(ViewKit::scaled(font(), 0.85));
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        grid->addWidget(label, i, 0);
        grid->addWidget(value, i, 1);
    }
    grid->setColumnStretch(2, 1);
    about->addLayout(grid);
    page->addStretch();

    ViewKit::setScrolledContent(this, content);

    showDefaultStatus();
    fillFallbackPicker();
}

QCheckBox *GeneralPane::addSwitch(QVBoxLayout *section, const QString &objectName,
                                  const QString &text, const std::function<bool()> &read,
                                  const std::function<void()> &toggle,
                                  void (AppState::*changed)())
{
    auto *box = new QCheckBox(text);
    box->setObjectName(objectName);
    box->setChecked(read());
    // The user's click flips the state; the state's change sets the box.
    connect(box, &QCheckBox::clicked, &m_state, toggle);
    connect(&m_state, changed, box, [box, read] { box->setChecked(read()); });
    section->addWidget(box);
    return box;
}

QCheckBox *GeneralPane::addSwitch(QVBoxLayout *section, const QString &objectName,
                                  const QString &text, bool Config::*flag)
{
    return addSwitch(
        section, objectName, text, [this, flag] { return m_state.config().*flag; },
        [this, flag] { m_state.toggle(flag); }, &AppState::configChanged);
}

void GeneralPane::showEvent(QShowEvent *event)
{
    m_state.refreshDefaultBrowserStatus();
    QWidget::showEvent(event);
}

void GeneralPane::showDefaultStatus()
{
    const bool isDefault = m_state.isSystemDefaultBrowser();
    m_statusSymbol->setPixmap(
        QIcon::fromTheme(isDefault ? u"emblem-default"_s : u"dialog-warning"_s).pixmap(22, 22));
    m_statusText->setText(isDefault ? u"Quillvane is the default browser"_s
                                    : u"Quillvane is not the default browser"_s);
    m_statusCaption->setVisible(!isDefault);
    m_setDefault->setVisible(!isDefault);
}

void GeneralPane::fillFallbackPicker()
{
    m_fallback->clear();
    m_fallback->addItem(u"None"_s, QString());
    for (const BrowserInfo &browser : m_state.browsers().shown(m_state.fallbackBrowserId()))
        m_fallback->addItem(BrowserIcons::icon(browser, m_entries), browser.name, browser.desktopId);
    // "Ask" is no browser: its item carries no id.
    m_fallback->insertSeparator(m_fallback->count());
    m_fallback->addItem(QIcon::fromTheme(u"dialog-question"_s), RoutingRule::AskName.toString(),
                        QVariant(true));
    // A fallback that is not installed matches no entry.
    m_fallback->setCurrentIndex(m_state.config().fallbackAsks
                                    ? m_fallback->count() - 1
                                    : m_fallback->findData(m_state.fallbackBrowserId()));
}
