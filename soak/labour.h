// The work of the soak that sends nothing: tasks, locks and queues.
#ifndef SOAK_LABOUR_H
#define SOAK_LABOUR_H

#include "ipmi_sm_low.h"
#include "ledger.h"
#include "round.h"

#include <memory>

namespace soak {

// Tasks that end by themselves, and tasks that are deleted at their work.
class Tasks {
public:
    Tasks();

    void begin(Round& round);
    // True once no task is left.
    bool have_ended() const;
    Json report() const;

private:
    void make_and_end(Random& random);
    void make_and_delete();

    Counter made_ = 0;
    Counter refused_ = 0;
    Counter ended_ = 0;
    Counter deleted_ = 0;
};

// One lock that several threads want, some of them longer than they wait for it.
class Lock {
public:
    // The type is THREAD_TIMED_BINARY or THREAD_TIMED_MUTEX.
    explicit Lock(int type);
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock();

    void begin(Round& round, int threads);
    bool is_free();
    Json report() const;

private:
    void take_and_give(Random& random);

    THREAD_TIMED_MUTEX_ST lock_{};
    std::uint64_t inside_ = 0; // guarded by the lock alone
    Counter tries_ = 0;
    Counter taken_ = 0;
    Counter timed_out_ = 0;
    Counter failed_ = 0;
    Counter overlaps_ = 0;
};

// Queues that are made, filled, emptied and deleted.
class Queues {
public:
    void begin(Round& round);
    Json report() const;

private:
    void fill_and_empty(Random& random);

    Counter made_ = 0;
    Counter refused_ = 0;
    Counter written_ = 0;
    Counter read_ = 0;
    Counter wrong_ = 0;
};

} // namespace soak

#endif
