#pragma once

#include "Models/Link.h"

#include <QFuture>
#include <QSet>
#include <QString>

// Follows a short link, hop by hop with HEAD requests, to the address it points
// to. Asks at most MaxRequests times and waits at most RequestTimeoutMs per request.
namespace URLExpander {

inline constexpr int MaxRequests = 5;
inline constexpr int RequestTimeoutMs = 3000;

const QSet<QString> &shortDomains();

// A link on one of the shortener hosts (the host, lower-cased, exactly).
bool isShortLink(const Link &url);

// Resolves on the calling thread's event loop with the last link reached: url
// itself when nothing could be learnt. Never fails. A redirect to anything but
// http or https ends the walk where it stands.
QFuture<Link> expand(const Link &url);

} // namespace URLExpander
