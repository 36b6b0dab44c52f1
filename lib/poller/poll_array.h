// The array that poll() gets, kept from pass to pass.
#ifndef DM_POLL_ARRAY_H
#define DM_POLL_ARRAY_H

#include "poller/poller_record.h"

#include <poll.h>

namespace dm {

class PollArray {
public:
    explicit PollArray(Poller* poller) : poller_(poller) {}
    PollArray(const PollArray&) = delete;
    PollArray& operator=(const PollArray&) = delete;
    ~PollArray() noexcept(false) { clear_slots(); }

    // Loads the descriptors anew when they have changed since.
    void refresh();
    // False when they have changed since.
    bool is_fresh() const { return seen_ == poller_->fd_changes; }

    pollfd* slots() const { return fds_.get(); }
    uint32_t count() const { return count_; }

private:
    void load();
    bool grow();
    void blank_rest(pollfd* rest);
    void clear_slots();

    Poller* poller_;
    Owned<pollfd> fds_;
    uint32_t count_ = 0;    // slots handed to poll()
    uint32_t size_ = 0;     // slots allocated
    uint64_t seen_ = 0;     // the state of Poller::fd_changes at the last look
    uint64_t closings_ = 0; // the state of Poller::closings at the last loading
    bool loaded_ = false;   // false: the array could not grow, the next pass tries again
};

} // namespace dm

#endif
