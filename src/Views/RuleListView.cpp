#include "Views/RuleListView.h"

#include "App/AppState.h"
#include "Automation/AutomationValues.h"
#include "Models/HostName.h"
#include "Services/URLRouter.h"
#include "Views/AppRuleEditView.h"
#include "Views/BrowserIcons.h"
#include "Views/EmptyState.h"
#include "Views/LinkTester.h"
#include "Views/URLRuleEditView.h"
#include "Views/ViewKit.h"

#include <QAbstractListModel>
#include <QApplication>
#include <QCollator>
#include <QHBoxLayout>
#include <QHelpEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QListView>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QStackedWidget>
#include <QStyledItemDelegate>
#include <QToolButton>
#include <QToolTip>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

// The rules of one kind in display order; a row's text is the rule's summary
// (what screen readers say and scripts see).
class RuleListModel final : public QAbstractListModel
{
public:
    using QAbstractListModel::QAbstractListModel;

    void setRules(QList<RoutingRule> rules)
    {
        beginResetModel();
        m_rules = std::move(rules);
        endResetModel();
    }
    const RoutingRule &rule(int row) const { return m_rules[row]; }

    int rowCount(const QModelIndex &parent = {}) const override
    {
        return parent.isValid() ? 0 : int(m_rules.size());
    }
    QVariant data(const QModelIndex &index, int role) const override
    {
        if (!index.isValid() || index.row() >= m_rules.size())
            return {};
        if (role == Qt::DisplayRole || role == Qt::AccessibleTextRole)
            return Automation::RuleEntity::from(m_rules[index.row()]).summary;
        if (role == Qt::ToolTipRole)
            return u"Click to edit this rule"_s;
        return {};
    }

private:
    QList<RoutingRule> m_rules;
};

namespace {

constexpr int Inset = 10;
constexpr int BinSize = 16;

QIcon binIcon()
{
    return QIcon::fromTheme(u"user-trash"_s,
                            QApplication::style()->standardIcon(QStyle::SP_TrashIcon));
}

// Two lines per rule: "source or pattern → browser" with badges for a pattern
// and a profile, then the identifier; the bin on the right.
class RuleDelegate final : public ViewKit::RowDelegate
{
public:
    RuleDelegate(RuleListView::Kind kind, const RuleListModel &model, AppState &state,
                 DesktopEntries &entries, QObject *parent)
        : ViewKit::RowDelegate(parent)
        , m_kind(kind)
        , m_model(model)
        , m_state(state)
        , m_entries(entries)
    {}

