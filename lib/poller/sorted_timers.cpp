#include "poller/sorted_timers.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <utility>

namespace dm {

namespace {

// In nanoseconds, so that a comparison is one of numbers. False when they do not fit, and for a
// deadline that was past from the start and has negative nanoseconds: poller_time_cmp() compares
// the seconds first, and another order would come of the sum.
bool due_of(const TimerEntry* timer, int64_t& due) {
    int64_t ns = 0;
    return timer->deadline.tv_nsec >= 0 &&
           !__builtin_mul_overflow(timer->deadline.tv_sec, int64_t{1000000000}, &ns) &&
           !__builtin_add_overflow(ns, timer->deadline.tv_nsec, &due);
}

template<class T>
void insert_at(T* array, std::size_t count, std::size_t at, T value) {
    std::memmove(array + at + 1, array + at, (count - at) * sizeof(T));
    array[at] = value;
}

template<class T>
void remove_at(T* array, std::size_t count, std::size_t at) {
    std::memmove(array + at, array + at + 1, (count - at - 1) * sizeof(T));
}

} // namespace

// ---- a block ----

void SortedTimers::Block::move(uint32_t from, uint32_t to, uint32_t count) {
    std::memmove(&due[to], &due[from], count * sizeof(due[0]));
    std::memmove(&node[to], &node[from], count * sizeof(node[0]));
}

// Moves the fewer ones of those before and those behind.
void SortedTimers::Block::insert(uint32_t at, const TimerEntry* timer) {
    if (end == kSize || (begin > 0 && at - begin < end - at)) {
        move(begin, begin - 1, at - begin);
        --begin;
        --at;
    } else {
        move(at, at + 1, end - at);
        ++end;
    }
    due[at] = timer->tail.due;
    node[at] = timer->tail.node;
}

void SortedTimers::Block::remove(uint32_t at) {
    if (at - begin < end - at - 1) {
        move(begin, begin + 1, at - begin);
        ++begin;
    } else {
        move(at + 1, at, end - at - 1);
        --end;
    }
}

// Behind those of the same time.
uint32_t SortedTimers::Block::place_for(int64_t due_at) const {
    const auto* begins = due.data();
    return static_cast<uint32_t>(std::upper_bound(begins + begin, begins + end, due_at) - begins);
}

uint32_t SortedTimers::Block::place_of(const TimerEntry* timer) const {
    const auto* begins = due.data();
    const auto* first = std::lower_bound(begins + begin, begins + end, timer->tail.due);
    auto at = static_cast<uint32_t>(first - begins);
    while (node[at] != timer->tail.node)
        ++at;
    return at;
}

void SortedTimers::Block::give_half_to(Block& other) {
    const uint32_t kept = begin + kSize / 2;
    std::copy(&due[kept], &due[0] + end, other.due.begin());
    std::copy(&node[kept], &node[0] + end, other.node.begin());
    other.end = end - kept;
    end = kept;
}

// ---- the array of blocks ----

SortedTimers::~SortedTimers() {
    for (std::size_t at = 0; at < count_; ++at)
        release(blocks()[at]);
}

bool SortedTimers::insert(TimerEntry* timer, LIST_NODE_ST*& before) {
    int64_t due = 0;
    if (!due_of(timer, due))
        return false;
    std::size_t at = block_for(due);
    if (blocks()[at]->is_full() && !make_room(at, due))
        return false;
    Block& block = *blocks()[at];
    const uint32_t place = block.place_for(due);
    if (place > block.begin)
        before = block.node[place - 1];
    else
        before = at > 0 ? blocks()[at - 1]->last() : nullptr;
    // The list links the timer between these.
    __builtin_prefetch(before);
    __builtin_prefetch(place < block.end ? block.node[place] : nullptr);
    timer->tail.due = due;
    block.insert(place, timer);
    note_first(at);
    return true;
}

void SortedTimers::remove(const TimerEntry* timer) {
    const std::size_t at = block_of(timer);
    Block& block = *blocks()[at];
    block.remove(block.place_of(timer));
    if (block.begin == block.end)
        drop_block(at);
    else
        note_first(at);
}

// The last block that begins at that time or before, or the first one.
std::size_t SortedTimers::block_for(int64_t due) const {
    const int64_t* begin = firsts();
    const int64_t* end = begin + count_;
    if (count_ == 1 || due >= end[-1])
        return count_ - 1;
    const auto behind = static_cast<std::size_t>(std::upper_bound(begin, end, due) - begin);
    return behind > 0 ? behind - 1 : 0;
}

// Many blocks may begin at one time.
std::size_t SortedTimers::block_of(const TimerEntry* timer) const {
    const EntryTail& tail = timer->tail;
    const auto begins_behind = [&](const Block* block) {
        return block->due[block->begin] == tail.due &&
               entry_of<TimerEntry>(block->node[block->begin])->tail.number > tail.number;
    };
    std::size_t at = block_for(tail.due);
    if (!begins_behind(blocks()[at]))
        return at;
    const auto* same = std::lower_bound(firsts(), firsts() + at, tail.due);
    Block** first = blocks() + (same - firsts());
    return static_cast<std::size_t>(
        std::partition_point(first, blocks() + at, std::not_fn(begins_behind)) - blocks() - 1);
}

// Makes room around a full block, and gives the one that has it. Timers that come in their order
// fill one block after another.
bool SortedTimers::make_room(std::size_t& at, int64_t due) {
    Block& full = *blocks()[at];
    const bool is_behind = at + 1 == count_ && due >= full.due[full.end - 1];
    if (!add_block(at + 1))
        return false;
    if (!is_behind) {
        full.give_half_to(*blocks()[at + 1]);
        note_first(at + 1);
    }
    if (is_behind || due >= firsts()[at + 1])
        ++at;
    return true;
}

bool SortedTimers::add_block(std::size_t at) {
    if (count_ == room_ && !grow())
        return false;
    auto block = allocate<Block>();
    if (!block)
        return false;
    insert_at(blocks(), count_, at, new (block.release()) Block);
    insert_at(firsts(), count_, at, int64_t{0});
    ++count_;
    return true;
}

bool SortedTimers::grow() {
    auto more_blocks = allocate<Block*>(2 * room_ * sizeof(Block*));
    auto more_firsts = allocate<int64_t>(2 * room_ * sizeof(int64_t));
    if (!more_blocks || !more_firsts)
        return false;
    std::copy_n(blocks(), count_, more_blocks.get());
    std::copy_n(firsts(), count_, more_firsts.get());
    many_blocks_ = std::move(more_blocks);
    many_firsts_ = std::move(more_firsts);
    room_ *= 2;
    return true;
}

// What a crowd needed is not kept once it has left.
void SortedTimers::drop_block(std::size_t at) {
    release(blocks()[at]);
    remove_at(blocks(), count_, at);
    remove_at(firsts(), count_, at);
    if (--count_ != 0)
        return;
    many_blocks_.reset();
    many_firsts_.reset();
    room_ = kFew;
    first_block_.begin = first_block_.end = 0;
    few_blocks_[0] = &first_block_;
    count_ = 1;
}

void SortedTimers::release(Block* block) {
    if (block != &first_block_)
        std::free(block);
}

} // namespace dm
