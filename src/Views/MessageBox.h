#pragma once

#include <QMessageBox>
#include <QString>
#include <QStringList>

#include <optional>

// Modal questions to the user, with a way for tests to answer the next one.
namespace MessageBox {

// Shows an informational question with the buttons in order and returns the
// index of the button chosen; -1 when closed. The default button is
// defaultButton (the first unless said otherwise).
int ask(const QString &text, const QString &informativeText, const QStringList &buttons,
        int defaultButton = 0);
// Shows a result with an "OK" button.
void inform(const QString &title, const QString &text);

// The next ask() returns this answer without showing anything (none: ask again).
void setNextAnswer(std::optional<int> answer);
// What the last ask() or inform() said (for tests).
QString lastText();
// inform() only remembers its text instead of showing it (for tests).
void setInformQuietly(bool quietly);
QString lastInformTitle();
// The informative text of the last ask().
QString lastDetail();

} // namespace MessageBox
