// The allocator of the allocation-failure tests (see alloc_probe.h). These
// definitions replace the C library's malloc family for the whole process,
// the library under test and the C++ runtime included; every block still
// comes from the C library's own allocator, so blocks made before or outside
// a window need no special care.
#include "alloc_probe.h"

#include <errno.h>

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *block, size_t size);
extern void __libc_free(void *block);

struct AllocProbe allocProbe;

#define MAX_LIVE (1 << 14)
static void *liveBlocks[MAX_LIVE];  // the window's live blocks, the first allocProbe.live entries
static int windowOpen;
static long countdown;

static void remember(void *block) {
    if (allocProbe.live == MAX_LIVE)
        allocProbe.overflowed = 1;
    else
        liveBlocks[allocProbe.live++] = block;
}

// Takes the block off the live set; non-zero when it was there. Blocks are
// mostly freed last made first, hence the backward search.
static int forget(void *block) {
    for (long i = allocProbe.live - 1; block && i >= 0; --i) {
        if (liveBlocks[i] == block) {
            liveBlocks[i] = liveBlocks[--allocProbe.live];
            return 1;
        }
    }
    return 0;
}

// Counts one request of size bytes; non-zero when it is the one to fail.
static int failThisOne(size_t size) {
    if (!windowOpen) return 0;
    ++allocProbe.requests;
    if (size > allocProbe.largest) allocProbe.largest = size;
    if (countdown > 0 && --countdown == 0) {
        allocProbe.injected = 1;
        errno = ENOMEM;
        return 1;
    }
    return 0;
}

void allocProbeBegin(long failAt) {
    allocProbe = (struct AllocProbe){0, 0, 0, 0, 0};
    countdown = failAt > 0 ? failAt : 0;
    windowOpen = 1;
}

void allocProbeEnd(void) {
    windowOpen = 0;
    countdown = 0;
}

static void *made(void *block) {
    if (block && windowOpen) remember(block);
    return block;
}

void *malloc(size_t size) { return failThisOne(size) ? NULL : made(__libc_malloc(size)); }

void *calloc(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) bytes = (size_t)-1;
    return failThisOne(bytes) ? NULL : made(__libc_calloc(count, size));
}

// A grown block belongs to the window when the block it replaces did (or,
// for a new block, when the window is open).
void *realloc(void *old, size_t size) {
    if (failThisOne(size)) return NULL;  // the old block stays valid
    const int windowBlock = old ? forget(old) : windowOpen;
    void *block = __libc_realloc(old, size);
    if (!block && size != 0) {
        if (windowBlock && old) remember(old);  // failed: the old block lives on
        return NULL;
    }
    if (block && windowBlock) remember(block);
    return block;
}

void free(void *block) {
    forget(block);
    __libc_free(block);
}
