#include "labour.h"

#include "ipmi_v_queue.h"
#include "ipmi_v_task.h"

#include <array>
#include <bit>
#include <stdexcept>

namespace soak {

namespace {

constexpr std::uint64_t kPriority = 100;
constexpr std::uint64_t kStack = 65536;
constexpr std::chrono::milliseconds kPace{5};

using Args = std::array<std::uint64_t, 4>;

void count_up(std::uint64_t counter, std::uint64_t ms, std::uint64_t, std::uint64_t) {
    vos_task_delay(ms);
    ++*std::bit_cast<Counter*>(counter);
}

void go_on(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t) {
    for (;;)
        vos_task_delay(1);
}

// Gives VOS_TASK_NONE when the system refuses.
std::uint32_t make(VOS_TASK_ENTRY entry, const Args& args) {
    std::uint32_t task_no = VOS_TASK_NONE;
    vos_create_task("soak", &task_no, entry, kPriority, kStack, args.data());
    return task_no;
}

} // namespace

Tasks::Tasks() {
    if (task_task_info_init() != 0)
        throw std::runtime_error("cannot make the table of tasks");
}

void Tasks::begin(Round& round) {
    round.add([this](Random& random) { make_and_end(random); });
    round.add([this](Random& /*random*/) { make_and_delete(); });
}

void Tasks::make_and_end(Random& random) {
    const bool is_made = make(count_up, {std::bit_cast<std::uint64_t>(&ended_),
                                         any_of(random, 0, 20)}) != VOS_TASK_NONE;
    ++(is_made ? made_ : refused_);
    pause_for(kPace);
}

void Tasks::make_and_delete() {
    const std::uint32_t task_no = make(go_on, {});
    ++(task_no != VOS_TASK_NONE ? made_ : refused_);
    pause_for(kPace);
    if (task_no != VOS_TASK_NONE && vos_delete_task(task_no) == 0)
        ++deleted_;
}

bool Tasks::have_ended() const {
    return made_ == ended_ + deleted_ && std::atomic_ref(m_task_dyn_info[0]).load() == 0;
}

Json Tasks::report() const {
    return {{"made", made_.load()},
            {"ended", ended_.load()},
            {"deleted", deleted_.load()},
            {"refused", refused_.load()}};
}

Lock::Lock(int type) {
    if (thread_timed_mutex_init("soak", &lock_, type, 1) != 0)
        throw std::runtime_error("cannot make a lock");
}

Lock::~Lock() {
    thread_timed_mutex_destroy(&lock_);
}

void Lock::begin(Round& round, int threads) {
    for (int i = 0; i < threads; ++i)
        round.add([this](Random& random) { take_and_give(random); });
}

void Lock::take_and_give(Random& random) {
    ++tries_;
    const std::uint32_t status =
        thread_timed_mutex_lock(&lock_, static_cast<std::uint32_t>(any_of(random, 1, 5)));
    if (status != 0) {
        ++(status == THREAD_TIMED_TIMEOUT ? timed_out_ : failed_);
        return;
    }
    ++taken_;
    if (inside_++ != 0)
        ++overlaps_;
    if (any_of(random, 1, 5) == 1)
        pause_for(std::chrono::milliseconds(3));
    if (--inside_ != 0)
        ++overlaps_;
    if (thread_timed_mutex_unlock(&lock_) != 0)
        ++failed_;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
}

bool Lock::is_free() {
    return thread_timed_mutex_trylock(&lock_, 0) == 0 && thread_timed_mutex_unlock(&lock_) == 0;
}

Json Lock::report() const {
    return {{"tries", tries_.load()},
            {"taken", taken_.load()},
            {"timed_out", timed_out_.load()},
            {"failed", failed_.load()},
            {"overlaps", overlaps_.load()}};
}

void Queues::begin(Round& round) {
    round.add([this](Random& random) { fill_and_empty(random); });
}

void Queues::fill_and_empty(Random& random) {
    pause_for(kPace);
    std::int32_t qid = -1;
    if (vos_private_queue_create("soak", 64, &qid, 9, 1) != 0) {
        ++refused_;
        return;
    }
    ++made_;
    const auto queue = static_cast<std::uint64_t>(qid);
    const std::uint64_t count = any_of(random, 1, 64);
    for (std::uint64_t number = 0; number < count; ++number)
        written_ += vos_queue_asy_write(queue, &number, sizeof number) == 0 ? 1 : 0;
    for (std::uint64_t number = 0; number < count; ++number) {
        std::uint64_t told = 0;
        if (vos_queue_asy_read(queue, &told, sizeof told) == sizeof told)
            ++read_;
        if (told != number)
            ++wrong_;
    }
    vos_queue_delete(queue);
}

Json Queues::report() const {
    return {{"made", made_.load()},
            {"refused", refused_.load()},
            {"written", written_.load()},
            {"read", read_.load()},
            {"wrong", wrong_.load()}};
}

} // namespace soak
