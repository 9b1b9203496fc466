#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>

// What the hand-run harnesses share: Quillvane installed from the build tree
// into a folder of theirs, the XDG locations pointed there, and a session bus
// of their own.
namespace HarnessSupport {

void writeFile(const QString &path, const QByteArray &contents);
double median(QList<double> values);

// Installs the build tree into base/prefix and points the XDG locations, and
// the fake browser's stamp, into base. Returns the prefix.
QString installInto(const QString &base);

// Starts a session bus (its services from the prefix, so that D-Bus activation
// works) and makes it this process's session bus.
void startSessionBus(QProcess &bus, const QString &base, const QString &prefix);

// Waits until Quillvane owns its bus name.
void waitForInstance();

} // namespace HarnessSupport
