#pragma once

#include "Platform/Autostart.h"
#include "Platform/DesktopEntries.h"

#include <QJsonObject>
#include <QStringList>
#include <QTextStream>

// "quillvane doctor [--json]": what Quillvane sees of this desktop, for a
// newcomer's diagnosis. Reads only; changes nothing.
namespace DoctorCommand {

struct Environment
{
    DesktopEntries &entries;
    const Autostart &autostart;
    QTextStream &out;
    QTextStream &err;
};

QString usage();
QJsonObject report(DesktopEntries &entries, const Autostart &autostart);
int run(const QStringList &arguments, const Environment &environment);

} // namespace DoctorCommand
