#include "Services/SourceAppResolver.h"

#include "Models/DisplayText.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/SystemLog.h"
#include "Services/ProfileLauncher.h"

#include <QElapsedTimer>
#include <QSet>

using namespace Qt::Literals::StringLiterals;

QUILLVANE_LOGGING_CATEGORY(lcSourceAppResolver, "SourceAppResolver")

namespace {

// The lines of one resolution, written to the trail together when it ends:
// a parent chain writes a dozen lines, and the sender waits for its answer.
QStringList *g_pendingLines = nullptr;

void debugLog(const QString &message)
{
    if (g_pendingLines)
        g_pendingLines->append(message);
    else
        DiagnosticLog::write(u"SourceAppResolver", message);
}

class BatchedLines final
{
public:
    BatchedLines() { g_pendingLines = &m_lines; }
    ~BatchedLines()
    {
        g_pendingLines = nullptr;
        DiagnosticLog::writeLines(u"SourceAppResolver", m_lines);
    }

private:
    QStringList m_lines;
};

QString describe(const SourceApp &app)
{
    return DisplayText::escapeControls(u"%1 (%2)"_s.arg(app.name, app.desktopId));
}

qint64 monotonicMs()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }();
    return clock.elapsed();
}

} // namespace

SourceAppResolver::SourceAppResolver(ProcessApps &apps, ActiveApplication &active,
                                     std::function<qint64()> now, QObject *parent)
    : QObject(parent)
    , m_apps(apps)
    , m_active(active)
    , m_now(now ? std::move(now) : std::function<qint64()>(&monotonicMs))
{}

std::optional<SourceApp> SourceAppResolver::resolve(qint64 pid)
{
    const BatchedLines batch;
    debugLog(u"resolve(pid: %1)"_s.arg(pid));
    if (auto app = resolveByPID(pid)) {
        debugLog(u"Direct PID resolution succeeded: "_s + describe(*app));
        return app;
    }
    if (auto app = resolveByParentChain(pid)) {
        debugLog(u"Parent chain resolution succeeded: "_s + describe(*app));
        return app;
    }
    const qint64 now = m_now();
    if (auto app = burstLockedResult(now)) {
        debugLog(u"Burst window active — reusing locked source: "_s + describe(*app));
        return app;
    }
    if (m_lastActiveApp) {
        debugLog(u"Using tracked last-active app: "_s + describe(*m_lastActiveApp));
        lockBurstSource(*m_lastActiveApp, now);
        return m_lastActiveApp;
    }
    if (auto app = fallbackToFrontmostApp()) {
        debugLog(u"Falling back to frontmost app: "_s + describe(*app));
        qCInfo(lcSourceAppResolver).noquote()
            << u"PID %1 unresolvable, falling back to frontmost app: %2"_s.arg(
                   QString::number(pid), SystemLog::priv(app->name));
        lockBurstSource(*app, now);
        return app;
    }
    debugLog(u"All resolution strategies failed for PID %1"_s.arg(pid));
    return std::nullopt;
}

std::optional<SourceApp> SourceAppResolver::resolveProcess(qint64 pid)
{
    if (auto app = resolveByPID(pid))
        return app;
    return resolveByParentChain(pid);
}

std::optional<QString> SourceAppResolver::parentsProfile(qint64 pid)
{
    const std::optional<qint64> parent = m_apps.parentPid(pid);
    return parent ? ProfileLauncher::startedProfile(m_apps.commandLine(*parent)) : std::nullopt;
}

std::optional<SourceApp> SourceAppResolver::resolveByPID(qint64 pid)
{
    if (pid < 1)
        return std::nullopt;
    using Kind = ProcessApps::Lookup::Kind;
    const ProcessApps::Lookup found = m_apps.lookup(pid);
    switch (found.kind) {
    case Kind::NoProcess:
        debugLog(u"  resolveByPID(%1): no NSRunningApplication"_s.arg(pid));
        return std::nullopt;
    case Kind::Terminated:
        debugLog(u"  resolveByPID(%1): process terminated"_s.arg(pid));
        return std::nullopt;
    case Kind::NoApplication:
        debugLog(u"  resolveByPID(%1): no bundle identifier"_s.arg(pid));
        return std::nullopt;
    case Kind::Self:
        debugLog(u"  resolveByPID(%1): is self, skipping"_s.arg(pid));
        return std::nullopt;
    case Kind::Application:
        return SourceApp{found.desktopId, found.name.isEmpty() ? found.desktopId : found.name};
    }
    return std::nullopt;
}

std::optional<qint64> SourceAppResolver::getParentPID(qint64 pid)
{
    const auto parent = m_apps.parentPid(pid);
    if (!parent || *parent < 1)
        return std::nullopt;
    return parent;
}

