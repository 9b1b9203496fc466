#pragma once

class QCoreApplication;

// How the process ends, on Linux's terms.
namespace ProcessEnd {

// SIGTERM (systemd at logout, `kill`) and SIGINT (Ctrl+C in a terminal) end the
// main event loop like "Quit Quillvane" does, so whatever runs after it (the
// history written, the database closed) still runs. A second signal while
// quitting ends the process at once, as if nothing were handled. Call once,
// after the application object exists.
void quitOnTerminationSignals(QCoreApplication &application);

// Ends the process now with status, without static destructors; an
// instrumented build writes its coverage profile first, which it would
// otherwise do from exit().
[[noreturn]] void immediately(int status);

} // namespace ProcessEnd
