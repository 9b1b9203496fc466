#pragma once

#include "Models/RoutingRule.h"
#include "Platform/OpenRequestMonitor.h"

#include <QStringList>

#include <functional>
#include <optional>

class ProcessApps;
class SourceAppResolver;

// Which application a link came from when a broker of the desktop (the portal,
// snapd's session agent) handed it on: the one whose request to open that very
// link the monitor saw, provided that the link reaches Quillvane from that
// broker or from a process it started. Main thread only.
class OpenRequestSources final
{
public:
    // A request waits this long for its link: the portal may first ask the
    // user which application should open it.
    static constexpr qint64 RememberMs = 20000;

    // now: the monitor's monotonic clock in milliseconds (tests set their own).
    OpenRequestSources(OpenRequestMonitor &monitor, ProcessApps &apps, SourceAppResolver &resolver,
                       std::function<qint64()> now = {});

    // The application that asked a broker to open one of the links (compared as
    // the application passed them), when the sender is that broker or runs
    // under it. Each request answers once.
    std::optional<SourceApp> sourceOf(const QStringList &links, qint64 senderPid);

private:
    std::optional<SourceApp> applicationOf(const OpenRequest &request);

    OpenRequestMonitor &m_monitor;
    ProcessApps &m_apps;
    SourceAppResolver &m_resolver;
    std::function<qint64()> m_now;
    QList<OpenRequest> m_pending;
};
