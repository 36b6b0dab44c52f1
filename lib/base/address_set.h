// Finds records by their address.
#ifndef DM_BASE_ADDRESS_SET_H
#define DM_BASE_ADDRESS_SET_H

#include "base/memory.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace dm {

// A set of records that tells a live address from a stale or an invented one: what is looked for is
// compared, never followed. The link to the next record of a bucket lies in the record, and
// Link::of(record) gives it: putting one in cannot fail. Without memory for more buckets the chains
// grow longer.
//
// Who uses it sees to its locking.
template<class Record, class Link>
class AddressSet {
public:
    AddressSet() = default;
    AddressSet(const AddressSet&) = delete;
    AddressSet& operator=(const AddressSet&) = delete;

    std::size_t size() const { return size_; }

    // Null when there is none at that address.
    Record* find(uintptr_t address) const {
        Record* record = *bucket(address);
        while (record != nullptr && address_of(record) != address)
            record = Link::of(record);
        return record;
    }

    void insert(Record* record) {
        if (size_ >= count())
            grow();
        push(record);
        ++size_;
    }

    void remove(Record* record) {
        Record** link = bucket(address_of(record));
        while (*link != record)
            link = &Link::of(*link);
        *link = Link::of(record);
        if (--size_ == 0)
            shrink();
    }

private:
    static constexpr int kFewBits = 4;

    static uintptr_t address_of(const Record* record) {
        return reinterpret_cast<uintptr_t>(record);
    }

    std::size_t count() const { return std::size_t{1} << bits_; }
    Record** buckets() const { return many_ ? many_.get() : few_.data(); }

    // The low bits of addresses are all alike. The factor is 2^64 divided by the golden ratio,
    // which spreads what is evenly spaced.
    Record** bucket(uintptr_t address) const {
        const uint64_t hash = (uint64_t{address} >> 3) * 0x9E3779B97F4A7C15U;
        return buckets() + (hash >> (64 - bits_));
    }

    void push(Record* record) {
        Record** head = bucket(address_of(record));
        Link::of(record) = *head;
        *head = record;
    }

    void grow() {
        auto more =
            Owned<Record*>(static_cast<Record**>(std::calloc(count() * 2, sizeof(Record*))));
        if (!more)
            return;
        Record** const before = buckets();
        const std::size_t before_count = count();
        const Owned<Record*> outgrown = std::exchange(many_, std::move(more));
        ++bits_;
        for (std::size_t i = 0; i < before_count; ++i)
            move_chain(std::exchange(before[i], nullptr));
    }

    void move_chain(Record* record) {
        while (record != nullptr) {
            Record* next = Link::of(record);
            push(record);
            record = next;
        }
    }

    // What a crowd needed is not kept once it has left.
    void shrink() {
        many_.reset();
        bits_ = kFewBits;
    }

    mutable std::array<Record*, std::size_t{1} << kFewBits> few_{};
    Owned<Record*> many_; // in place of the few, once there are more
    int bits_ = kFewBits;
    std::size_t size_ = 0;
};

} // namespace dm

#endif
