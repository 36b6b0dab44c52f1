#include "msg/request_memory.h"

#include "base/memory.h"

namespace dm {

// The room for the record follows.
struct RequestMemory::Block {
    Block* older;
    Block* younger;
    uint64_t back_at; // the count of ends when it came back
    std::size_t place;
};

RequestMemory::~RequestMemory() {
    while (oldest_ != nullptr) {
        const Owned<Block> block(oldest_);
        take_out(oldest_);
    }
}

void* RequestMemory::take(Block*& block) {
    {
        const std::lock_guard lock(lock_);
        block = take_rested();
    }
    if (block == nullptr) {
        block = allocate<Block>(sizeof(Block) + (kPlaces - 1) * kStep + record_size_).release();
        if (block == nullptr)
            return nullptr;
        block->place = 0;
    }
    return reinterpret_cast<unsigned char*>(block + 1) + block->place * kStep;
}

// The youngest one that has rested, or null.
RequestMemory::Block* RequestMemory::take_rested() {
    Block* next = rested_ != nullptr ? rested_->younger : oldest_;
    for (; next != nullptr && has_rested(next, kResting); next = next->younger)
        rested_ = next;
    Block* block = rested_;
    if (block == nullptr)
        return nullptr;
    take_out(block);
    block->place = (block->place + 1) % kPlaces;
    return block;
}

// After a crowd of requests most blocks are not needed any more.
void RequestMemory::give_back(Block* block) {
    const std::lock_guard lock(lock_);
    block->back_at = ends_;
    block->older = youngest_;
    block->younger = nullptr;
    (youngest_ != nullptr ? youngest_->younger : oldest_) = block;
    youngest_ = block;
    while (has_rested(oldest_, kKept)) {
        const Owned<Block> unused(oldest_);
        take_out(oldest_);
    }
}

bool RequestMemory::has_rested(const Block* block, uint64_t ends) const {
    return ends_ - block->back_at >= ends;
}

void RequestMemory::take_out(Block* block) {
    if (rested_ == block)
        rested_ = block->older;
    (block->older != nullptr ? block->older->younger : oldest_) = block->younger;
    (block->younger != nullptr ? block->younger->older : youngest_) = block->older;
}

} // namespace dm
