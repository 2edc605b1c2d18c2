/*
 * Morven: definitions shared by every public header.
 *
 * MORVEN_API marks the functions (and the one table) that the shared library
 * exports; everything else in the library is hidden. Statuses are unsigned
 * 32-bit values: 0 is success, 1 means rejected arguments, a missing support
 * object or an allocation failure, 2 means the caller's cancel flag was set.
 * A few matrix, volume and dump operations report failure as 0xFFFFFFFF; their
 * comments say so.
 */
#ifndef MORVEN_COMMON_H
#define MORVEN_COMMON_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32) && !defined(MORVEN_STATIC)
#  if defined(MORVEN_BUILDING)
#    define MORVEN_API __declspec(dllexport)
#  else
#    define MORVEN_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__) || defined(__clang__)
#  define MORVEN_API __attribute__((visibility("default")))
#else
#  define MORVEN_API
#endif

#ifdef __cplusplus
#  define MORVEN_EXTERN_C_BEGIN extern "C" {
#  define MORVEN_EXTERN_C_END }
#else
#  define MORVEN_EXTERN_C_BEGIN
#  define MORVEN_EXTERN_C_END
#endif

/* Result of every operation that can fail. */
typedef uint32_t wzStatus;

#define WZ_STATUS_OK ((wzStatus)0)
#define WZ_STATUS_ERROR ((wzStatus)1)
#define WZ_STATUS_CANCELLED ((wzStatus)2)
#define WZ_STATUS_FAILURE ((wzStatus)0xFFFFFFFFu)

#endif /* MORVEN_COMMON_H */
