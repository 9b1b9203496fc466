#pragma once

#include <QWidget>

class HistoryModel;
class QLabel;
class QLineEdit;
class QListView;
class QSettings;
class QStackedWidget;
class QTimer;

// The History tab: every recorded forwarding, newest first, with a filter, the
// count and "Clear". The records are loaded each time the tab comes on screen.
class HistoryPane final : public QWidget
{
    Q_OBJECT

public:
    explicit HistoryPane(QSettings &settings, QWidget *parent = nullptr);

    HistoryModel &model() const { return *m_model; }
    // Loads the history again (what coming on screen does).
    void reload();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void clear();
    void updateCount();

    QSettings &m_settings;
    HistoryModel *m_model;
    QStackedWidget *m_pages;
    QLineEdit *m_filter;
    QListView *m_list;
    QLabel *m_count;
    QTimer *m_clock;
};
