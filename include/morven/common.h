/**
 * @file
 * @brief Definitions shared by every public header: the export macros and the
 *        status type.
 * @ingroup morven_common
 */
/**
 * @defgroup morven_common Common definitions
 * @brief The export macros, the status type and its values, and the version
 *        of the headers and of the library.
 *
 * MORVEN_API marks the functions (and the one table) that the shared library
 * exports; everything else in the library is hidden. Statuses are unsigned
 * 32-bit values: 0 is success, 1 means rejected arguments, a missing support
 * object or an allocation failure, 2 means the caller's cancel flag was set.
 * A few matrix, volume and dump operations report failure as 0xFFFFFFFF; their
 * comments say so.
 *
 * The version macros come from the generated header morven/version.h, which
 * this header includes.
 * @{
 */
#ifndef MORVEN_COMMON_H
#define MORVEN_COMMON_H

#include <stddef.h>
#include <stdint.h>

#include "morven/version.h"

/**
 * @def MORVEN_API
 * @brief Marks a function or table that the shared library exports.
 *
 * Expands to `__declspec(dllexport)` while the library itself is built on
 * Windows (MORVEN_BUILDING defined), to `__declspec(dllimport)` for its users
 * there unless MORVEN_STATIC is defined, to the default visibility attribute
 * with GCC and Clang, and to nothing elsewhere. Everything the library does not
 * mark is hidden.
 */
#if defined(_WIN32) && !defined(MORVEN_STATIC)
#if defined(MORVEN_BUILDING)
#define MORVEN_API __declspec(dllexport)
#else
#define MORVEN_API __declspec(dllimport)
#endif
#elif defined(__GNUC__) || defined(__clang__)
#define MORVEN_API __attribute__((visibility("default")))
#else
#define MORVEN_API
#endif

/**
 * @def MORVEN_EXTERN_C_BEGIN
 * @brief Opens the C linkage block of a header: `extern "C" {` in C++, nothing
 *        in C.
 */
/**
 * @def MORVEN_EXTERN_C_END
 * @brief Closes the block opened by MORVEN_EXTERN_C_BEGIN.
 */
#ifdef __cplusplus
#define MORVEN_EXTERN_C_BEGIN extern "C" {
#define MORVEN_EXTERN_C_END }
#else
#define MORVEN_EXTERN_C_BEGIN
#define MORVEN_EXTERN_C_END
#endif

/** Result of every operation that can fail.
 *
 *  0 is success (WZ_STATUS_OK); each function's comment lists the other
 *  values it returns. */
typedef uint32_t wzStatus;

/** Success. */
#define WZ_STATUS_OK ((wzStatus)0)
/** Rejected arguments, a missing support object or an allocation failure. */
#define WZ_STATUS_ERROR ((wzStatus)1)
/** The caller's cancel flag was set while the operation ran. */
#define WZ_STATUS_CANCELLED ((wzStatus)2)
/** Failure of the few matrix, volume and dump operations whose comments say
 *  they report it this way. */
#define WZ_STATUS_FAILURE ((wzStatus)0xFFFFFFFFu)

/* ======================================================================== */
/* Extensions                                                               */
/* ======================================================================== */

/** @name Extensions: the status of empty statistics, the library's version
 *  @{ */

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

/** @} */

MORVEN_EXTERN_C_END

/** @} */

#endif /* MORVEN_COMMON_H */
