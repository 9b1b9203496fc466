#pragma once

#include "Models/Command.h"
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
};

QJsonObject report(DesktopEntries &entries, const Autostart &autostart);
// arguments: --json.
int run(const CommandArguments &arguments, const CommandOutput &output,
        const Environment &environment);

} // namespace DoctorCommand
