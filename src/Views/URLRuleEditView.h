#pragma once

#include "Views/RuleEditView.h"

class QLabel;
class QLineEdit;
class QWidget;

// Creates or edits a URL rule: links matching the pattern go to the chosen
// browser, whichever application opened them.
class URLRuleEditView final : public RuleEditView
{
    Q_OBJECT

public:
    URLRuleEditView(AppState &state, RuleEditServices services,
                    std::optional<RoutingRule> existing = std::nullopt, QWidget *parent = nullptr);

    // The pattern as saved: blanks trimmed, then one "https://" or "http://"
    // (in any letter case) removed; nothing else changes.
    static QString trimmedPattern(const QString &typed);
    static bool hasProtocolPrefix(const QString &typed);

protected:
    bool canSaveOwnFields() const override;
    RoutingRule ownFields() const override;

private:
    void patternChanged();

    QLineEdit *m_pattern;
    QLabel *m_note;
    QWidget *m_help;
};
