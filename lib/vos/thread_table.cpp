#include "vos/thread_table.h"

#include <bit>

namespace dm {

// Identifiers are addresses of stacks, with a pattern in their low bits: the product's high bits
// depend on all of them (Fibonacci hashing).
ThreadEntry*& ThreadTable::bucket_of(pthread_t id) {
    constexpr uint64_t golden_ratio = 0x9E3779B97F4A7C15;
    constexpr int bits = std::countr_zero(kBuckets);
    static_assert(std::has_single_bit(kBuckets));
    return buckets_[(uint64_t{id} * golden_ratio) >> (64 - bits)];
}

ThreadEntry* ThreadTable::find(pthread_t id) {
    ThreadEntry* entry = bucket_of(id);
    while (entry != nullptr && pthread_equal(entry->id, id) == 0)
        entry = entry->next;
    return entry;
}

ThreadEntry* ThreadTable::enter(pthread_t id, ThreadState state, bool is_ours) {
    ThreadEntry* entry = find(id);
    if (entry == nullptr) {
        entry = make_room();
        if (entry == nullptr) {
            is_incomplete_ = true;
            return nullptr;
        }
        entry->id = id;
        entry->is_ours = false;
        ThreadEntry*& bucket = bucket_of(id);
        entry->next = bucket;
        bucket = entry;
    } else if (entry->state == ThreadState::ended) {
        take_from_queue(*entry);
    }
    entry->state = state;
    entry->is_ours |= is_ours;
    return entry;
}

void ThreadTable::end(ThreadEntry& entry) {
    entry.state = ThreadState::ended;
    entry.ended_before = last_ended_;
    entry.ended_after = nullptr;
    (last_ended_ != nullptr ? last_ended_->ended_after : first_ended_) = &entry;
    last_ended_ = &entry;
}

void ThreadTable::end_all_but(pthread_t id) {
    for (std::size_t i = 0; i < used_; ++i) {
        ThreadEntry& entry = entries_[i];
        entry.pins = 0;
        if (entry.state != ThreadState::ended && pthread_equal(entry.id, id) == 0)
            end(entry);
    }
}

// Gives an entry that is in no bucket.
ThreadEntry* ThreadTable::make_room() {
    if (used_ < kEntries)
        return &entries_[used_++];
    ThreadEntry* const entry = first_ended_;
    if (entry == nullptr)
        return nullptr;
    take_from_queue(*entry);
    ThreadEntry** link = &bucket_of(entry->id);
    while (*link != entry)
        link = &(*link)->next;
    *link = entry->next;
    return entry;
}

void ThreadTable::take_from_queue(ThreadEntry& entry) {
    (entry.ended_before != nullptr ? entry.ended_before->ended_after : first_ended_) =
        entry.ended_after;
    (entry.ended_after != nullptr ? entry.ended_after->ended_before : last_ended_) =
        entry.ended_before;
}

} // namespace dm
