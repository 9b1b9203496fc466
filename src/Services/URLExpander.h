#pragma once

#include "Models/Link.h"

#include <QByteArrayView>
#include <QFuture>
#include <QHostAddress>
#include <QHostInfo>
#include <QSet>
#include <QString>

#include <functional>
#include <optional>

// Follows a short link, hop by hop with HEAD requests, to the address it points
// to. Asks at most MaxRequests times and waits at most RequestTimeoutMs per request.
namespace URLExpander {

inline constexpr int MaxRequests = 5;
inline constexpr int RequestTimeoutMs = 3000;

const QSet<QString> &shortDomains();

// A link on one of the shortener hosts (the host, lower-cased, exactly).
bool isShortLink(const Link &url);

// A Location header's value (raw bytes, as received) resolved against the
// link that was asked; none when it is not UTF-8, blank or not a reference.
// Whether the result is a web link is the caller's question.
std::optional<Link> resolveLocation(const Link &current, QByteArrayView location);

// Whether a request may go to this address: not loopback, link-local, private,
// shared, multicast, reserved or documentation space, in IPv4 or IPv6 (an IPv4
// address carried in IPv6 counts as itself).
bool isPublicAddress(const QHostAddress &address);

// Where the requests of an expansion may go. Each hop's host is looked up once,
// every address it has must be allowed, and the request goes to the address
// that was checked, so a name that changes its answer cannot slip through.
struct Network
{
    // The system's resolver unless replaced.
    std::function<QFuture<QHostInfo>(const QString &host)> lookUp;
    std::function<bool(const QHostAddress &)> mayConnect = &isPublicAddress;
};

// Resolves on the calling thread's event loop with the last link reached: url
// itself when nothing could be learnt. Never fails. A redirect to anything but
// http or https, or to a host that is not allowed, ends the walk where it stands.
QFuture<Link> expand(const Link &url, const Network &network = {});

} // namespace URLExpander
