#include "msg/request_memory.h"

#include "base/memory.h"

namespace dm {

namespace {

constexpr uint64_t kNever = UINT64_MAX;

} // namespace

// The room for the record follows.
struct RequestMemory::Block {
    Block* older;
    Block* younger;
    uint64_t ended_at; // the count of ends then, kNever before
    std::size_t place;
};

// NOLINTBEGIN(clang-analyzer-unix.Malloc): it takes the next block for the one that was freed
RequestMemory::~RequestMemory() {
    while (oldest_ != nullptr)
        free_oldest();
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
    block->ended_at = kNever;
    return reinterpret_cast<unsigned char*>(block + 1) + block->place * kStep;
}

// The youngest one that has rested, or null.
RequestMemory::Block* RequestMemory::take_rested() {
    const uint64_t ends = ends_;
    Block* next = rested_ != nullptr ? rested_->younger : oldest_;
    for (; next != nullptr && ends - next->ended_at >= kResting; next = next->younger)
        rested_ = next;
    Block* block = rested_;
    if (block == nullptr)
        return nullptr;
    take_out(block);
    block->place = (block->place + 1) % kPlaces;
    return block;
}

void RequestMemory::end(Block* block) {
    block->ended_at = ends_.fetch_add(1) + 1;
}

// Of a crowd of requests whose records come back late, most have ended long ago: their blocks are
// not needed any more. The ends go on meanwhile, so they are counted once.
void RequestMemory::give_back(Block* block) {
    if (block->ended_at == kNever)
        end(block);
    const uint64_t ends = ends_;
    const auto is_old = [ends](const Block* idle) { return ends - idle->ended_at >= kKept; };
    if (is_old(block)) {
        std::free(block);
        return;
    }
    const std::lock_guard lock(lock_);
    while (oldest_ != nullptr && is_old(oldest_))
        free_oldest();
    block->older = youngest_;
    block->younger = nullptr;
    (youngest_ != nullptr ? youngest_->younger : oldest_) = block;
    youngest_ = block;
}

void RequestMemory::free_oldest() {
    const Owned<Block> unused(oldest_);
    take_out(oldest_);
}

void RequestMemory::take_out(Block* block) {
    if (rested_ == block)
        rested_ = block->older;
    (block->older != nullptr ? block->older->younger : oldest_) = block->younger;
    (block->younger != nullptr ? block->younger->older : youngest_) = block->older;
}
// NOLINTEND(clang-analyzer-unix.Malloc)

} // namespace dm
