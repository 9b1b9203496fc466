#include "Views/ViewKit.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFrame>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QScrollArea>
#include <QVBoxLayout>

using namespace Qt::Literals::StringLiterals;

namespace ViewKit {

void installSymbolFont()
{
    static const int installed =
        QFontDatabase::addApplicationFont(u":/fonts/QuillvaneSymbols.ttf"_s);
    Q_UNUSED(installed);
}

QIcon pauseIcon()
{
    return QIcon::fromTheme(u"media-playback-pause"_s, QIcon(u":/icons/pause.svg"_s));
}

QFont scaled(QFont font, qreal factor, QFont::Weight weight)
{
    font.setPointSizeF(font.pointSizeF() * factor);
    font.setWeight(weight);
    return font;
}

QLabel *caption(const QString &text)
{
    auto *label = new QLabel(text);
    label->setWordWrap(true);
    label->setFont(scaled(label->font(), 0.85));
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

QFrame *divider()
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

QVBoxLayout *addSection(QVBoxLayout *page, const QString &iconName, const QString &title,
                        bool withDivider, int spacing)
{
    auto *header = new QHBoxLayout;
    header->setSpacing(6);
    auto *symbol = new QLabel;
    symbol->setPixmap(QIcon::fromTheme(iconName).pixmap(16, 16));
    auto *text = new QLabel(title);
    text->setFont(scaled(text->font(), 0.95, QFont::DemiBold));
    text->setForegroundRole(QPalette::PlaceholderText);
    header->addWidget(symbol);
    header->addWidget(text);
    header->addStretch();
    auto *section = new QVBoxLayout;
    section->setSpacing(spacing);
    section->addLayout(header);
    page->addLayout(section);
    if (withDivider) {
        QFrame *line = divider();
        line->setContentsMargins(4, 0, 4, 0);
        page->addWidget(line);
    }
    return section;
}

void paintBadge(QPainter &painter, const QRect &area, const QString &text, const QColor &colour,
                const QIcon &symbol)
{
    QColor fill = colour;
    fill.setAlphaF(0.12f);
    QPainterPath path;
    path.addRoundedRect(area, 3, 3);
    painter.fillPath(path, fill);
    QRect textArea = area;
    if (!symbol.isNull()) {
        const int size = area.height() - 4;
        symbol.paint(&painter, QRect(area.left() + 4, area.top() + 2, size, size));
        textArea.setLeft(area.left() + 4 + size);
    }
    painter.setPen(colour);
    painter.drawText(textArea, Qt::AlignCenter, text);
}

void RowDelegate::paintBackground(QPainter *painter, const QStyleOptionViewItem &option,
                                  const QModelIndex &index) const
{
    QStyleOptionViewItem base = option;
    initStyleOption(&base, index);
    base.text.clear();
    const QWidget *widget = option.widget;
    (widget ? widget->style() : QApplication::style())
        ->drawControl(QStyle::CE_ItemViewItem, &base, painter, widget);
}

void setScrolledContent(QWidget *pane, QWidget *content)
{
    auto *scroll = new QScrollArea;
    scroll->setWidget(content);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto *layout = new QVBoxLayout(pane);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
}

} // namespace ViewKit
