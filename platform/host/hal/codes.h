// Result codes of the host's HAL, beside those that platform_hal.h names.
#ifndef HAL_CODES_H
#define HAL_CODES_H

#include <cstdint>

namespace hal {

enum Code : int32_t {
    invalid_argument = 1, // a missing pointer, or a value that the call does not take
    bad_handle,           // closed, or never existed
    no_memory,
    system_error,  // a call of the system failed
    bad_directory, // the directory of the sockets cannot be had or trusted
    server_exists, // a live server holds the device id
    refused,       // the peer belongs to another user
    too_many,      // the client's sessions or the message's buffers are used up
    too_long,      // more bytes than the channel or the caller's buffer takes
    peer_gone,     // the peer has closed the session, or the caller has
    server_ended,  // the server was destroyed during the wait
    would_block,   // nothing waits, or there is no room
    other_device,  // the message was for another device id
    bad_message,   // the message has no known form
};

} // namespace hal

#endif
