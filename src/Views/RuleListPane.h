#pragma once

#include <QWidget>

class AppState;
class QLabel;
class QListWidget;
class QStackedWidget;

// The App Rules and URL Rules tabs: the rules of one kind in the order the
// window lists them, or an invitation when there are none. They follow every
// change of the rules, wherever it is made.
class RuleListPane final : public QWidget
{
    Q_OBJECT

public:
    enum Kind
    {
        AppRules,
        UrlRules
    };

    RuleListPane(AppState &state, Kind kind, QWidget *parent = nullptr);

    // "{n} rule", with "s" unless n is 1.
    static QString countText(qsizetype count);

private:
    void refresh();

    AppState &m_state;
    Kind m_kind;
    QStackedWidget *m_pages;
    QListWidget *m_list;
    QLabel *m_count;
};