    static QRect binRect(const QRect &row)
    {
        return {row.right() - Inset - BinSize, row.center().y() - BinSize / 2, BinSize, BinSize};
    }

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const override
    {
        const QFontMetrics body(option.font);
        const QFontMetrics small(ViewKit::scaled(option.font, 0.85));
        return {240, 8 + 8 + body.height() + 3 + small.height()};
    }

    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override
    {
        paintBackground(painter, option, index);

        const RoutingRule &rule = m_model.rule(index.row());
        const bool selected = option.state & QStyle::State_Selected;
        const QColor text =
            option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
        QColor dim = text;
        dim.setAlphaF(0.65f);
        QColor faint = text;
        faint.setAlphaF(0.45f);

        painter->save();
        QRect area = option.rect.adjusted(Inset, 8, -Inset, -8);
        binIcon().paint(painter, binRect(option.rect));
        area.setRight(binRect(option.rect).left() - 8);
        if (m_kind == RuleListView::AppRules) {
            const QRect icon(area.left(), area.center().y() - 12, 24, 24);
            BrowserIcons::appIcon(rule.sourceAppId, m_entries).paint(painter, icon);
            area.setLeft(icon.right() + 1 + 8);
        }
        painter->setClipRect(area);

        const QFont bodyFont = option.font;
        const QFont medium = ViewKit::scaled(option.font, 1.0, QFont::Medium);
        const QFont badgeFont = ViewKit::scaled(option.font, 0.8, QFont::Medium);
        const QFont smallFont = ViewKit::scaled(option.font, 0.85);
        const int lineHeight = QFontMetrics(bodyFont).height();
        int x = area.left();
        const int top = area.top();
        const auto word = [&](const QString &shown, const QFont &font, const QColor &colour) {
            painter->setFont(font);
            painter->setPen(colour);
            const int width = QFontMetrics(font).horizontalAdvance(shown);
            painter->drawText(QRect(x, top, width, lineHeight), Qt::AlignVCenter, shown);
            x += width + 4;
        };
        const auto badge = [&](const QString &shown, const QColor &colour) {
            painter->setFont(badgeFont);
            const QFontMetrics metrics(badgeFont);
            const int width = metrics.horizontalAdvance(shown) + 10;
            const int height = metrics.height() + 2;
            ViewKit::paintBadge(*painter, QRect(x, top + (lineHeight - height) / 2, width, height),
                                shown, colour);
            x += width + 4;
        };

        if (m_kind == RuleListView::AppRules) {
            word(rule.sourceAppName, medium, text);
            if (rule.urlPattern && !rule.urlPattern->isEmpty())
                badge(*rule.urlPattern, ViewKit::PatternColour);
        } else {
            word(rule.urlPattern.value_or(QString()), medium, text);
        }
        word(u"→"_s, bodyFont, dim);
        for (const BrowserInfo &browser : m_state.browsers().all()) {
            if (browser.desktopId == rule.targetBrowserId) {
                BrowserIcons::icon(browser, m_entries)
                    .paint(painter, QRect(x, top + (lineHeight - 16) / 2, 16, 16));
                x += 16 + 4;
                break;
            }
        }
        word(rule.targetBrowserName, bodyFont, dim);
        m_profileBadges.remove(index.row());
        if (rule.targetProfileID && !rule.targetProfileID->isEmpty()) {
            const int from = x;
            const auto name =
                m_state.browsers().profileName(rule.targetBrowserId, *rule.targetProfileID);
            if (name)
                badge(*name, ViewKit::ProfileColour);
            else
                badge(*rule.targetProfileID + u" (missing)"_s, ViewKit::MissingColour);
            m_profileBadges.insert(index.row(), QRect(from, top, x - from, lineHeight));
        }
        if (rule.openInPrivateWindow)
            badge(u"Private"_s, ViewKit::PrivateColour);

        painter->setFont(smallFont);
        painter->setPen(faint);
        const QString second =
            m_kind == RuleListView::AppRules ? rule.sourceAppId : rule.targetBrowserId;
        painter->drawText(QRect(area.left(), top + lineHeight + 3, area.width(),
                                QFontMetrics(smallFont).height()),
                          Qt::AlignLeft | Qt::AlignVCenter,
                          QFontMetrics(smallFont).elidedText(second, Qt::ElideRight, area.width()));
        painter->restore();
    }

