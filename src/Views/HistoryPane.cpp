#include "Views/HistoryPane.h"

#include "App/AppState.h"
#include "Views/EmptyState.h"
#include "Views/HistoryModel.h"
#include "Views/ViewKit.h"

#include <QApplication>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPainter>
#include <QStackedWidget>
#include <QStyledItemDelegate>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace {

// Two lines per record: "Source › Browser", the rule as a badge and the time;
// then the link, shortened in the middle.
class RecordDelegate final : public ViewKit::RowDelegate
{
public:
    using ViewKit::RowDelegate::RowDelegate;

    static constexpr int Margin = 6;

    QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &) const override
    {
        const QFontMetrics small(ViewKit::scaled(option.font, 0.85));
        const QFontMetrics link(option.font);
        return {200, Margin * 2 + small.height() + 3 + link.height()};
    }

    void paint(QPainter *painter, const QStyleOptionViewItem &option,
               const QModelIndex &index) const override
    {
        paintBackground(painter, option, index);

        const bool selected = option.state & QStyle::State_Selected;
        const QPalette &palette = option.palette;
        const QColor text = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
        QColor dim = text;
        dim.setAlphaF(0.6f);

        painter->save();
        const QRect area = option.rect.adjusted(Margin + 2, Margin, -Margin - 2, -Margin);
        const QFont smallFont = ViewKit::scaled(option.font, 0.85, QFont::Medium);
        const QFontMetrics small(smallFont);
        int right = area.right();

        // Time, then the rule's badge, from the right.
        const QFont timeFont = ViewKit::scaled(option.font, 0.8);
        const QString time = index.data(HistoryModel::RelativeTimeRole).toString();
        const int timeWidth = QFontMetrics(timeFont).horizontalAdvance(time);
        painter->setFont(timeFont);
        painter->setPen(dim);
        painter->drawText(QRect(right - timeWidth, area.top(), timeWidth, small.height()),
                          Qt::AlignRight | Qt::AlignVCenter, time);
        right -= timeWidth + 8;

        const QString rule = index.data(HistoryModel::RuleRole).toString();
        if (!rule.isEmpty()) {
            // The pause as a symbol drawn from icons: fonts may not have it.
            const bool paused = index.data(HistoryModel::PausedRole).toBool();
            const int symbol = paused ? small.height() - 4 : 0;
            const QString shown = QFontMetrics(timeFont).elidedText(rule, Qt::ElideRight,
                                                                    area.width() / 3 - symbol);
            const int width = QFontMetrics(timeFont).horizontalAdvance(shown) + 10 + symbol;
            const QRect badge(right - width, area.top(), width, small.height());
            ViewKit::paintBadge(*painter, badge, shown, text,
                                paused ? ViewKit::pauseIcon() : QIcon());
            right -= width + 8;
        }

        const QString names = index.data(HistoryModel::SourceNameRole).toString() + u"  ›  "_s
                              + index.data(HistoryModel::BrowserNameRole).toString();
        painter->setFont(smallFont);
        painter->setPen(text);
        painter->drawText(QRect(area.left(), area.top(), right - area.left(), small.height()),
                          Qt::AlignLeft | Qt::AlignVCenter,
                          small.elidedText(names, Qt::ElideRight, right - area.left()));

        painter->setFont(option.font);
        const QFontMetrics link(option.font);
        const QRect second(area.left(), area.top() + small.height() + 3, area.width(),
                           link.height());
        painter->drawText(second, Qt::AlignLeft | Qt::AlignVCenter,
                          link.elidedText(index.data(HistoryModel::UrlRole).toString(),
                                          Qt::ElideMiddle, second.width()));
        painter->restore();
    }
};

} // namespace

