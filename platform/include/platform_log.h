/**
 * @file platform_log.h
 * The platform's log service, as the library imports it.
 *
 * @p module is the number of the writing module; the library writes as module 10. The formats are
 * those of printf(3). One call writes one line; a line feed at the end of the text is not needed.
 * A Dlog function checks the level by itself and leaves errno as it was.
 *
 * All functions may be called from any thread, but not from a signal handler. A write may be a
 * cancellation point.
 */
#ifndef PLATFORM_LOG_H
#define PLATFORM_LOG_H

#include "dm_export.h"

/** Levels that CheckLogLevel() takes. */
#define PLATFORM_LOG_DEBUG 0
#define PLATFORM_LOG_INFO 1
#define PLATFORM_LOG_WARNING 2
#define PLATFORM_LOG_ERROR 3

DM_BEGIN_DECLS

/** @return 1 when a line of that module and level is written, 0 when it is not. */
DM_API int CheckLogLevel(int module, int level);

DM_API void DlogErrorInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
DM_API void DlogWarnInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
DM_API void DlogInfoInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
DM_API void DlogDebugInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

DM_END_DECLS

#endif
