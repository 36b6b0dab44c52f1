// A year of a context, in seconds: while the poll thread has something to do, time stands still.
// Where it would wait, that time is over at once.
#include "support/framework.h"
#include "support/platform_hooks.h"

#include "ipmi_osal_task.h"
#include "ipmi_v_task.h"
#include "platform_adapter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <random>

namespace {

constexpr int64_t kHourMs = 3600000;

// A count of milliseconds in 32 bits wraps in the first second, and seven times more.
std::atomic<int64_t> now_ms = (int64_t{1} << 32) - 500;
std::atomic<int64_t> end_ms = 0; // from then on time stands still

// A timer that is armed again, for another time, whenever it fires.
struct Timer {
    POLLER_ST* poller = nullptr;
    std::mt19937 random;
    int64_t due = 0;
    uint64_t fired = 0, wrong = 0;

    void arm() {
        const double exponent = std::uniform_real_distribution(15.0, 31.0)(random);
        const auto interval_ms = static_cast<uint32_t>(std::exp2(exponent));
        due = now_ms + interval_ms;
        Timer* self = this;
        poller_timer_add(poller, interval_ms, fire, &self, sizeof(self), nullptr);
    }
    static int fire(uint32_t, int32_t, void* self, uint32_t) {
        Timer& timer = **static_cast<Timer**>(self);
        ++timer.fired;
        timer.wrong += now_ms != timer.due ? 1 : 0;
        timer.arm();
        return 0;
    }
};

// One request after the other: of each `kinds` the first times out, the next one is answered to its
// first sending, the one after that to its second, and so on.
struct Requests {
    Requests(int32_t retry_cnt, uint32_t timeout_ms, uint64_t kind_count) : kinds(kind_count) {
        transport.retry_cnt = retry_cnt;
        transport.timeout_ms = timeout_ms;
        transport.send = [this](auto*, auto, uint64_t req_id) {
            return ++sendings == wanted() ? answer(intf->dm_cb, req_id) : 0;
        };
    }
    void begin(const support::Context& context) {
        intf = transport.add(context, "year");
        ask();
    }

    void ask() {
        began = now_ms;
        sendings = 0;
        support::send(intf, "asked", &on_response);
    }
    int64_t wanted() const { return static_cast<int64_t>(ended % kinds); }
    static int answer(DM_CB_ST* dm_cb, uint64_t req_id) {
        char text[] = "answer";
        DM_ADDR_ST addr{};
        DM_DATA_ST data{sizeof(text), text};
        return dm_send_rsp(dm_get_intf(dm_cb, "selfloop", 9), &addr, sizeof(addr), &data, req_id);
    }
    void end(const DM_MSG_ST* msg) {
        const bool is_timeout = support::text_of(msg) == "asked";
        const int64_t again = is_timeout ? transport.retry_cnt : wanted() - 1;
        const int64_t periods = is_timeout ? std::max<int64_t>(again, 1) : again;
        const bool is_right = is_timeout == (wanted() == 0) && sendings == again + 1;
        wrong += is_right && now_ms == began + periods * transport.timeout_ms ? 0 : 1;
        ++ended;
        ask();
    }

    support::Transport transport;
    DM_INTF_ST* intf = nullptr;
    support::MsgFunction on_response = [this](auto*, DM_MSG_ST* msg) { end(msg); };
    uint64_t kinds, ended = 0, wrong = 0;
    int64_t began = 0, sendings = 0;
};

TEST(Simulation, AYearOfTimersAndRequests) {
    std::array<Timer, 200> timers;
    Requests usual(3, 600000, 4), patient(0, INT32_MAX, 1), stubborn(INT32_MAX, kHourMs, 1);
    support::Context context;
    for (Requests* requests : {&usual, &patient, &stubborn})
        requests->begin(context);
    for (Timer& timer : timers) {
        timer.poller = context.get()->poller;
        timer.random.seed(static_cast<uint32_t>(&timer - timers.data()));
        timer.arm();
    }
    end_ms = now_ms + 8760 * kHourMs;
    ASSERT_TRUE(support::eventually([] { return now_ms >= end_ms; }));
    ASSERT_TRUE(context.pass());

    EXPECT_EQ(std::ranges::count(timers, 0U, &Timer::wrong), std::ssize(timers));
    EXPECT_GE(std::ranges::min(timers, {}, &Timer::fired).fired, 14U);
    EXPECT_EQ(usual.wrong + patient.wrong, 0U);
    EXPECT_EQ(usual.ended, 8760U * 4) << "four take an hour";
    EXPECT_EQ(patient.ended, 14U) << "24.86 days each";
    EXPECT_EQ(stubborn.sendings, 8761) << "one an hour, and no end";
}

TEST(Simulation, TheNumbersOfTasksWrap) {
    ASSERT_EQ(task_task_info_init(), 0U);
    std::atomic_ref(g_n_thread_count).store(UINT32_MAX - 9);
    std::atomic<uint32_t> ran = 0;
    const std::array<uint64_t, 4> args{std::bit_cast<uint64_t>(&ran)};
    const auto run = [](uint64_t counter, uint64_t, uint64_t, uint64_t) {
        ++*std::bit_cast<std::atomic<uint32_t>*>(counter);
    };
    for (uint32_t made = 1; made <= 20; ++made) {
        uint32_t task_no = 0;
        ASSERT_EQ(vos_create_task("wrap", &task_no, run, 100, 65536, args.data()), 0U);
        ASSERT_TRUE(support::eventually([&] { return ran == made; }));
    }
    EXPECT_EQ(vos_gen_pid_for_task(), osal_get_process_id() + 10);
}

} // namespace

MM_TIMESPEC_ST mmGetTickCount() {
    return {now_ms / 1000, now_ms % 1000 * 1000000 + 999999};
}

extern "C" int poll(pollfd* fds, nfds_t count, int timeout) {
    static auto* const real = REAL(poll);
    const bool passes = now_ms < end_ms;
    const int ready = real(fds, count, passes ? 0 : 1);
    if (ready == 0 && passes)
        now_ms += timeout;
    return ready;
}
