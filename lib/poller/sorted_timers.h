// Timers in the order of their deadlines.
#ifndef DM_SORTED_TIMERS_H
#define DM_SORTED_TIMERS_H

#include "base/memory.h"
#include "poller/entry.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace dm {

// A sorted array that is cut into blocks, and the array of these. A search compares numbers that
// lie together; one along a list or a tree would touch the memory of every timer that it passes.
//
// Of one deadline the order is that of EntryTail::number, which grows.
class SortedTimers {
public:
    SortedTimers() = default;
    SortedTimers(const SortedTimers&) = delete;
    SortedTimers& operator=(const SortedTimers&) = delete;
    ~SortedTimers();

    // Gives the node of the last timer that is due at the same time or before, null for none.
    // False, with nothing done, without memory or where the deadline is beyond what is compared.
    bool insert(TimerEntry* timer, LIST_NODE_ST*& before);
    void remove(const TimerEntry* timer);

private:
    static constexpr std::size_t kFew = 4;

    // Its timers are those in [begin, end).
    struct Block {
        static constexpr uint32_t kSize = 60;

        uint32_t begin = 0;
        uint32_t end = 0;
        std::array<int64_t, kSize> due;
        std::array<LIST_NODE_ST*, kSize> node;

        bool is_full() const { return end - begin == kSize; }
        LIST_NODE_ST* last() const { return node[end - 1]; }
        uint32_t place_for(int64_t due_at) const;
        uint32_t place_of(const TimerEntry* timer) const;
        void insert(uint32_t at, const TimerEntry* timer);
        void remove(uint32_t at);
        void give_half_to(Block& other);
        void move(uint32_t from, uint32_t to, uint32_t count);
    };

    std::size_t block_for(int64_t due) const;
    std::size_t block_of(const TimerEntry* timer) const;
    bool make_room(std::size_t& at, int64_t due);
    bool add_block(std::size_t at);
    bool grow();
    void drop_block(std::size_t at);
    void release(Block* block);
    void note_first(std::size_t at) { firsts()[at] = blocks()[at]->due[blocks()[at]->begin]; }

    Block** blocks() const { return many_blocks_ ? many_blocks_.get() : few_blocks_.data(); }
    int64_t* firsts() const { return many_firsts_ ? many_firsts_.get() : few_firsts_.data(); }

    // The blocks in their order, and when the first timer of each is due. The first one is always
    // there; none is empty but this one, when it is alone.
    Block first_block_;
    mutable std::array<Block*, kFew> few_blocks_{&first_block_};
    mutable std::array<int64_t, kFew> few_firsts_{};
    Owned<Block*> many_blocks_;
    Owned<int64_t> many_firsts_;
    std::size_t count_ = 1;
    std::size_t room_ = kFew;
};

} // namespace dm

#endif
