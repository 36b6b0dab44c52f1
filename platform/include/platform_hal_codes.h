/**
 * @file platform_hal_codes.h
 * The result codes of the host layer's HAL, with a text for each.
 *
 * They begin above everything that errno can be (4095, MAX_ERRNO in the kernel's linux/err.h): a
 * result that is either a code or an errno number, such as that of dm_hdc_init(), tells by itself
 * which of them it is. The two codes that platform_hal.h fixes for every HAL, HAL_HDC_TIMEOUT and
 * HAL_HDC_NOT_READY, are small numbers; the call tells what they are.
 *
 * The library neither makes nor reads these codes. It hands them on as it gets them. A target's own
 * HAL has codes of its own.
 */
#ifndef PLATFORM_HAL_CODES_H
#define PLATFORM_HAL_CODES_H

#include "platform_hal.h"

DM_BEGIN_DECLS

/** What a call of the host's HAL gives besides 0 and the codes of platform_hal.h. */
enum HAL_ERR {
    HAL_ERR_FIRST = 5001,                     /**< the lowest of them */
    HAL_ERR_INVALID_ARGUMENT = HAL_ERR_FIRST, /**< a missing pointer, or a value not taken */
    HAL_ERR_BAD_HANDLE,                       /**< closed, or never existed */
    HAL_ERR_NO_MEMORY,                        /**< out of memory */
    HAL_ERR_SYSTEM,                           /**< a call of the system failed */
    HAL_ERR_BAD_DIRECTORY,                    /**< the directory of the sockets is refused */
    HAL_ERR_SERVER_EXISTS,                    /**< a live server has the device id */
    HAL_ERR_REFUSED,                          /**< the peer belongs to a user who is not allowed */
    HAL_ERR_TOO_MANY,                         /**< sessions or buffers are used up */
    HAL_ERR_TOO_LONG,                         /**< more bytes than channel or buffer take */
    HAL_ERR_PEER_GONE,                        /**< the session was closed, by peer or caller */
    HAL_ERR_SERVER_ENDED,                     /**< the server was destroyed during the wait */
    HAL_ERR_WOULD_BLOCK,                      /**< no message waits */
    HAL_ERR_OTHER_DEVICE,                     /**< the message was for another device id */
    HAL_ERR_BAD_MESSAGE,                      /**< the message has no known form */
    HAL_ERR_LAST = HAL_ERR_BAD_MESSAGE        /**< the highest of them */
};

/**
 * Tells what a code of the host's HAL means. It lies in the header: a program that may be linked to
 * a target's own HAL needs no symbol for it.
 * @param code a result of a call of platform_hal.h; a negative one of devdrv_open_device_manager()
 *        with its sign turned.
 * @return a text in small letters without an end of line, which lives as long as the program; for
 *         any other number "unknown code of the HAL".
 */
static inline const char* hal_strerror(int32_t code) {
    switch (code) {
    case 0:
        return "success";
    case HAL_HDC_TIMEOUT:
        return "nothing came in time";
    case HAL_HDC_NOT_READY:
        return "no server is ready";
    case HAL_ERR_INVALID_ARGUMENT:
        return "an argument that the call does not take";
    case HAL_ERR_BAD_HANDLE:
        return "a handle that is not open";
    case HAL_ERR_NO_MEMORY:
        return "out of memory";
    case HAL_ERR_SYSTEM:
        return "a call of the system failed";
    case HAL_ERR_BAD_DIRECTORY:
        return "the directory of the sockets cannot be used";
    case HAL_ERR_SERVER_EXISTS:
        return "another server has this device id";
    case HAL_ERR_REFUSED:
        return "the peer's user is not allowed";
    case HAL_ERR_TOO_MANY:
        return "too many sessions or buffers";
    case HAL_ERR_TOO_LONG:
        return "too many bytes";
    case HAL_ERR_PEER_GONE:
        return "the session is closed";
    case HAL_ERR_SERVER_ENDED:
        return "the server has ended";
    case HAL_ERR_WOULD_BLOCK:
        return "no message waits";
    case HAL_ERR_OTHER_DEVICE:
        return "the message is for another device id";
    case HAL_ERR_BAD_MESSAGE:
        return "the message has no known form";
    default:
        return "unknown code of the HAL";
    }
}

DM_END_DECLS

#endif
