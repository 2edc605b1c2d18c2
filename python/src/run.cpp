#include "run.hpp"

#include <pythread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace morven::python {

namespace {

unsigned long mainThread = 0;

// How often the waiting main thread looks for signals.
constexpr std::chrono::milliseconds kSlice{20};

}  // namespace

void rememberMainThread() {
    mainThread =
        py::module_::import("threading").attr("main_thread")().attr("ident").cast<unsigned long>();
}

wzStatus runReleased(const std::function<wzStatus(const uint32_t *cancel)> &call, int64_t work) {
    uint32_t cancel = 0;
    if (work < kInterruptibleWork || PyThread_get_thread_ident() != mainThread) {
        py::gil_scoped_release release;
        return call(&cancel);
    }
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    wzStatus status = WZ_STATUS_OK;
    std::thread helper([&] {
        const wzStatus s = call(&cancel);
        const std::lock_guard lock(mutex);
        status = s;
        done = true;
        finished.notify_one();
    });
    for (;;) {
        bool over;
        {
            py::gil_scoped_release release;
            std::unique_lock lock(mutex);
            over = finished.wait_for(lock, kSlice, [&] { return done; });
        }
        if (over) break;
        if (PyErr_CheckSignals() != 0) {
            __atomic_store_n(&cancel, 1u, __ATOMIC_RELAXED);
            {
                py::gil_scoped_release release;
                helper.join();
            }
            throw py::error_already_set();
        }
    }
    helper.join();
    return status;
}

}  // namespace morven::python
