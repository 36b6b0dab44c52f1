#include "reading_task.h"

#include "dead_queues.h"
#include "dmond_protocol.h"
#include "ipmi_v_queue.h"
#include "ipmi_v_sm.h"
#include "ipmi_v_task.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

namespace dmond {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kPriority = 100;
constexpr std::uint64_t kStackSize = 262144;
constexpr std::uint64_t kOrders = 16;
constexpr std::uint32_t kQueueMode = 9;
constexpr std::uint32_t kBeginMs = 1000;
constexpr std::uint64_t kLookMs = 10;
constexpr std::chrono::seconds kFresh{1};
constexpr std::chrono::seconds kHangs{5};

// An order to take a reading. There is nothing to say with it.
using Order = std::uint32_t;

void require(bool created, const char* what) {
    if (!created)
        throw std::runtime_error(std::string("cannot create ") + what + " for the readings");
}

class Semaphore {
public:
    Semaphore(const char* name, std::uint32_t units) {
        const std::uint32_t code = vos_sm_bcreate(name, units, 0, &sm_);
        if (code != 0)
            vos_sm_delete(sm_);
        require(code == 0, "a semaphore");
    }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    ~Semaphore() { vos_sm_delete(sm_); }

    void take() { vos_sm_p(sm_, 0); }
    bool take_within(std::uint32_t timeout_ms) { return vos_sm_p(sm_, timeout_ms) == 0; }
    void give() { vos_sm_v(sm_); }

private:
    THREAD_TIMED_MUTEX_ST* sm_ = nullptr;
};

// Holds a semaphore for a scope, also when the task is killed in it.
class Hold {
public:
    explicit Hold(Semaphore& semaphore) : semaphore_(semaphore) { semaphore_.take(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() { semaphore_.give(); }

private:
    Semaphore& semaphore_;
};

class OrderQueue {
public:
    // Comes with a first order. So the kernel has noted who wrote to the queue, by which another
    // daemon can tell whether its owner still lives.
    OrderQueue() {
        std::int32_t qid = -1;
        require(vos_private_queue_create(kProcessName, kOrders, &qid, kQueueMode, 1) == 0,
                "a queue");
        qid_ = qid;
        put();
    }
    OrderQueue(const OrderQueue&) = delete;
    OrderQueue& operator=(const OrderQueue&) = delete;
    ~OrderQueue() { remove(); }

    // The kernel keeps a queue beyond the process: it is not left to whoever shares it to be last.
    void remove() {
        take_all();
        vos_queue_delete(static_cast<std::uint64_t>(qid_.exchange(-1)));
    }

    // A full queue holds orders enough.
    void put() const {
        const Order order = 0;
        vos_queue_asy_write(id(), &order, sizeof order);
    }
    // False when the queue is gone.
    bool wait() const {
        Order order = 0;
        return vos_queue_read(id(), 0, &order, sizeof order) == sizeof order;
    }
    void take_all() const {
        Order order = 0;
        while (vos_queue_asy_read(id(), &order, sizeof order) == sizeof order) {
        }
    }

private:
    std::uint64_t id() const { return static_cast<std::uint64_t>(qid_.load()); }

    std::atomic<std::int32_t> qid_{-1};
};

// The task can be killed where it waits, and not in the middle of the C++ library's files, whose
// destructors cannot be left by a killed thread.
class KillingOff {
public:
    KillingOff() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    KillingOff(const KillingOff&) = delete;
    KillingOff& operator=(const KillingOff&) = delete;
    ~KillingOff() { pthread_setcancelstate(before_, nullptr); }

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace

// What the tasks and their creator share. Each has a share: nobody can wait for the very end of a
// task, and one that hangs may come back when there is a new one.
struct ReadingTask::State : std::enable_shared_from_this<ReadingTask::State> {
    State(const char* name_of, Take taker) : name(name_of), take(taker) {}

    static void run(std::uint64_t arg, std::uint64_t, std::uint64_t, std::uint64_t);
    void take_reading(unsigned task_generation);
    void note_order();
    void order();
    void remove_queue();

    const char* const name;
    const Take take;
    OrderQueue orders;
    Semaphore begun{"bgun", 0};
    std::atomic<int> running{0};
    Semaphore guard{"rdng", 1}; // of what follows
    Reading reading{name, nullptr, "there is no reading yet"};
    std::optional<Clock::time_point> taken;
    // When the next one was ordered, or its task created.
    std::optional<Clock::time_point> ordered;
    // Of the task: what one that was replaced comes back with is old.
    unsigned generation = 0;
};

void ReadingTask::State::run(std::uint64_t arg, std::uint64_t, std::uint64_t, std::uint64_t) {
    struct Run {
        explicit Run(std::shared_ptr<State> of) : state(std::move(of)) { state->begun.give(); }
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;
        // While the task is being killed: no call that it could be killed in.
        ~Run() { --state->running; }
        std::shared_ptr<State> state;
    };
    State& shared = *std::bit_cast<State*>(arg);
    // Its creator waits for the beginning, and changes nothing meanwhile.
    const unsigned generation = shared.generation;
    const Run run(shared.shared_from_this());
    do
        run.state->take_reading(generation);
    while (run.state->orders.wait());
}

void ReadingTask::State::take_reading(unsigned task_generation) {
    const KillingOff off;
    orders.take_all();
    Reading newest{name, nullptr, {}};
    try {
        newest.value = take();
        shorten(newest, kMaxBodyLen);
    } catch (const std::exception& error) {
        newest.missing = error.what();
    }
    const Hold hold(guard);
    if (task_generation != generation)
        return;
    std::swap(reading, newest);
    taken = Clock::now();
    ordered.reset();
}

// With the guard held.
void ReadingTask::State::note_order() {
    if (!ordered)
        ordered = Clock::now();
}

// With the guard held.
void ReadingTask::State::order() {
    note_order();
    orders.put();
}

// Under the guard: an order that comes in between would be lost with its memory.
void ReadingTask::State::remove_queue() {
    const Hold hold(guard);
    orders.remove();
}

ReadingTask::ReadingTask(const char* name, Take take)
    : state_(std::make_shared<State>(name, take)) {
    require(start(), "a task");
}

ReadingTask::~ReadingTask() {
    stop();
    while (state_->running != 0)
        vos_task_delay(kLookMs);
}

void ReadingTask::order() const {
    const Hold hold(state_->guard);
    state_->order();
}

Reading ReadingTask::newest() const {
    const Hold hold(state_->guard);
    const auto now = Clock::now();
    if (state_->taken && now - *state_->taken > kFresh)
        state_->order();
    if (state_->ordered && now - *state_->ordered > kHangs)
        return {state_->name, nullptr, "the reading hangs"};
    return state_->reading;
}

bool ReadingTask::is_awaited() const {
    const Hold hold(state_->guard);
    return !state_->taken;
}

bool ReadingTask::start() {
    const std::array<std::uint64_t, 4> args{std::bit_cast<std::uint64_t>(state_.get())};
    {
        const Hold hold(state_->guard);
        ++state_->generation;
        state_->note_order();
    }
    ++state_->running;
    if (vos_create_task(state_->name, &task_no_, State::run, kPriority, kStackSize, args.data()) !=
        0) {
        --state_->running;
        return false;
    }
    // A wait without end would be reported as a dead lock: this thread took the semaphore last.
    while (!state_->begun.take_within(kBeginMs)) {
    }
    return true;
}

bool ReadingTask::restart() {
    vos_delete_task(task_no_);
    return start();
}

void ReadingTask::stop() {
    vos_delete_task(task_no_);
    task_no_ = VOS_TASK_NONE;
    state_->remove_queue();
}

} // namespace dmond
