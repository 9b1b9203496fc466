#pragma once

#include <QWidget>

class AppState;
class QLabel;
class QLineEdit;

// "Test a link": where a typed link would open, and which rule decides, by
// the same router and the same stored rules as a link that arrives from an
// application it does not know. Changes nothing; the router's trail stays out
// of the diagnostic file.
class LinkTester final : public QWidget
{
    Q_OBJECT

public:
    explicit LinkTester(AppState &state, QWidget *parent = nullptr);

    // The answer for a typed text; empty for empty text.
    static QString verdict(const AppState &state, const QString &typed);

private:
    void update();

    AppState &m_state;
    QLineEdit *m_field;
    QLabel *m_result;
};
