#include "common.hpp"

#include <csignal>
#include <cstdio>
#include <mutex>

namespace morven::tool {
namespace {

// The library reads the flag as a plain 32-bit value; the tool writes and
// reads it only through atomic_ref, so the write from the signal handler is a
// single lock-free 32-bit store.
alignas(std::atomic_ref<uint32_t>::required_alignment) uint32_t g_cancel = 0;
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);

extern "C" void onSignal(int) { std::atomic_ref<uint32_t>(g_cancel).store(1); }

std::mutex g_console;
std::string g_progress;

void eraseProgress() {
    if (!g_progress.empty()) std::fputs("\r\033[K", stderr);
}

}  // namespace

uint32_t *cancelFlag() { return &g_cancel; }

bool cancelled() { return std::atomic_ref<uint32_t>(g_cancel).load() != 0; }

void installSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // The first Ctrl-C asks for a clean stop; a second one kills at once.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

std::string describeTimings(const Timings &t) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "decode %.1f ms, library %.1f ms, encode %.1f ms, write %.1f ms", t.decode * 1e3,
                  t.library * 1e3, t.encode * 1e3, t.write * 1e3);
    return text;
}

void printLine(const std::string &line) {
    std::lock_guard lock(g_console);
    eraseProgress();
    std::fprintf(stderr, "%s\n", line.c_str());
    if (!g_progress.empty()) std::fputs(g_progress.c_str(), stderr);
    std::fflush(stderr);
}

void setProgressLine(const std::string &line) {
    std::lock_guard lock(g_console);
    eraseProgress();
    g_progress = line;
    std::fputs(g_progress.c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace morven::tool
