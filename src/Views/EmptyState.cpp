#include "Views/EmptyState.h"

#include <QIcon>
#include <QLabel>
#include <QVBoxLayout>

EmptyState::EmptyState(const QString &iconName, const QString &title, const QString &subtitle,
                       QWidget *parent)
    : QWidget(parent)
    , m_column(new QVBoxLayout(this))
{
    auto *symbol = new QLabel;
    symbol->setPixmap(QIcon::fromTheme(iconName).pixmap(40, 40, QIcon::Disabled));
    symbol->setAlignment(Qt::AlignCenter);

    auto *titleLabel = new QLabel(title);
    titleLabel->setObjectName(QStringLiteral("emptyStateTitle"));
    QFont titleFont = titleLabel->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 1.35);
    titleFont.setWeight(QFont::Medium);
    titleLabel->setFont(titleFont);
    titleLabel->setAlignment(Qt::AlignCenter);

    auto *subtitleLabel = new QLabel(subtitle);
    subtitleLabel->setObjectName(QStringLiteral("emptyStateSubtitle"));
    subtitleLabel->setAlignment(Qt::AlignCenter);
    subtitleLabel->setWordWrap(true);
    subtitleLabel->setForegroundRole(QPalette::PlaceholderText);

    m_column->addStretch();
    m_column->addWidget(symbol);
    m_column->addSpacing(16);
    m_column->addWidget(titleLabel);
    m_column->addSpacing(4);
    m_column->addWidget(subtitleLabel);
    m_column->addStretch();
}

void EmptyState::addBelow(QWidget *widget)
{
    m_column->insertWidget(m_column->count() - 1, widget, 0, Qt::AlignHCenter);
}
