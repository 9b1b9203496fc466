#pragma once

#include "Models/RoutingRule.h"
#include "Platform/ActiveApplication.h"
#include "Platform/ProcessApps.h"

#include <QHash>
#include <QObject>

#include <functional>
#include <limits>
#include <optional>

// Which application asked to open a link, from the process id that sent it:
// the process itself, its parents, a short burst lock, the application last
// active, and the frontmost one, in that order. Main thread only.
class SourceAppResolver final : public QObject
{
public:
    static constexpr qint64 BurstWindowMs = 1500;
    // What an ancestor's chain resolved to is remembered this long: a script
    // that opens many links starts a process for each under one parent.
    static constexpr qint64 ParentMemoryMs = BurstWindowMs;
    static constexpr int ParentChainDepth = 10;

    // now: a monotonic clock in milliseconds (tests set their own).
    SourceAppResolver(ProcessApps &apps, ActiveApplication &active,
                      std::function<qint64()> now = {}, QObject *parent = nullptr);

    std::optional<SourceApp> resolve(qint64 pid);
    // The application of the process or of one of its parents only: no
    // guess from the window in front, and nothing remembered for the links
    // that come next.
    std::optional<SourceApp> resolveProcess(qint64 pid);
    // The browser profile the process's parent was started with
    // (--profile-directory, -P): a native messaging host's browser.
    std::optional<QString> parentsProfile(qint64 pid);
    void startTracking();

    const std::optional<SourceApp> &lastActiveApp() const { return m_lastActiveApp; }

    // Whether pid is ancestor or one of its descendants, within the depth the
    // parent chain is followed.
    bool descendsFrom(qint64 pid, qint64 ancestor);

private:
    std::optional<SourceApp> resolveByPID(qint64 pid);
    std::optional<qint64> getParentPID(qint64 pid);
    std::optional<SourceApp> resolveByParentChain(qint64 pid);
    std::optional<SourceApp> burstLockedResult(qint64 now);
    void lockBurstSource(const SourceApp &app, qint64 now);
    std::optional<SourceApp> fallbackToFrontmostApp();
    // appId: the desktop entry the desktop named, tried first.
    std::optional<SourceApp> applicationOf(qint64 pid, const QString &appId = {});
    void activated(qint64 pid, const QString &appId);

    ProcessApps &m_apps;
    ActiveApplication &m_active;
    std::function<qint64()> m_now;
    std::optional<SourceApp> m_lastActiveApp;
    std::optional<SourceApp> m_burstSource;
    qint64 m_burstDeadline = std::numeric_limits<qint64>::min();
    // What the chain above an ancestor resolved to lately, by its process id.
    struct Remembered
    {
        std::optional<SourceApp> app;
        qint64 until = 0;
    };
    QHash<qint64, Remembered> m_chains;
};