    // The profile badge tells its profile's id, and whether the browser still has it.
    bool helpEvent(QHelpEvent *event, QAbstractItemView *view, const QStyleOptionViewItem &option,
                   const QModelIndex &index) override
    {
        const auto badge = m_profileBadges.constFind(index.row());
        if (event->type() != QEvent::ToolTip || !index.isValid() || badge == m_profileBadges.cend()
            || !badge->contains(event->pos()))
            return ViewKit::RowDelegate::helpEvent(event, view, option, index);
        const RoutingRule &rule = m_model.rule(index.row());
        const QString id = rule.targetProfileID.value_or(QString());
        QToolTip::showText(
            event->globalPos(),
            m_state.browsers().profileName(rule.targetBrowserId, id)
                ? u"Profile id: %1"_s.arg(id)
                : u"%1 has no profile “%2” any more."_s.arg(rule.targetBrowserName, id),
            view);
        return true;
    }

private:
    RuleListView::Kind m_kind;
    const RuleListModel &m_model;
    AppState &m_state;
    DesktopEntries &m_entries;
    // Where each row's profile badge was painted last, in the viewport.
    mutable QHash<int, QRect> m_profileBadges;
};

QLabel *examples(RuleListView::Kind kind)
{
    // Blanks line the arrows up, so they must be kept.
    const QString text = kind == RuleListView::AppRules
                             ? u"<b>Examples:</b><pre>  Slack     → Chromium (work browser)\n"
                               "  Telegram  → Firefox (personal browser)</pre>"_s
                             : u"<b>Examples:</b><pre>  github.com        → Chromium\n"
                               "  <i>youtube.com</i>       → Epiphany\n"
                               "  mail.google.com   → Firefox</pre>"_s;
    auto *label = new QLabel(text);
    label->setTextFormat(Qt::RichText);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

} // namespace

RuleListView::RuleListView(AppState &state, RuleEditServices services, Kind kind, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_services(std::move(services))
    , m_kind(kind)
    , m_model(new RuleListModel(this))
    , m_pages(new QStackedWidget)
    , m_list(new QListView)
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
    auto *add = new QPushButton(QIcon::fromTheme(u"list-add"_s),
                                apps ? u"Add App Rule"_s : u"Add URL Rule"_s);
    add->setObjectName(apps ? u"addAppRuleButton"_s : u"addUrlRuleButton"_s);
    connect(add, &QPushButton::clicked, this, &RuleListView::showAddSheet);
    empty->addBelow(add);

    m_list->setObjectName(apps ? u"appRulesList"_s : u"urlRulesList"_s);
    m_list->setModel(m_model);
    m_list->setItemDelegate(new RuleDelegate(kind, *m_model, m_state, m_services.entries, m_list));
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setAlternatingRowColors(true);
    m_list->setUniformItemSizes(true);
    m_list->setMouseTracking(true);
    m_list->viewport()->installEventFilter(this);
    m_list->installEventFilter(this);
    m_list->setAccessibleDescription(u"Return edits the selected rule, Delete removes it."_s);

    auto *addRule = new QToolButton;
    addRule->setObjectName(apps ? u"appRulesAddButton"_s : u"urlRulesAddButton"_s);
    addRule->setText(u"Add Rule"_s);
    addRule->setIcon(QIcon::fromTheme(u"list-add"_s));
    addRule->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    addRule->setAutoRaise(true);
    addRule->setFocusPolicy(Qt::StrongFocus);
    addRule->setFont(ViewKit::scaled(font(), 0.9));
    addRule->setToolTip(apps ? u"Add a new app rule"_s : u"Add a new URL rule"_s);
    connect(addRule, &QToolButton::clicked, this, &RuleListView::showAddSheet);
    m_count->setObjectName(apps ? u"appRulesCount"_s : u"urlRulesCount"_s);
    m_count->setFont(ViewKit::scaled(font(), 0.9));
    m_count->setForegroundRole(QPalette::PlaceholderText);
    auto *bottomBar = new QHBoxLayout;
    bottomBar->setContentsMargins(12, 8, 12, 8);
    bottomBar->addWidget(addRule);
    bottomBar->addStretch();
    bottomBar->addWidget(m_count);

    m_pages->addWidget(empty);
    m_pages->addWidget(m_list);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(m_pages, 1);
    layout->addWidget(ViewKit::divider());
    layout->addLayout(bottomBar);

    connect(&m_state, &AppState::configChanged, this, &RuleListView::refresh);
    connect(&m_state.browsers(), &BrowserCatalog::changed, m_list->viewport(),
            qOverload<>(&QWidget::update));
    connect(&m_state.browsers(), &BrowserCatalog::profilesChanged, m_list->viewport(),
            qOverload<>(&QWidget::update));
    refresh();
}

QString RuleListView::countText(qsizetype count)
{
    return u"%1 rule%2"_s.arg(count).arg(count == 1 ? u""_s : u"s"_s);
}

QList<RoutingRule> RuleListView::inListOrder(const QList<RoutingRule> &all, Kind kind)
{
    QList<RoutingRule> rules = all;
    rules.removeIf([kind](const RoutingRule &rule) {
        return kind == AppRules ? rule.sourceAppId.isEmpty()
                                : rule.kind() != RoutingRule::Kind::UrlOnly;
    });
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(rules.begin(), rules.end(), [&](const RoutingRule &a, const RoutingRule &b) {
        if (kind == AppRules) {
            const int order = collator.compare(a.sourceAppName, b.sourceAppName);
            return order != 0 ? order < 0 : !a.urlPattern && b.urlPattern;
        }
        const QString patternA = a.urlPattern.value_or(QString());
        const QString patternB = b.urlPattern.value_or(QString());
        if (const QString rootA = rootDomain(patternA), rootB = rootDomain(patternB);
            rootA != rootB)
            return collator.compare(rootA, rootB) < 0;
        return URLRouter::domainSpecificity(patternA) > URLRouter::domainSpecificity(patternB);
    });
    return rules;
}

QString RuleListView::rootDomain(const QString &pattern)
{
    QString text = pattern;
    text.remove(u'*');
    text.remove(u"https://"_s);
    text.remove(u"http://"_s);
    text = text.section(u'/', 0, 0);
    return text.isEmpty() ? text : HostName::registrableDomain(text);
}

void RuleListView::addAbove(QWidget *widget)
{
    static_cast<QVBoxLayout *>(layout())->insertWidget(0, widget);
}

void RuleListView::refresh()
{
    const QList<RoutingRule> rules =
        inListOrder(m_state.rules(), m_kind);
    m_model->setRules(rules);
    m_pages->setCurrentIndex(rules.isEmpty() ? 0 : 1);
    m_count->setText(countText(rules.size()));
}

QRect RuleListView::deleteButtonRect(const QModelIndex &index) const
{
    return RuleDelegate::binRect(m_list->visualRect(index));
}

bool RuleListView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_list->viewport() && event->type() == QEvent::MouseButtonRelease) {
        const auto *mouse = static_cast<QMouseEvent *>(event);
        const QModelIndex index = m_list->indexAt(mouse->position().toPoint());
        if (mouse->button() == Qt::LeftButton && index.isValid()) {
            const RoutingRule rule = m_model->rule(index.row());
            if (deleteButtonRect(index).contains(mouse->position().toPoint()))
                m_state.deleteRule(rule);
            else
                showEditSheet(rule);
            return true;
        }
    } else if (watched == m_list && event->type() == QEvent::KeyPress) {
        const auto *key = static_cast<QKeyEvent *>(event);
        const QModelIndex current = m_list->currentIndex();
        if (current.isValid()) {
            if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
                showEditSheet(m_model->rule(current.row()));
                return true;
            }
            if (key->key() == Qt::Key_Delete) {
                m_state.deleteRule(m_model->rule(current.row()));
                return true;
            }
        }
    }
    return QWidget::eventFilter(watched, event);
}

