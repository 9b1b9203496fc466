#pragma once

#include "Models/BrowserInfo.h"
#include "Models/RoutingRule.h"
#include "Services/RunningApps.h"

#include <QDialog>

#include <functional>
#include <optional>

class AppState;
class QCheckBox;
class DesktopEntries;
class QComboBox;
class QLabel;
class QPushButton;
class QVBoxLayout;
class QWidget;

// What the rule sheets need beyond the application state.
struct RuleEditServices
{
    DesktopEntries &entries;
    // The applications running now (read again each time).
    std::function<QList<RunningAppInfo>()> runningApps;
};

// The sheet that creates or edits a rule: a header, the kind's own sections,
// then the target browser, its profile, and Cancel / Save. The two kinds of
// rule share everything from the browser down.
class RuleEditView : public QDialog
{
    Q_OBJECT

public:
    std::optional<RoutingRule> existingRule() const { return m_existing; }

    // "Select a browser...", then the browsers; the profiles of the chosen one.
    QString selectedBrowserId() const;
    // "Ask Every Time" is chosen instead of a browser.
    bool asksWhereToOpen() const;
    QString selectedProfileID() const;
    // Offered and ticked.
    bool privateWindowChosen() const;
    void selectBrowser(const QString &desktopId);

protected:
    struct Looks
    {
        QString noun; // "App Rule", "URL Rule"
        QSize size;
        // Says so when the browser has no profiles, instead of hiding the section.
        bool profileNoteWhenEmpty;
    };

    RuleEditView(AppState &state, RuleEditServices services, std::optional<RoutingRule> existing,
                 const Looks &looks, QWidget *parent);

    // Where a kind adds its own sections, above the browser.
    QVBoxLayout *form() const { return m_form; }
    // Adds the browser and profile sections and the buttons, and fills them
    // from the rule being edited; the kind's constructor ends with it.
    void finishForm();
    void updateSaveButton();

    virtual bool canSaveOwnFields() const = 0;
    // The rule with the kind's fields set; target and id are added here.
    virtual RoutingRule ownFields() const = 0;

    AppState &m_state;
    RuleEditServices m_services;

private:
    void browserChanged();
    bool hasTarget() const;
    void loadProfiles(const QString &keepProfile);
    void updatePrivateWindow();
    void save();

    std::optional<RoutingRule> m_existing;
    Looks m_looks;
    QVBoxLayout *m_form;
    QComboBox *m_browser = nullptr;
    QWidget *m_profileSection = nullptr;
    QComboBox *m_profile = nullptr;
    QLabel *m_profileNote = nullptr;
    QCheckBox *m_privateWindow = nullptr;
    QPushButton *m_save = nullptr;
    bool m_filling = false;
};
