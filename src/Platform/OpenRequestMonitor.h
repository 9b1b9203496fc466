#pragma once

#include <QList>
#include <QString>

#include <memory>
#include <optional>

// A request to open a link that an application sent to a broker of the desktop
// rather than to Quillvane: the desktop portal (what Flatpak apps and apps
// using the portal call) or snapd's session agent (what Snap apps call). The
// broker then hands the link on to the default browser, Quillvane, as a
// sender of its own, so the application is only known from the request.
struct OpenRequest
{
    // The link exactly as the application passed it.
    QString link;
    qint64 senderPid = -1;
    // The sender's Flatpak app id or snap ("<snap>_<app>"), read from /proc when
    // the request was seen: the sender may be gone by the time the link arrives.
    std::optional<QString> sandboxAppId;
    // The bus name the request went to: the broker that hands the link on.
    QString broker;
    // When it was seen, on a monotonic clock in milliseconds.
    qint64 seenMs = 0;
};

class OpenRequestMonitor
{
public:
    virtual ~OpenRequestMonitor() = default;

    // The requests seen since the last call, in the order they were sent. What
    // the bus had delivered before the call is included: a broker forwards a
    // link only after the bus has passed its request on, so a link from a
    // broker never arrives ahead of its request.
    virtual QList<OpenRequest> takeRequests() = 0;
    // The process that owns the bus name now.
    virtual std::optional<qint64> ownerPid(const QString &busName) = 0;
};

// Watches the session bus as a monitor (org.freedesktop.DBus.Monitoring), with
// match rules that let through only the open requests of the portal and of
// snapd: while no application opens a link, nothing arrives and nothing wakes.
// Requests are read on a thread of the monitor's own, which looks up their
// sender at once.
class BusOpenRequestMonitor final : public OpenRequestMonitor
{
public:
    ~BusOpenRequestMonitor() override;

    // The monitor, or none when the bus cannot be reached or refuses to be
    // watched (error then says why).
    static std::unique_ptr<BusOpenRequestMonitor> start(QString *error);
    // Whether this bus lets Quillvane watch it, tried on a connection of its own
    // that is closed at once (error says why not).
    static bool canWatch(QString *error);

    QList<OpenRequest> takeRequests() override;
    std::optional<qint64> ownerPid(const QString &busName) override;

    // The interfaces and members watched.
    static constexpr const char *PortalInterface = "org.freedesktop.portal.OpenURI";
    static constexpr const char *SnapInterface = "io.snapcraft.Launcher";

private:
    struct State;
    explicit BusOpenRequestMonitor(std::unique_ptr<State> state);
    std::unique_ptr<State> d;
};
