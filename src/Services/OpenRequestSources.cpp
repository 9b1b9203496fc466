#include "Services/OpenRequestSources.h"

#include "Models/DisplayText.h"
#include "Platform/DiagnosticLog.h"
#include "Platform/ProcessApps.h"
#include "Services/SourceAppResolver.h"

#include <QHash>
#include <QUrl>

#include <algorithm>
#include <chrono>

using namespace Qt::Literals::StringLiterals;

namespace {

void debugLog(const QString &message)
{
    DiagnosticLog::write(u"SourceAppResolver", DisplayText::escapeControls(message));
}

qint64 monotonicMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool sameLink(const QString &received, const QString &requested)
{
    if (received == requested)
        return true;
    // A broker may pass the link on re-encoded.
    const QUrl a(received);
    const QUrl b(requested);
    return a.isValid() && b.isValid() && a.toEncoded() == b.toEncoded();
}

} // namespace

OpenRequestSources::OpenRequestSources(OpenRequestMonitor &monitor, ProcessApps &apps,
                                       SourceAppResolver &resolver, std::function<qint64()> now)
    : m_monitor(monitor)
    , m_apps(apps)
    , m_resolver(resolver)
    , m_now(now ? std::move(now) : std::function<qint64()>(&monotonicMs))
{}

std::optional<SourceApp> OpenRequestSources::sourceOf(const QStringList &links, qint64 senderPid)
{
    m_pending.append(m_monitor.takeRequests());
    const qint64 now = m_now();
    m_pending.removeIf(
        [now](const OpenRequest &request) { return now - request.seenMs > RememberMs; });
    if (senderPid < 1)
        return std::nullopt;
    QHash<QString, std::optional<qint64>> brokers;
    // Newest first: a link opened twice belongs to the latest request for it.
    for (qsizetype i = m_pending.size() - 1; i >= 0; --i) {
        const OpenRequest &request = m_pending[i];
        if (std::none_of(links.cbegin(), links.cend(),
                         [&](const QString &link) { return sameLink(link, request.link); }))
            continue;
        if (!brokers.contains(request.broker))
            brokers.insert(request.broker, m_monitor.ownerPid(request.broker));
        const std::optional<qint64> broker = brokers.value(request.broker);
        if (!broker || (senderPid != *broker && !m_resolver.descendsFrom(senderPid, *broker)))
            continue;
        const OpenRequest taken = m_pending.takeAt(i);
        debugLog(u"Link handed on by %1 (PID %2), asked for by PID %3 (%4)"_s.arg(
            taken.broker, QString::number(*broker), QString::number(taken.senderPid),
            taken.sandboxAppId.value_or(u"not sandboxed"_s)));
        return applicationOf(taken);
    }
    return std::nullopt;
}

std::optional<SourceApp> OpenRequestSources::applicationOf(const OpenRequest &request)
{
    using Kind = ProcessApps::Lookup::Kind;
    // The sandbox read when the request was seen names the application even
    // after the process has ended; an application outside a sandbox that uses
    // the portal is looked up like any sender.
    const ProcessApps::Lookup found = request.sandboxAppId ? m_apps.application(*request.sandboxAppId)
                                      : request.senderPid > 0 ? m_apps.lookup(request.senderPid)
                                                              : ProcessApps::Lookup{};
    if (found.kind != Kind::Application) {
        debugLog(u"  its sender is no installed application"_s);
        return std::nullopt;
    }
    return SourceApp{found.desktopId, found.name.isEmpty() ? found.desktopId : found.name};
}
