#pragma once

#include <QWidget>

class AppState;
class DesktopEntries;
class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;

// The Browsers tab: every installed browser, and for the one selected whether
// the lists offer it and the arguments it is always started with. Changes are
// saved as they are made; arguments that cannot be used are refused with the
// reason, and the stored ones stay.
class BrowsersPane final : public QWidget
{
    Q_OBJECT

public:
    BrowsersPane(AppState &state, DesktopEntries &entries, QWidget *parent = nullptr);

    // The browser shown in the details, by id; empty when there is none.
    QString selectedBrowser() const;
    void selectBrowser(const QString &desktopId);

private:
    void fillList();
    void showDetails();
    void saveShown(bool shown);
    void saveArguments();

    AppState &m_state;
    DesktopEntries &m_entries;
    QListWidget *m_list;
    QWidget *m_details;
    QLabel *m_name;
    QLabel *m_id;
    QCheckBox *m_shown;
    QLineEdit *m_arguments;
    QLabel *m_argumentsError;
    QLabel *m_privateWindow;
};
