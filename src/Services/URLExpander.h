#pragma once

#include "Models/Link.h"

#include <QByteArrayView>
#include <QFuture>
#include <QSet>
#include <QString>

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

// Resolves on the calling thread's event loop with the last link reached: url
// itself when nothing could be learnt. Never fails. A redirect to anything but
// http or https ends the walk where it stands.
QFuture<Link> expand(const Link &url);

} // namespace URLExpander
