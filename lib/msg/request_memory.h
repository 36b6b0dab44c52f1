// The memory of the records of requests.
#ifndef DM_REQUEST_MEMORY_H
#define DM_REQUEST_MEMORY_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace dm {

// A request's address is its identity on the wire. An answer that comes after its request has ended
// (late, or doubled on its way) must not be taken for that of another request at the same address:
// no address is given out again before kKept more requests have ended.
//
// If the memory of that many lay idle, every request would work on lines that the caches have
// forgotten. So a block is used again once kResting more have ended, and its next record lies a few
// bytes further on: only after all the places in it comes the first again.
//
// Any thread.
class RequestMemory {
public:
    static constexpr uint64_t kKept = 256;

    struct Block;

    explicit RequestMemory(std::size_t record_size) : record_size_(record_size) {}
    RequestMemory(const RequestMemory&) = delete;
    RequestMemory& operator=(const RequestMemory&) = delete;
    ~RequestMemory();

    // Gives room for a record, and its block for what follows. Null without memory.
    void* take(Block*& block);
    // The request has ended.
    void end(Block* block);
    // Nobody uses the record any more. A request that has not ended does so here.
    void give_back(Block* block);

private:
    static constexpr uint64_t kResting = 8;
    static constexpr std::size_t kStep = 8; // what a record is aligned to
    static constexpr std::size_t kPlaces = kKept / kResting;

    Block* take_rested();
    void free_oldest();
    void take_out(Block* block);

    const std::size_t record_size_;

    std::atomic<uint64_t> ends_{0};

    std::mutex lock_; // guards what follows
    // The blocks that are not in use, in the order in which they came back: some more than kKept of
    // them. Those up to `rested_` have rested; the youngest of these is the warmest.
    Block* oldest_ = nullptr;
    Block* youngest_ = nullptr;
    Block* rested_ = nullptr;
};

} // namespace dm

#endif
