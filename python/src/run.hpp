// Library calls without the GIL, interruptible by Ctrl-C.
//
// Every filter of the library reads a cancel flag before each row or pass.
// A long call made from Python's main thread runs on a helper thread while
// the main thread waits in short slices and, between them, lets Python run
// its signal handlers: on KeyboardInterrupt (or any exception a handler
// raises) the flag is set, the helper joined and the exception re-raised.
// Calls from other threads, and short calls, run in place with the GIL
// released (signals are only ever handled by the main thread).
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <functional>

#include <morven/morven.h>

namespace morven::python {

namespace py = pybind11;

// Work below this many pixel-passes runs in place: it ends within a few
// milliseconds, and a helper thread would cost more than it saves.
constexpr int64_t kInterruptibleWork = int64_t{1} << 20;

// Records the calling thread as Python's main thread (at import).
void rememberMainThread();

// Runs call(cancel) with the GIL released; `work` estimates its size in
// pixel-passes. Returns the call's status; throws what a signal handler
// raised, after the call has stopped.
wzStatus runReleased(const std::function<wzStatus(const uint32_t *cancel)> &call, int64_t work);

}  // namespace morven::python