void RuleListView::showAddSheet()
{
    openSheet(std::nullopt);
}

void RuleListView::showEditSheet(const RoutingRule &rule)
{
    openSheet(rule);
}

void RuleListView::openSheet(const std::optional<RoutingRule> &rule)
{
    // One sheet at a time, as on every desktop.
    if (m_sheet) {
        m_sheet->raise();
        m_sheet->activateWindow();
        return;
    }
    RuleEditView *sheet =
        m_kind == AppRules
            ? static_cast<RuleEditView *>(new AppRuleEditView(m_state, m_services, rule, this))
            : new URLRuleEditView(m_state, m_services, rule, this);
    sheet->setAttribute(Qt::WA_DeleteOnClose);
    // Closed is gone, though Qt deletes it a little later.
    connect(sheet, &QDialog::finished, this, [this] { m_sheet.clear(); });
    sheet->setWindowModality(Qt::WindowModal);
    m_sheet = sheet;
    sheet->open();
}

AppRuleListView::AppRuleListView(AppState &state, RuleEditServices services, QWidget *parent)
    : RuleListView(state, std::move(services), AppRules, parent)
{}

URLRuleListView::URLRuleListView(AppState &state, RuleEditServices services, QWidget *parent)
    : RuleListView(state, std::move(services), UrlRules, parent)
{
    addAbove(new LinkTester(state, this));
}
