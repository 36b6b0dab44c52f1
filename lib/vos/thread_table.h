// Threads by their identifiers, and how far their lives have come.
//
// The entries are data of the process: nothing in them is a thread's own, so that none dangles
// however a thread ends. There is room for kEntries threads, alive or ended; when it is used up,
// the thread that ended first is forgotten. Whoever uses the table holds dm::record_lock.
#ifndef DM_VOS_THREAD_TABLE_H
#define DM_VOS_THREAD_TABLE_H

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace dm {

enum class ThreadState : uint8_t {
    starting, // created, and not begun yet
    live,
    ending, // on its way out, and may wait for who has pinned it
    ended
};

struct ThreadEntry {
    pthread_t id;
    ThreadState state;
    bool is_ours;               // the layer has created a thread with the identifier
    std::atomic<uint32_t> pins; // the thread does not end before they are gone
    ThreadEntry* next;          // in the bucket
    ThreadEntry* ended_before;  // in the queue of those that have ended
    ThreadEntry* ended_after;

    bool is_gone() const { return state >= ThreadState::ending; }
};

class ThreadTable {
public:
    static constexpr std::size_t kEntries = 4096;

    // The thread that has the identifier or had it last, or null.
    ThreadEntry* find(pthread_t id);

    // Notes a thread in the place of one that had its identifier before. Null without room.
    ThreadEntry* enter(pthread_t id, ThreadState state, bool is_ours);

    void end(ThreadEntry& entry);

    // Ends all threads but one, in a process that has no others.
    void end_all_but(pthread_t id);

    // True once a thread has found no room: from then on, one that is not in the table may be
    // alive.
    bool is_incomplete() const { return is_incomplete_; }

private:
    static constexpr std::size_t kBuckets = kEntries;

    ThreadEntry*& bucket_of(pthread_t id);
    ThreadEntry* make_room();
    void take_from_queue(ThreadEntry& entry);

    std::array<ThreadEntry, kEntries> entries_{};
    std::array<ThreadEntry*, kBuckets> buckets_{};
    std::size_t used_ = 0; // entries, from the first on
    ThreadEntry* first_ended_ = nullptr;
    ThreadEntry* last_ended_ = nullptr;
    bool is_incomplete_ = false;
};

} // namespace dm

#endif
