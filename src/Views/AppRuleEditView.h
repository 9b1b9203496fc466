#pragma once

#include "Views/RuleEditView.h"

class QCheckBox;
class QLineEdit;

// Creates or edits an app rule: every link the chosen application opens goes
// to the chosen browser. The application is picked from those running now, or
// given by hand (typed, or picked from the installed ones).
class AppRuleEditView final : public RuleEditView
{
    Q_OBJECT

public:
    AppRuleEditView(AppState &state, RuleEditServices services,
                    std::optional<RoutingRule> existing = std::nullopt, QWidget *parent = nullptr);

    QString resolvedSourceId() const;
    QString resolvedSourceName() const;

protected:
    bool canSaveOwnFields() const override;
    RoutingRule ownFields() const override;

private:
    void setManual(bool manual);

    QList<RunningAppInfo> m_running;
    QCheckBox *m_manual;
    QWidget *m_manualPage = nullptr;
    QComboBox *m_source;
    QComboBox *m_installed;
    QLineEdit *m_manualId;
    QLineEdit *m_manualName;
};
