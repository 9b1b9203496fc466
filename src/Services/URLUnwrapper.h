#pragma once

#include "Models/Link.h"

#include <QStringList>

// Takes the real link out of a redirect wrapper: the links mail and chat
// applications hand out instead of the one that was written (Outlook safe
// links, Google's /url, Facebook's l.php, …), so that rules see the real
// destination. Works on the link alone, without the network.
namespace URLUnwrapper {

// Wrappers inside wrappers are opened one after another, up to this depth.
inline constexpr int MaxDepth = 5;

// The wrapped link when url is a known wrapper carrying an absolute http or
// https link, repeatedly; url itself otherwise.
Link unwrap(const Link &url);

// The wrappers known, one line each ("host/path?member"), for the help and the
// documentation.
QStringList knownWrappers();

} // namespace URLUnwrapper
