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

/* Levels that CheckLogLevel() takes. */
#define PLATFORM_LOG_DEBUG 0   /**< what only a developer reads */
#define PLATFORM_LOG_INFO 1    /**< what happens */
#define PLATFORM_LOG_WARNING 2 /**< what is unusual */
#define PLATFORM_LOG_ERROR 3   /**< what failed */

DM_BEGIN_DECLS

/**
 * Tells whether a line is written.
 * @param module number of the writing module.
 * @param level PLATFORM_LOG_DEBUG to PLATFORM_LOG_ERROR.
 * @return 1 when a line of that module and level is written, 0 when it is not.
 */
DM_API int CheckLogLevel(int module, int level);

/**
 * Writes an error line.
 * @param module number of the writing module.
 * @param format as in printf(3).
 * @param ... what it asks for.
 */
DM_API void DlogErrorInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * Writes a warning.
 * @param module number of the writing module.
 * @param format as in printf(3).
 * @param ... what it asks for.
 */
DM_API void DlogWarnInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * Writes an informational line.
 * @param module number of the writing module.
 * @param format as in printf(3).
 * @param ... what it asks for.
 */
DM_API void DlogInfoInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * Writes a debugging line.
 * @param module number of the writing module.
 * @param format as in printf(3).
 * @param ... what it asks for.
 */
DM_API void DlogDebugInner(int module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

DM_END_DECLS

#endif
