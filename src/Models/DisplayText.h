#pragma once

#include <QString>

// Text from outside (links, names, patterns) made safe to show: a control
// character would forge a log line or steer a terminal, and a bidirectional
// override would make text read as something else, so each one is written out
// as "\xNN" (or "\u{NNNN}" beyond Latin-1) instead.
namespace DisplayText {

QString escapeControls(QStringView text);
// The same for a menu item, whose "&" would otherwise mark a mnemonic.
QString forMenu(QStringView text);
// Output for a terminal: every control character but line feeds and tabs, which
// give the output its shape.
QString forTerminal(QStringView text);

} // namespace DisplayText
