/*
 * Allocation probe: this test binary's own malloc, calloc, realloc and free,
 * which forward to the C library's allocator and, inside a window opened by
 * allocProbeBegin, count the allocation requests, make one chosen request
 * fail, and remember every block made so that the blocks still live can be
 * counted after the window (frees of those blocks are seen at any time).
 *
 * Single-threaded use only: the state is plain globals.
 */
#ifndef MORVEN_ALLOC_PROBE_H
#define MORVEN_ALLOC_PROBE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens a window: forgets the blocks of the previous one and, when failAt is
 * positive, makes the failAt-th allocation request of the window return null
 * (the others succeed). */
void allocProbeBegin(long failAt);

/* Closes the window: requests are neither counted nor failed any more, but
 * frees of the window's blocks are still taken off the live count. */
void allocProbeEnd(void);

/* Allocation requests seen in the last window (failed one included). */
long allocProbeRequests(void);

/* Non-zero when the chosen request of the last window was failed. */
int allocProbeInjected(void);

/* Largest size requested in the last window, in bytes. */
size_t allocProbeLargest(void);

/* Blocks made in the last window and not freed since. */
long allocProbeLive(void);

/* Non-zero when the last window made more blocks than the probe can track
 * (its counts are then meaningless). */
int allocProbeOverflowed(void);

#ifdef __cplusplus
}
#endif

#endif /* MORVEN_ALLOC_PROBE_H */