HistoryPane::HistoryPane(AppState &state, QWidget *parent)
    : QWidget(parent)
    , m_state(state)
    , m_model(new HistoryModel(this))
    , m_pages(new QStackedWidget)
    , m_filter(new QLineEdit)
    , m_list(new QListView)
    , m_count(new QLabel)
    , m_clock(new QTimer(this))
{
    auto *empty = new EmptyState(u"document-open-recent"_s, u"No History"_s,
                                 u"Forwarded URLs will appear here."_s);
    empty->setObjectName(u"historyEmptyState"_s);

    m_filter->setObjectName(u"historyFilter"_s);
    m_filter->setPlaceholderText(u"Filter by URL, app, or browser..."_s);
    m_filter->setClearButtonEnabled(true);
    m_filter->addAction(QIcon::fromTheme(u"edit-find"_s), QLineEdit::LeadingPosition);
    m_filter->setFrame(false);
    // Not trimmed: a trailing blank must match a blank.
    connect(m_filter, &QLineEdit::textChanged, this, &HistoryPane::reload);

    m_list->setObjectName(u"historyList"_s);
    m_list->setModel(m_model);
    m_list->setItemDelegate(new RecordDelegate(m_list));
    m_list->setUniformItemSizes(true);
    m_list->setFrameShape(QFrame::NoFrame);
    m_list->setAlternatingRowColors(true);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);

    m_count->setObjectName(u"historyCount"_s);
    m_count->setFont(ViewKit::scaled(font(), 0.9));
    auto *clearButton = new QToolButton;
    clearButton->setObjectName(u"historyClear"_s);
    clearButton->setText(u"Clear"_s);
    clearButton->setIcon(QIcon::fromTheme(u"edit-delete"_s));
    clearButton->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    clearButton->setAutoRaise(true);
    clearButton->setFont(ViewKit::scaled(font(), 0.9));
    clearButton->setFocusPolicy(Qt::StrongFocus);
    connect(clearButton, &QToolButton::clicked, this, &HistoryPane::clear);

    auto *filterBar = new QHBoxLayout;
    filterBar->setContentsMargins(8, 6, 8, 6);
    filterBar->addWidget(m_filter);
    auto *bottomBar = new QHBoxLayout;
    bottomBar->setContentsMargins(12, 6, 12, 6);
    bottomBar->addWidget(m_count);
    bottomBar->addStretch();
    bottomBar->addWidget(clearButton);

    auto *listPage = new QWidget;
    listPage->setObjectName(u"historyListPage"_s);
    auto *column = new QVBoxLayout(listPage);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addLayout(filterBar);
    column->addWidget(ViewKit::divider());
    column->addWidget(m_list, 1);
    column->addWidget(ViewKit::divider());
    column->addLayout(bottomBar);

    m_pages->addWidget(empty);
    m_pages->addWidget(listPage);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_pages);

    // Relative times stay current while the tab is on screen.
    m_clock->setInterval(30000);
    connect(m_clock, &QTimer::timeout, m_model, &HistoryModel::refreshTimes);
    connect(&m_state.history(), &ForwardingHistory::cleared, this, &HistoryPane::showCleared);
    updateCount();
}

void HistoryPane::reload()
{
    const QString filter = m_filter->text();
    m_model->setRecords(m_state.history().records(filter));
    m_anyRecord =
        filter.isEmpty() ? !m_model->records().isEmpty() : !m_state.history().records({}, 1).isEmpty();
    updateCount();
}

void HistoryPane::showEvent(QShowEvent *event)
{
    reload();
    m_clock->start();
    QWidget::showEvent(event);
}

void HistoryPane::hideEvent(QHideEvent *event)
{
    m_clock->stop();
    QWidget::hideEvent(event);
}

void HistoryPane::clear()
{
    m_state.history().clear();
}

void HistoryPane::showCleared()
{
    m_model->setRecords({});
    m_anyRecord = false;
    updateCount();
}

void HistoryPane::updateCount()
{
    m_pages->setCurrentIndex(m_anyRecord ? 1 : 0);
    m_count->setText(HistoryModel::countText(m_model->rowCount()));
}
