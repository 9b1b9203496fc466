#pragma once

#include <QByteArray>

#include <functional>
#include <optional>

// Which process owns a connection to the session bus, asked on a connection
// of the calling thread's own: the question and its answer do not pass
// through Qt's bus thread, and what the caller does meanwhile overlaps the
// round trip. For the thread that takes links: a sender's answer is on the
// path of every click.
namespace BusPeers {

// Asks the bus for the process of uniqueName, runs meanwhile, and waits at
// most timeoutMs for the answer. Nothing when the bus cannot be reached, does
// not answer in time, or does not know the name: the caller asks another way.
std::optional<qint64> processOf(const QByteArray &uniqueName, const std::function<void()> &meanwhile,
                                int timeoutMs);

// The process that made the socket a caller passed along (one end of its
// socket pair), as the kernel recorded it: no process can pass off another's.
// Nothing when fd is no socket, or the socket is another user's.
std::optional<qint64> socketCreator(int fd);

} // namespace BusPeers
