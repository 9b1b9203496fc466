#pragma once

#include <QMessageBox>
#include <QString>
#include <QStringList>

#include <optional>

// Modal questions to the user, with a way for tests to answer the next one.
namespace MessageBox {

// Shows an informational question with the buttons in order (the first is the
// default) and returns the index of the button chosen; -1 when closed.
int ask(const QString &text, const QString &informativeText, const QStringList &buttons);

// The next ask() returns this answer without showing anything (none: ask again).
void setNextAnswer(std::optional<int> answer);
// What the last ask() asked (for tests).
QString lastText();

} // namespace MessageBox
