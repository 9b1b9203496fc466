#pragma once

#include <QWidget>

class AppState;
class HistoryModel;
class QLabel;
class QLineEdit;
class QListView;
class QStackedWidget;
class QTimer;

// The History tab: every recorded forwarding, newest first, with a filter, the
// count and "Clear". The records are read from the history each time the tab
// comes on screen and each time the filter changes.
class HistoryPane final : public QWidget
{
    Q_OBJECT

public:
    explicit HistoryPane(AppState &state, QWidget *parent = nullptr);

    HistoryModel &model() const { return *m_model; }
    // Loads the history again (what coming on screen does).
    void reload();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void clear();
    void showCleared();
    void updateCount();

    AppState &m_state;
    // Whether there is any record at all, whatever the filter finds.
    bool m_anyRecord = false;
    HistoryModel *m_model;
    QStackedWidget *m_pages;
    QLineEdit *m_filter;
    QListView *m_list;
    QLabel *m_count;
    QTimer *m_clock;
};
