#pragma once

#include "Models/RoutingRule.h"
#include "Views/RuleEditView.h"

#include <QPointer>
#include <QWidget>

class AppState;
class QLabel;
class QListView;
class QStackedWidget;
class RuleListModel;

// The App Rules and URL Rules tabs: the rules of one kind in the order the
// window lists them (or an invitation when there are none), a divider and a
// bar to add one. A click on a row edits its rule; its bin deletes it at once.
// They follow every change of the rules, wherever it is made.
class RuleListView : public QWidget
{
    Q_OBJECT

public:
    enum Kind
    {
        AppRules,
        UrlRules
    };

    // "{n} rule", with "s" unless n is 1.
    static QString countText(qsizetype count);
    // The rules of a kind in the order the list shows them: an app's rules by
    // the app's name, its catch-all first; one site's URL rules together (by
    // the domain one owner registered), the more specific first.
    static QList<RoutingRule> inListOrder(const QList<RoutingRule> &rules, Kind kind);
    static QString rootDomain(const QString &pattern);

    // What "Add Rule" and a click on a row open; the sheet while it is open.
    void showAddSheet();
    void showEditSheet(const RoutingRule &rule);
    RuleEditView *sheet() const { return m_sheet; }

    QListView &list() const { return *m_list; }
    // Where a row's bin is, in the list's viewport.
    QRect deleteButtonRect(const QModelIndex &index) const;

protected:
    RuleListView(AppState &state, RuleEditServices services, Kind kind, QWidget *parent);
    // Above the list (the URL rules' link tester).
    void addAbove(QWidget *widget);

    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void refresh();
    void openSheet(const std::optional<RoutingRule> &rule);

    AppState &m_state;
    RuleEditServices m_services;
    Kind m_kind;
    RuleListModel *m_model;
    QStackedWidget *m_pages;
    QListView *m_list;
    QLabel *m_count;
    QPointer<RuleEditView> m_sheet;
};

class AppRuleListView final : public RuleListView
{
    Q_OBJECT

public:
    AppRuleListView(AppState &state, RuleEditServices services, QWidget *parent = nullptr);
};

class URLRuleListView final : public RuleListView
{
    Q_OBJECT

public:
    URLRuleListView(AppState &state, RuleEditServices services, QWidget *parent = nullptr);
};
