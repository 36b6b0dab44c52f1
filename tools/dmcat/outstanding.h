// Requests that wait for their replies, in the order in which they fall due.
#ifndef DMCAT_OUTSTANDING_H
#define DMCAT_OUTSTANDING_H

#include "mailbox.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace dmcat {

class Outstanding {
public:
    struct Request {
        std::uint32_t sequence;
        std::shared_ptr<std::string> message;
        std::int32_t retry_left;
        Clock::time_point sent; // for the first time
        Clock::time_point due;
    };

    explicit Outstanding(std::chrono::milliseconds period) : period_(period) {}

    // Falls due a period from now.
    void add(std::uint32_t sequence, std::shared_ptr<std::string> message, std::int32_t retry);
    // Gives none for a request that is not waiting, or not any more.
    std::optional<Request> take(std::uint32_t sequence);

    bool empty() const { return requests_.empty(); }
    // The one that falls due first. There must be one.
    Request& first() { return requests_.front(); }
    // It falls due a period from now once more.
    void postpone_first();

private:
    std::chrono::milliseconds period_;
    std::list<Request> requests_;
    std::unordered_map<std::uint32_t, std::list<Request>::iterator> by_sequence_;
};

} // namespace dmcat

#endif
