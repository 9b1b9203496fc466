#include "Views/RuleListPane.h"

#include "App/AppState.h"
#include "Automation/AutomationValues.h"
#include "Views/EmptyState.h"

#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QStackedWidget>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace {

QLabel *examples(RuleListPane::Kind kind)
{
    // Blanks line the arrows up, so they must be kept.
    const QString text = kind == RuleListPane::AppRules
                             ? u"<b>Examples:</b><pre>  Slack     → Chrome (work browser)\n"
                               "  Telegram  → Safari (personal browser)</pre>"_s
                             : u"<b>Examples:</b><pre>  github.com        → Chrome\n"
                               "  <i>youtube.com</i>       → Arc\n"
                               "  mail.google.com   → Firefox</pre>"_s;
    auto *label = new QLabel(text);
    label->setTextFormat(Qt::RichText);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

} // namespace

RuleListPane::RuleListPane(AppState &state, Kind kind, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_kind(kind)
    , m_pages(new QStackedWidget)
    , m_list(new QListWidget)
    , m_count(new QLabel)
{
    const bool apps = kind == AppRules;
    setObjectName(apps ? u"appRulesPane"_s : u"urlRulesPane"_s);
    auto *empty =
        apps ? new EmptyState(u"applications-other"_s, u"No App Rules"_s,
                              u"When an app opens a link, route it to the browser you choose."_s)
             : new EmptyState(u"insert-link"_s, u"No URL Rules"_s,
                              u"Open specific websites in a designated browser."_s);
    empty->addBelow(examples(kind));

    m_list->setObjectName(apps ? u"appRulesList"_s : u"urlRulesList"_s);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setAlternatingRowColors(true);
    m_count->setObjectName(apps ? u"appRulesCount"_s : u"urlRulesCount"_s);
    auto *bottomBar = new QHBoxLayout;
    bottomBar->setContentsMargins(12, 8, 12, 8);
    bottomBar->addStretch();
    bottomBar->addWidget(m_count);
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);

    m_pages->addWidget(empty);
    m_pages->addWidget(m_list);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_pages, 1);
    layout->addWidget(line);
    layout->addLayout(bottomBar);

    connect(&m_state, &AppState::rulesChanged, this, &RuleListPane::refresh);
    refresh();
}

QString RuleListPane::countText(qsizetype count)
{
    return u"%1 rule%2"_s.arg(count).arg(count == 1 ? u""_s : u"s"_s);
}

void RuleListPane::refresh()
{
    const QList<RoutingRule> rules =
        m_kind == AppRules ? m_state.sortedAppRules() : m_state.sortedUrlRules();
    m_list->clear();
    for (const RoutingRule &rule : rules)
        m_list->addItem(Automation::RuleEntity::from(rule).summary);
    m_pages->setCurrentIndex(rules.isEmpty() ? 0 : 1);
    m_count->setText(countText(rules.size()));
}
