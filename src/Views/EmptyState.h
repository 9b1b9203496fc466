#pragma once

#include <QWidget>

// What a pane shows when it has nothing to list: a large symbol, a title and
// a line of explanation, centred. More (examples, a button) goes below.
class EmptyState final : public QWidget
{
public:
    EmptyState(const QString &iconName, const QString &title, const QString &subtitle,
               QWidget *parent = nullptr);

    // Adds a widget under the texts, centred.
    void addBelow(QWidget *widget);

private:
    class QVBoxLayout *m_column;
};
