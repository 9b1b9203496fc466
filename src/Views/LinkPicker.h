#pragma once

#include "App/AskWhereToOpen.h"
#include "Models/BrowserInfo.h"

#include <QWidget>

#include <functional>
#include <optional>

class AppState;
class DesktopEntries;
class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QListWidgetItem;

// "Open Link — Quillvane": asks which browser (or profile) opens a link that
// no rule decides, keyboard first. 1–9 open a row at once, arrows and Enter
// the selected one, Shift with either a private window; typing filters the
// rows; Escape or closing the window opens nothing; Ctrl+C copies the link
// and closes. Two boxes turn the choice into a rule for the link's host, its
// application, or both. When the link's service has an app whose handoff is
// switched off, the app is the first row. Links that arrive while it asks wait in line and are
// asked in order. The window is made once and kept hidden between links, so
// that it appears at once.
class LinkPicker final : public QWidget
{
    Q_OBJECT

public:
    LinkPicker(AppState &state, DesktopEntries &entries, QWidget *parent = nullptr);

    // Asks about the link, now or after the links before it.
    void ask(const AskRequest &request, std::function<void(const AskAnswer &)> answer);

    // Links asked about or waiting, the one shown included.
    qsizetype waiting() const { return m_queue.size(); }
    // The rows shown now (the filter applied), first to last.
    QList<QListWidgetItem *> shownRows() const;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    struct Pending
    {
        AskRequest request;
        std::function<void(const AskAnswer &)> answer;
    };
    struct Row
    {
        QString browserID;
        std::optional<QString> profileID;
        // The app of the link's service rather than a browser.
        bool app = false;
    };

    void showCurrent();
    void fillRows();
    void filterRows(const QString &text);
    void numberRows();
    // Opens the link where the row says, learns the ticked rule, asks the next.
    void choose(QListWidgetItem *item, bool privateWindow);
    void cancel();
    void answerCurrent(const AskAnswer &answer);
    void learn(const Row &row, bool privateWindow);
    std::optional<int> digitOf(const QKeyEvent &key) const;
    Row rowOf(const QListWidgetItem *item) const;

    AppState &m_state;
    DesktopEntries &m_entries;
    QList<Pending> m_queue;
    QLabel *m_host;
    QLabel *m_link;
    QLabel *m_sourceIcon;
    QLabel *m_source;
    QLabel *m_waiting;
    QLineEdit *m_filter;
    QListWidget *m_rows;
    QCheckBox *m_rememberHost;
    QCheckBox *m_rememberApp;
};
