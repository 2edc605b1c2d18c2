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

#include "morven/version.h"

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

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** Status of the extended filters only: their statistics selected no pixel
 *  (an empty statistics mask, or an empty target profile), so nothing could
 *  be matched or stretched; the destination holds the source's values. */
#define WZ_STATUS_NO_PIXELS ((wzStatus)3)

MORVEN_EXTERN_C_BEGIN

/** The version of the library that is running, for comparison with the
 *  MORVEN_VERSION_NUMBER a program was compiled with.
 *  @return MAJOR * 10000 + MINOR * 100 + PATCH. */
MORVEN_API uint32_t wzMorvenVersionNumber(void);

/** The version of the library that is running.
 *  @return "MAJOR.MINOR.PATCH", a static string. */
MORVEN_API const char *wzMorvenVersionString(void);

MORVEN_EXTERN_C_END

#endif /* MORVEN_COMMON_H */
