#pragma once

#include <QColor>
#include <QIcon>
#include <QFont>
#include <QString>
#include <QStyledItemDelegate>

class QFrame;
class QLabel;
class QPainter;
class QRect;
class QVBoxLayout;

// The small parts every pane is built from, so that they look alike.
namespace ViewKit {

QFont scaled(QFont font, qreal factor, QFont::Weight weight = QFont::Normal);
// Makes the symbols Quillvane's texts use (the pause sign) available to Qt's
// font fallback, where the desktop's fonts lack them. Once per process.
void installSymbolFont();
// The pause sign, from the icon theme or Quillvane's own.
QIcon pauseIcon();
// A dimmed, smaller explanation that wraps.
QLabel *caption(const QString &text);
QFrame *divider();
// Fills the pane with its content in a frameless scroll area, for panes taller
// than a small window.
void setScrolledContent(QWidget *pane, QWidget *content);
// A section of a form or pane: its header (symbol and title, dimmed and
// semibold) above a column, which is returned; a divider follows when asked.
QVBoxLayout *addSection(QVBoxLayout *page, const QString &iconName, const QString &title,
                        bool withDivider = true, int spacing = 10);
// A rounded label, its fill the text's colour faintly; with a symbol before
// the text when one is given (its height is the badge's, less a margin).
void paintBadge(QPainter &painter, const QRect &area, const QString &text, const QColor &colour,
                const QIcon &symbol = {});

// A list row painted by hand over the style's own row background (selection,
// hover, alternating colours).
class RowDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    void paintBackground(QPainter *painter, const QStyleOptionViewItem &option,
                         const QModelIndex &index) const;
};

// The badges' colours: patterns blue, profiles purple, private windows dark
// grey, what is missing orange.
inline const QColor PatternColour{0x0a, 0x64, 0xd8};
inline const QColor ProfileColour{0x8e, 0x3b, 0xc4};
inline const QColor PrivateColour{0x4a, 0x4a, 0x55};
inline const QColor MissingColour{0xc2, 0x5b, 0x00};

} // namespace ViewKit
