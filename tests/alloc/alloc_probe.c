/*
 * The allocator of the allocation-failure tests (see alloc_probe.h). The
 * definitions below replace the C library's malloc family for the whole
 * process, the library under test and the C++ runtime included; every block
 * still comes from the C library's own allocator, so blocks made before or
 * outside a window need no special care.
 */
#include "alloc_probe.h"

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

extern void *__libc_malloc(size_t size);
extern void *__libc_calloc(size_t count, size_t size);
extern void *__libc_realloc(void *block, size_t size);
extern void __libc_free(void *block);

/* Open-addressing set of the window's live blocks. Deleted slots keep a
 * tombstone until the next window clears the table. */
#define SLOTS (1u << 16)
#define EMPTY ((uintptr_t)0)
#define TOMBSTONE ((uintptr_t)1)

static uintptr_t slots[SLOTS];
static unsigned used; /* slots ever filled in this window (tombstones count) */
static long live;
static int overflowed;

static int windowOpen;
static long countdown;
static long requests;
static size_t largest;
static int injected;

static unsigned slotOf(uintptr_t p) {
    p ^= p >> 17;
    p *= (uintptr_t)0x9E3779B97F4A7C15ull;
    return (unsigned)(p >> 40) & (SLOTS - 1);
}

static void remember(void *block) {
    const uintptr_t p = (uintptr_t)block;
    if (used >= SLOTS / 2) {
        overflowed = 1;
        return;
    }
    unsigned i = slotOf(p);
    while (slots[i] != EMPTY) i = (i + 1) & (SLOTS - 1);
    slots[i] = p;
    ++used;
    ++live;
}

/* Takes the block off the live set; non-zero when it was there. */
static int forget(void *block) {
    const uintptr_t p = (uintptr_t)block;
    if (live == 0 || p <= TOMBSTONE) return 0;
    for (unsigned i = slotOf(p); slots[i] != EMPTY; i = (i + 1) & (SLOTS - 1)) {
        if (slots[i] == p) {
            slots[i] = TOMBSTONE;
            --live;
            return 1;
        }
    }
    return 0;
}

/* Counts one request of size bytes; non-zero when it is the one to fail. */
static int failThisOne(size_t size) {
    if (!windowOpen) return 0;
    ++requests;
    if (size > largest) largest = size;
    if (countdown > 0 && --countdown == 0) {
        injected = 1;
        errno = ENOMEM;
        return 1;
    }
    return 0;
}

void allocProbeBegin(long failAt) {
    for (unsigned i = 0; i < SLOTS; ++i) slots[i] = EMPTY;
    used = 0;
    live = 0;
    overflowed = 0;
    requests = 0;
    largest = 0;
    injected = 0;
    countdown = failAt > 0 ? failAt : 0;
    windowOpen = 1;
}

void allocProbeEnd(void) {
    windowOpen = 0;
    countdown = 0;
}

long allocProbeRequests(void) { return requests; }
size_t allocProbeLargest(void) { return largest; }
int allocProbeInjected(void) { return injected; }
long allocProbeLive(void) { return live; }
int allocProbeOverflowed(void) { return overflowed; }

void *malloc(size_t size) {
    if (failThisOne(size)) return NULL;
    void *block = __libc_malloc(size);
    if (block && windowOpen) remember(block);
    return block;
}

void *calloc(size_t count, size_t size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, size, &bytes)) bytes = (size_t)-1;
    if (failThisOne(bytes)) return NULL;
    void *block = __libc_calloc(count, size);
    if (block && windowOpen) remember(block);
    return block;
}

/* A grown block belongs to the window when the block it replaces did (or,
 * for a new block, when the window is open). */
void *realloc(void *old, size_t size) {
    if (failThisOne(size)) return NULL; /* the old block stays valid */
    const int windowBlock = old ? forget(old) : windowOpen;
    void *block = __libc_realloc(old, size);
    if (!block && size != 0) {
        if (windowBlock && old) remember(old); /* failed: the old block lives on */
        return NULL;
    }
    if (block && windowBlock) remember(block);
    return block;
}

void free(void *block) {
    forget(block);
    __libc_free(block);
}
