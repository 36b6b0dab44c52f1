// Turns of a loop that a descriptor keeps busy.
#pragma once

#include "dm_poller.h"
#include "support/require.h"
#include "support/signal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace bench {

// A descriptor that is readable as long as a batch of turns lasts, so that each wait of the loop
// that watches it ends at once.
class Turns {
public:
    Turns() { require(fd_ >= 0, "eventfd"); }
    Turns(const Turns&) = delete;
    Turns& operator=(const Turns&) = delete;
    ~Turns() { close(fd_); }

    int fd() const { return fd_; }

    // Gives the loop so many turns, and waits until they are over.
    void run(int64_t count) {
        left_ = count;
        require(eventfd_write(fd_, 1) == 0, "eventfd_write");
        done_.await();
    }

    // Called on the loop's thread as a turn begins. False when the batch is over, with all that the
    // turns before did: this one is to do nothing.
    bool begin() {
        if (left_-- != 0)
            return true;
        eventfd_t value = 0;
        require(eventfd_read(fd_, &value) == 0, "eventfd_read");
        done_.give();
        return false;
    }

    // Has a poller take the turns, each of them empty but for its own cost.
    void join(POLLER_ST* poller) {
        Turns* self = this;
        require(poller_fd_add(poller, fd_, POLLIN, take, &self, sizeof(self)) == 0,
                "poller_fd_add");
    }

private:
    static int take(int /*fd*/, int /*events*/, void* user_data, uint32_t /*user_data_len*/) {
        (*static_cast<Turns**>(user_data))->begin();
        return 0;
    }

    int fd_ = eventfd(0, EFD_NONBLOCK);
    int64_t left_ = 0;
    Signal done_;
};

} // namespace bench
