#pragma once

#include <functional>

class QObject;

// How the process ends, on Linux's terms.
namespace ProcessEnd {

// SIGTERM (systemd at logout, `kill`), SIGINT (Ctrl+C in a terminal) and
// SIGHUP (the terminal that started it closed) run
// quit in the event loop of context's thread instead of ending the process on
// the spot, so that it can end like "Quit Quillvane" does. A second signal
// ends the process at once, should quitting hang. Call once.
void onTerminationSignal(QObject *context, std::function<void()> quit);

// Ends the process now with status, without static destructors; an
// instrumented build writes its coverage profile first, which it would
// otherwise do from exit().
[[noreturn]] void immediately(int status);

} // namespace ProcessEnd
