// Allocation probe: this test binary's own malloc, calloc, realloc and free,
// which forward to the C library's allocator and, inside a window opened by
// allocProbeBegin, count the allocation requests, make one chosen request
// fail, and remember every block made so that the blocks still live can be
// counted after the window (frees of those blocks are seen at any time).
// Single-threaded use only: the state is plain globals.
#ifndef MORVEN_ALLOC_PROBE_H
#define MORVEN_ALLOC_PROBE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct AllocProbe {
    long requests;   // allocation requests of the last window, the failed one included
    long live;       // blocks made in the last window and not freed since
    size_t largest;  // largest size requested in the last window, in bytes
    int injected;    // the chosen request of the last window was failed
    int overflowed;  // the window had more live blocks than the probe tracks
};
extern struct AllocProbe allocProbe;

// Opens a window: forgets the previous one and, when failAt is positive,
// makes its failAt-th allocation request return null (the others succeed).
void allocProbeBegin(long failAt);

// Closes the window: requests are neither counted nor failed any more, but
// frees of the window's blocks still come off the live count.
void allocProbeEnd(void);

#ifdef __cplusplus
}
#endif

#endif  // MORVEN_ALLOC_PROBE_H
