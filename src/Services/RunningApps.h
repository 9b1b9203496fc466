#pragma once

#include <QList>
#include <QString>

class DesktopEntries;
class ProcessApps;

struct RunningAppInfo
{
    QString desktopId;
    QString name;

    bool operator==(const RunningAppInfo &) const = default;
};

// The applications a rule can name, for the app rule sheet.
namespace RunningApps {

// Applications running now: every process of this user that belongs to an
// installed application shown in menus, once per application, Quillvane left
// out; by name, ignoring case, in the user's language.
QList<RunningAppInfo> running(ProcessApps &processes, DesktopEntries &entries);

// Every installed application shown in menus, Quillvane left out, sorted alike:
// what can be picked when the application does not run.
QList<RunningAppInfo> installed(DesktopEntries &entries);

} // namespace RunningApps
