#include "sampler.h"

#include "dmond_protocol.h"
#include "ipmi_v_queue.h"
#include "ipmi_v_sm.h"
#include "ipmi_v_task.h"
#include "readings.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <exception>
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
constexpr std::uint64_t kStopMs = 5000; // a reading may hang for good
constexpr std::uint64_t kLookMs = 10;
constexpr std::chrono::seconds kFresh{1};

// An order to take a sample. There is nothing to say with it.
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
    OrderQueue() {
        require(vos_private_queue_create("dmond", kOrders, &qid_, kQueueMode, 1) == 0, "a queue");
    }
    OrderQueue(const OrderQueue&) = delete;
    OrderQueue& operator=(const OrderQueue&) = delete;
    ~OrderQueue() { remove(); }

    // The kernel keeps a queue beyond the process: it is not left to whoever shares it to be last.
    void remove() {
        take_all();
        vos_queue_delete(id());
        qid_ = -1;
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
    std::uint64_t id() const { return static_cast<std::uint64_t>(qid_); }

    std::int32_t qid_ = -1;
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

// What the task and its creator share. Each has a share: nobody can wait for the very end of a
// task.
struct Sampler::State : std::enable_shared_from_this<Sampler::State> {
    static void run(std::uint64_t arg, std::uint64_t, std::uint64_t, std::uint64_t);
    void take_sample();

    OrderQueue orders;
    Semaphore begun{"bgun", 0};
    std::atomic<bool> ended{false};
    Semaphore guard{"smpl", 1}; // of what follows
    std::string text;
    std::string short_text;
    Clock::time_point taken;
};

void Sampler::State::run(std::uint64_t arg, std::uint64_t, std::uint64_t, std::uint64_t) {
    struct Run {
        explicit Run(std::shared_ptr<State> of) : state(std::move(of)) { state->begun.give(); }
        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;
        // While the task is being killed: no call that it could be killed in.
        ~Run() { state->ended = true; }
        std::shared_ptr<State> state;
    };
    const Run run(std::bit_cast<State*>(arg)->shared_from_this());
    while (run.state->orders.wait()) {
        run.state->orders.take_all();
        run.state->take_sample();
    }
}

void Sampler::State::take_sample() {
    const KillingOff off;
    try {
        const Json health = read_health(kMaxBodyLen);
        std::string all = json_text(health);
        std::string load = short_health(health);
        const Hold hold(guard);
        text.swap(all);
        short_text.swap(load);
        taken = Clock::now();
    } catch (const std::exception&) {
        // The sample before stays the newest.
    }
}

Sampler::Sampler() : state_(std::make_shared<State>()) {
    require(task_task_info_init() == 0, "the task table");
    state_->take_sample();
    require(start(), "a task");
}

Sampler::~Sampler() {
    stop();
    state_->orders.remove();
}

bool Sampler::start() {
    state_->ended = false;
    const std::array<std::uint64_t, 4> args{std::bit_cast<std::uint64_t>(state_.get())};
    if (vos_create_task("sampler", &task_no_, State::run, kPriority, kStackSize, args.data()) != 0)
        return false;
    // A wait without end would be reported as a dead lock: this thread took the semaphore last.
    while (!state_->begun.take_within(kBeginMs)) {
    }
    return true;
}

void Sampler::stop() {
    if (vos_delete_task(task_no_) != 0)
        return;
    for (std::uint64_t waited = 0; !state_->ended && waited < kStopMs; waited += kLookMs)
        vos_task_delay(kLookMs);
}

bool Sampler::restart() {
    stop();
    return start();
}

void Sampler::order() {
    state_->orders.put();
}

std::string Sampler::newest(std::size_t max_len) {
    const Hold hold(state_->guard);
    if (Clock::now() - state_->taken > kFresh)
        state_->orders.put();
    return state_->text.size() <= max_len ? state_->text : state_->short_text;
}

} // namespace dmond
