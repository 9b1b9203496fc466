#include "Services/RunningApps.h"

#include "Models/BuildInfo.h"
#include "Platform/DesktopEntries.h"
#include "Platform/ProcessApps.h"

#include <QCollator>
#include <QSet>

#include <algorithm>

using namespace Qt::Literals::StringLiterals;

namespace RunningApps {

namespace {

void sortByName(QList<RunningAppInfo> &apps)
{
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(apps.begin(), apps.end(),
                     [&collator](const RunningAppInfo &a, const RunningAppInfo &b) {
                         return collator.compare(a.name, b.name) < 0;
                     });
}

bool isSelf(const QString &id)
{
    return id.compare(QStringView(BuildInfo::AppId), Qt::CaseInsensitive) == 0;
}

} // namespace

QList<RunningAppInfo> running(ProcessApps &processes, DesktopEntries &entries)
{
    QList<RunningAppInfo> apps;
    QSet<QString> seen;
    QSet<QString> hidden;
    for (const qint64 pid : processes.processIds()) {
        const ProcessApps::Lookup found = processes.lookup(pid);
        if (found.kind != ProcessApps::Lookup::Kind::Application || found.desktopId.isEmpty()
            || found.name.isEmpty() || isSelf(found.desktopId) || seen.contains(found.desktopId)
            || hidden.contains(found.desktopId))
            continue;
        // Helpers and background services have entries hidden from menus.
        const auto entry = entries.entry(found.desktopId);
        if (!entry || entry->noDisplay) {
            hidden.insert(found.desktopId);
            continue;
        }
        seen.insert(found.desktopId);
        apps.append({found.desktopId, found.name});
    }
    sortByName(apps);
    return apps;
}

QList<RunningAppInfo> installed(DesktopEntries &entries)
{
    QList<RunningAppInfo> apps;
    for (const DesktopEntry &entry : entries.allEntries()) {
        if (entry.noDisplay || isSelf(entry.id) || !entry.name || entry.name->isEmpty())
            continue;
        apps.append({entry.id, *entry.name});
    }
    sortByName(apps);
    return apps;
}

} // namespace RunningApps
