#pragma once

#include <QMessageBox>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// Questions and results shown to the user, with a way for tests to answer the
// next one. Neither waits in a loop of its own: links keep arriving meanwhile,
// and are routed on the main loop as always.
namespace MessageBox {

// Shows an informational question with the buttons in order; answered gets
// the index of the button chosen, -1 when closed otherwise. The default button
// is defaultButton (the first unless said otherwise).
void ask(const QString &text, const QString &informativeText, const QStringList &buttons,
         int defaultButton, std::function<void(int)> answered);
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
