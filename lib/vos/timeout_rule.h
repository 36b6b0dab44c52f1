// When a timed wait has timed out.
#ifndef DM_VOS_TIMEOUT_RULE_H
#define DM_VOS_TIMEOUT_RULE_H

#include <cstdint>

namespace dm {

// What is left of a wait, in milliseconds, once its condition variable reports a time-out after
// `elapsed_ms` on the monotonic clock; 0 when the wait has timed out.
//
// The condition variable runs on the wall clock. One that was set ahead ends a wait too early,
// which then goes on for the rest; but when four fifths of a wait above a second are over, that
// counts as all of it.
constexpr uint32_t remaining_ms(uint32_t timeout_ms, int64_t elapsed_ms) {
    const int64_t timeout = timeout_ms; // four fifths of it need more than 32 bits on the way
    const int64_t limit = timeout > 1000 ? timeout * 8 / 10 : timeout;
    return elapsed_ms >= limit ? 0 : static_cast<uint32_t>(timeout - elapsed_ms);
}

} // namespace dm

#endif
