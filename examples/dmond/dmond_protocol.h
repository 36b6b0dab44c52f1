// The messages of dmond: a header of three 32-bit words in host byte order, then the body.
//
// The body of a ping and of its response is whatever the sender likes. All other responses have
// JSON text for their body; with a status other than ok it is {"error": "the reason"}. The bodies
// of the other requests are ignored.
//
// In the body of health, a reading that failed or hangs is null, and "missing" has its name and the
// reason.
//
// The device manager's channel (ipc) does not tell answers from requests, so there an answer's code
// carries kAnswerMark. Its messages have at most 32 bytes: the body of health is {"load": L} there,
// with the load of the last minute, and that of an error is empty.
#ifndef DMOND_PROTOCOL_H
#define DMOND_PROTOCOL_H

#include "dm_msg_intf.h"

#include <cstddef>
#include <cstdint>

namespace dmond {

enum class Command : std::uint32_t {
    ping = 1,   // answered with its own body
    info = 2,   // what the machine and the daemon are
    health = 3, // load, memory, filesystems, sensors and network counters, as sampled last
    stats = 4,  // messages received and answered, by interface
    tasks = 5,  // the daemon's tasks: number, name, priority, scheduling policy, stack in bytes
};

enum class Status : std::uint32_t {
    ok = 0,
    unknown_command = 1,
    short_message = 2,   // shorter than the header; the response's sequence is 0 then
    length_mismatch = 3, // the body is shorter or longer than the header says
    too_large = 4,       // more than DM_MAX_DATA_LEN bytes, in the request or in its response
    internal_error = 5,  // the daemon could not take the reading
};

struct Header {
    std::uint32_t code;     // a Command in a request, a Status in a response
    std::uint32_t sequence; // chosen by the requester, echoed in the response
    std::uint32_t body_len; // bytes behind the header
};

static_assert(sizeof(Header) == 12);

inline constexpr std::uint32_t kAnswerMark = 0x80000000;

inline constexpr std::size_t kMaxBodyLen = DM_MAX_DATA_LEN - sizeof(Header);

} // namespace dmond

#endif