std::optional<SourceApp> SourceAppResolver::resolveByParentChain(qint64 pid)
{
    const qint64 now = m_now();
    m_chains.removeIf([now](const auto &entry) { return entry.value().until <= now; });
    QSet<qint64> visited;
    // The ancestors looked up in this walk, which share what it finds.
    QList<qint64> walked;
    std::optional<SourceApp> found;
    qint64 current = pid;
    for (int depth = 0; depth < ParentChainDepth; ++depth) {
        const auto parent = getParentPID(current);
        if (!parent || *parent < 2) {
            debugLog(u"  parentChain[%1]: PID %2 has no valid parent"_s.arg(depth).arg(current));
            break;
        }
        if (visited.contains(*parent)) {
            debugLog(u"  parentChain[%1]: cycle detected at PID %2"_s.arg(depth).arg(*parent));
            break;
        }
        visited.insert(*parent);
        if (const auto remembered = m_chains.constFind(*parent); remembered != m_chains.cend()) {
            debugLog(u"  parentChain[%1]: PID %2 was walked a moment ago"_s.arg(depth).arg(*parent));
            found = remembered->app;
            break;
        }
        debugLog(
            u"  parentChain[%1]: PID %2 → parent PID %3"_s.arg(depth).arg(current).arg(*parent));
        walked.append(*parent);
        if (auto app = resolveByPID(*parent)) {
            found = std::move(app);
            break;
        }
        // Nothing above the session's top can have sent the link: a walk from
        // a script would otherwise read every process up to init. (The top
        // itself may be the application: launchers start some in a session
        // of their own.)
        if (m_apps.isSessionBoundary(*parent)) {
            debugLog(u"  parentChain[%1]: PID %2 is the session's top"_s.arg(depth).arg(*parent));
            break;
        }
        current = *parent;
    }
    for (const qint64 ancestor : std::as_const(walked))
        m_chains.insert(ancestor, Remembered{found, now + ParentMemoryMs});
    return found;
}

bool SourceAppResolver::descendsFrom(qint64 pid, qint64 ancestor)
{
    qint64 current = pid;
    for (int depth = 0; depth <= ParentChainDepth && current > 1; ++depth) {
        if (current == ancestor)
            return true;
        current = getParentPID(current).value_or(0);
    }
    return false;
}

std::optional<SourceApp> SourceAppResolver::burstLockedResult(qint64 now)
{
    if (now < m_burstDeadline && m_burstSource)
        return m_burstSource;
    m_burstSource.reset();
    return std::nullopt;
}

void SourceAppResolver::lockBurstSource(const SourceApp &app, qint64 now)
{
    m_burstSource = app;
    m_burstDeadline = now + BurstWindowMs;
}

std::optional<SourceApp> SourceAppResolver::applicationOf(qint64 pid, const QString &appId)
{
    // What a window calls itself comes after what its process says.
    if (!appId.isEmpty() && m_active.appIdIsHint() && pid > 0) {
        if (auto app = applicationOf(pid, QString()))
            return app;
    }
    if (!appId.isEmpty()) {
        const ProcessApps::Lookup named = m_apps.application(appId);
        if (named.kind == ProcessApps::Lookup::Kind::Application)
            return SourceApp{named.desktopId, named.name.isEmpty() ? named.desktopId : named.name};
    }
    if (pid < 1)
        return std::nullopt;
    const ProcessApps::Lookup found = m_apps.lookup(pid);
    if (found.kind != ProcessApps::Lookup::Kind::Application)
        return std::nullopt;
    return SourceApp{found.desktopId, found.name.isEmpty() ? found.desktopId : found.name};
}

std::optional<SourceApp> SourceAppResolver::fallbackToFrontmostApp()
{
    if (auto app = applicationOf(m_active.activePid().value_or(0),
                                 m_active.activeAppId().value_or(QString())))
        return app;
    for (const qint64 pid : m_active.visibleWindowPids()) {
        if (auto app = applicationOf(pid))
            return app;
    }
    return std::nullopt;
}

void SourceAppResolver::activated(qint64 pid, const QString &appId)
{
    const auto app = applicationOf(pid, appId);
    if (!app)
        return;
    m_lastActiveApp = app;
    debugLog(u"Tracking: active app changed → "_s + describe(*app));
}

void SourceAppResolver::startTracking()
{
    connect(&m_active, &ActiveApplication::activated, this, &SourceAppResolver::activated);
    m_active.startWatching();
    if (const auto app = applicationOf(m_active.activePid().value_or(0),
                                       m_active.activeAppId().value_or(QString()))) {
        m_lastActiveApp = app;
        debugLog(u"Tracking: seeded with frontmost → "_s + describe(*app));
    }
}
