#pragma once

#include <QWidget>

class AppState;
class DesktopEntries;
class QCheckBox;
class QLabel;

// The Apps tab: the services whose links can open in their own desktop apps
// (meetings, music, chat), each with the app the desktop has for it and a
// switch. The apps are looked up again whenever the tab shows, since one may
// have been installed meanwhile.
class AppsPane final : public QWidget
{
    Q_OBJECT

public:
    AppsPane(AppState &state, DesktopEntries &entries, QWidget *parent = nullptr);

protected:
    void showEvent(QShowEvent *event) override;

private:
    struct Row
    {
        QString id;
        QString scheme;
        QLabel *icon;
        QLabel *app;
        QCheckBox *toggle;
    };
    void showApps();
    void showSwitches();

    AppState &m_state;
    DesktopEntries &m_entries;
    QList<Row> m_rows;
};
