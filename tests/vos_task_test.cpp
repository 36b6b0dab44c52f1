#include "ipmi_v_task.h"

#include "ipmi_osal_task.h"
#include "support/platform_hooks.h"
#include "support/threads.h"
#include "vos/thread_table.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <functional>
#include <thread>
#include <vector>

// Whether memory is lost is for the address sanitizer to say.
namespace {

using support::Call;
using support::entries_of;
using support::Event;
using support::Fault;
using support::only_these_threads;
using Args = std::array<uint64_t, 4>;

// What happens on this thread before it cancels another one.
thread_local std::function<void()> before_cancel;

// This thread's identifier, where it is not the true one.
thread_local constinit uint64_t pretended_id = 0;

uint64_t load(uint64_t& field) {
    return std::atomic_ref(field).load();
}

uint64_t as_arg(auto* pointer) {
    return std::bit_cast<uint64_t>(pointer);
}

struct Created {
    uint32_t code = 0, task_no = 7;
    bool operator==(const Created&) const = default;
};

Created create(VOS_TASK_ENTRY entry, const Args& args = {}, const char* name = "task",
               uint64_t priority = 100, uint64_t stack_size = 65536, const char* desc = nullptr) {
    Created created;
    created.code = vos_create_task_ex(name, desc, &created.task_no, entry, priority, stack_size,
                                      args.data(), 0);
    return created;
}

void end_at_once(uint64_t, uint64_t, uint64_t, uint64_t) {}

uint64_t osal_end(uint64_t /*arg*/) {
    return 0;
}

void sleep_for_ever(uint64_t began, uint64_t, uint64_t, uint64_t) {
    if (began != 0)
        std::bit_cast<Event*>(began)->set();
    for (;;)
        vos_task_delay(1000);
}

// What a task sees before it is let go.
struct Seen {
    Event looked;
    Args args;
    uint64_t tid, sys_tid;
    char name[16];
    uint32_t task_no;
    int usr1_blocked;
    Event gate;

    // Lets the task go, and waits until its number is free.
    bool let_go() {
        const bool is_there = looked.wait();
        gate.set();
        return is_there &&
               support::eventually([this] { return vos_check_task_idvalid(task_no) == 0; });
    }
};

void look(uint64_t arg, uint64_t arg1, uint64_t arg2, uint64_t arg3) {
    auto* seen = std::bit_cast<Seen*>(arg);
    seen->args = {arg, arg1, arg2, arg3};
    seen->task_no = vos_get_current_task_id();
    seen->tid = osal_get_self_id();
    seen->sys_tid = vos_get_sys_task_id(0);
    prctl(PR_GET_NAME, seen->name);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    seen->usr1_blocked = sigismember(&mask, SIGUSR1);
    seen->looked.set();
    seen->gate.wait();
}

class VosTask : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(task_task_info_init(), 0U);
        ASSERT_TRUE(only_these_threads(0));
    }
    // No task, no thread and no descriptor stays behind.
    void TearDown() override {
        EXPECT_TRUE(only_these_threads(0));
        EXPECT_EQ(load(m_task_dyn_info[0]), 0U);
        EXPECT_EQ(search_free_tcb(), 1U);
        EXPECT_EQ(g_p_task_cb[1].tid & g_p_task_cb[1].pid, VOS_TASK_NONE);
        EXPECT_EQ(entries_of("/proc/self/fd"), descriptors_);
    }

    const std::ptrdiff_t descriptors_ = entries_of("/proc/self/fd");
};

// The first test of this program: there is no way back from a table.
TEST(VosTaskTable, ThereAreNoTasksBeforeItIsMade) {
    EXPECT_EQ(create(end_at_once), (Created{VOS_TASK_NO_BLOCK, VOS_TASK_NONE}));
    EXPECT_EQ(vos_get_sys_task_id(1), VOS_TASK_NONE);
    EXPECT_EQ(vos_delete_task(1), VOS_TASK_BAD_NUMBER);
    EXPECT_EQ(task_task_info_init(), 0U);
    EXPECT_EQ(m_pul_task_prio_que[VOS_TASK_MAX - 1], VOS_TASK_NONE);
    EXPECT_EQ(m_p_tid2vid[VOS_TASK_MAX - 1][1], VOS_TASK_NONE);
}

TEST_F(VosTask, ABlockDescribesItsTask) {
    const uint64_t next_pid = g_n_thread_count + static_cast<uint32_t>(osal_get_process_id());
    const std::vector<char> name(29, 'n'); // without an end: nothing behind it is to be read
    const std::string desc(60, 'd');
    Seen seen;
    const Args args{as_arg(&seen), 1, ~uint64_t{0}, 3};
    ASSERT_EQ(create(look, args, name.data(), 255, 0, desc.c_str()), (Created{0, 1}));
    ASSERT_TRUE(seen.looked.wait());
    EXPECT_EQ(seen.task_no, 1U);
    EXPECT_EQ(seen.args, args);
    EXPECT_STREQ(seen.name, "nnnnnnnnnnnnnnn");
    EXPECT_EQ(seen.usr1_blocked, 0);
    EXPECT_EQ(seen.sys_tid, seen.tid);
    EXPECT_EQ(vos_get_sys_task_id(1), seen.tid);
    EXPECT_EQ(vos_get_sys_task_id(0), VOS_TASK_NONE);

    VOS_TASK_CB_ST& block = g_p_task_cb[1];
    EXPECT_EQ(block.name, std::string(29, 'n'));
    EXPECT_EQ(block.desc, std::string(50, 'd'));
    EXPECT_EQ(load(block.tid_copy), seen.tid);
    EXPECT_EQ(load(block.pid), next_pid);
    EXPECT_EQ(block.stack_size, 32768U);
    EXPECT_TRUE(seen.let_go());
    EXPECT_STREQ(block.name, "");
    EXPECT_EQ(block.flags, 1U);
}

TEST_F(VosTask, AFailedCreationLeavesNothing) {
    const auto refused = [](uint32_t code) { return Created{code, VOS_TASK_NONE}; };
    const uint64_t all = m_task_dyn_info[1];
    const uint64_t failed = g_creatthreadfailnum;
    for (const auto& [call, stack_size, text] :
         {std::tuple{Call::malloc, uint64_t{0}, "] malloc fail\n"},
          {Call::memset_s, 0, "] memset_s fail\n"},
          {Call::strcpy_s, uint64_t{1} << 48, "] pthread_create fail, errno="}}) {
        support::skip_log_interval();
        const Fault fault(call, 1);
        EXPECT_EQ(create(end_at_once, {}, "task", 0, stack_size), refused(VOS_TASK_NO_THREAD));
        const std::string line = support::log_lines().back().text;
        EXPECT_NE(line.find("[osal_create_task "), std::string::npos) << line;
        EXPECT_NE(line.find(text), std::string::npos) << line;
    }
    EXPECT_EQ(g_creatthreadfailnum, failed + 1);
    EXPECT_EQ(osal_create_task("one", osal_end, 256, 0, 0, 0, nullptr, nullptr), 5);
    EXPECT_EQ(create(nullptr), refused(VOS_TASK_NULL));
    EXPECT_EQ(create(end_at_once, {}, "task", 256), refused(VOS_TASK_NO_BLOCK));
    support::skip_log_interval();
    const Fault not_copied(Call::strncpy_s, 1);
    EXPECT_EQ(create(end_at_once, {}, "task", 0, 0, "desc"), refused(1));
    EXPECT_EQ(support::logged('E', "] strncpy_s error\n"), 1);
    EXPECT_EQ(m_task_dyn_info[1], all);
}

TEST_F(VosTask, AllNumbersCanBeInUseAndWaitUntilTheyAreDispatched) {
    Event began;
    std::atomic_ref(dispatching).store(0);
    for (uint32_t i = 1; i <= VOS_TASK_MAX; ++i)
        ASSERT_EQ(create(sleep_for_ever, {as_arg(&began)}), (Created{0, i}));
    EXPECT_EQ(create(end_at_once), (Created{VOS_TASK_NO_BLOCK, VOS_TASK_NONE}));
    EXPECT_EQ(vos_delete_task(1), 0U);
    EXPECT_TRUE(only_these_threads(VOS_TASK_MAX - 1));
    EXPECT_EQ(began.count(), 0);
    EXPECT_EQ(task_task_info_init(), 0U);
    EXPECT_TRUE(began.wait(VOS_TASK_MAX - 1));
    for (uint32_t i = 2; i <= VOS_TASK_MAX; ++i)
        EXPECT_EQ(vos_delete_task(i), 0U);
}

void check_own_name(uint64_t number, uint64_t wrong, uint64_t, uint64_t) {
    char name[16];
    prctl(PR_GET_NAME, name);
    if (name != std::to_string(number))
        ++*std::bit_cast<std::atomic<int>*>(wrong);
    if (number % 5 == 0)
        vos_delete_task(vos_get_current_task_id());
}

// Creations, ends and deletions race each other, while the numbers and the threads' identifiers are
// used again. Most tasks end before their creator has come back, many are deleted before they
// begin, and some delete themselves. A thread runs its own task or none, and no other task is hit.
TEST_F(VosTask, NoTaskIsTakenForAnother) {
    const uint64_t all = m_task_dyn_info[1];
    const auto rounds = static_cast<uint64_t>(support::rounds(3000));
    ASSERT_EQ(create(sleep_for_ever), (Created{0, 1}));
    std::atomic<int> wrong = 0;
    std::atomic<uint32_t> newest = 2;
    std::atomic<int> creating = 2;
    const auto create_all = [&](uint64_t first) {
        for (uint64_t i = first; i < first + rounds; ++i) {
            const Created created = create(check_own_name, {i, as_arg(&wrong)},
                                           std::to_string(i).c_str(), 100, 65536, "a description");
            EXPECT_EQ(created.code, 0U);
            newest = created.task_no;
            if (first != 0 && i % 2 == 0)
                vos_delete_task(created.task_no);
        }
        --creating;
    };
    std::thread creator(create_all, 0);
    std::thread other_creator(create_all, rounds);
    while (creating > 0) {
        for (char& character : g_p_task_cb[2].desc)
            std::atomic_ref(character).load();
        vos_delete_task(newest);
    }
    creator.join();
    other_creator.join();
    EXPECT_TRUE(only_these_threads(1));
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(m_task_dyn_info[1], all + 1 + 2 * rounds);
    EXPECT_EQ(m_task_dyn_info[0], 1U);
    EXPECT_EQ(vos_delete_task(1), 0U);
}

// As a library's constructor does it in the dynamic linker, whose lock a cancellation may need.
TEST_F(VosTask, ACancellationHoldsUpNobody) {
    before_cancel = [] {
        std::thread([] {
            EXPECT_EQ(create(end_at_once).code, 0U);
            EXPECT_TRUE(only_these_threads(2)); // this one and the one to be cancelled
        }).join();
    };
    Event began;
    for (const bool as_task : {true, false}) {
        ASSERT_EQ(create(sleep_for_ever, {as_arg(&began)}), (Created{0, 1}));
        ASSERT_TRUE(began.wait(as_task ? 1 : 2));
        EXPECT_EQ(as_task ? vos_delete_task(1) : osal_delete_task(vos_get_sys_task_id(1)), 0U);
        EXPECT_TRUE(only_these_threads(0));
    }
    before_cancel = nullptr;
    // A thread that ends by other means keeps its number.
    for (const uint32_t code : {VOS_TASK_NOT_CANCELLED, VOS_TASK_BAD_NUMBER})
        EXPECT_EQ(vos_delete_task(1), code);
    EXPECT_EQ(vos_delete_task(VOS_TASK_MAX + 1), VOS_TASK_BAD_NUMBER);
}

// Also while its number is being deleted.
TEST_F(VosTask, AnotherThreadIsNotTheTaskWhoseIdentifierItHas) {
    const VOS_TASK_ENTRY leave = [](auto...) { pthread_exit(nullptr); };
    for (int i = 0; i < support::rounds(500); ++i) {
        EXPECT_EQ(create(leave, {}, "task", 0, uint64_t{8} << 20), (Created{0, 1}));
        EXPECT_TRUE(only_these_threads(0));
        std::atomic<int> looks = 0;
        std::jthread stranger([&](const std::stop_token& is_over) {
            for (; !is_over.stop_requested(); ++looks)
                EXPECT_EQ(vos_get_current_task_id(), VOS_TASK_NONE);
        });
        while (looks < 100)
            std::this_thread::yield();
        EXPECT_EQ(vos_delete_task(1), VOS_TASK_NOT_CANCELLED);
    }
}

void look_up_all(int /*signal*/) {
    vos_get_current_pid();
    vos_get_sys_task_id(1);
    vos_check_task_idvalid(1);
    osal_delete_task(0);
}

TEST_F(VosTask, ASignalHandlerMayLookUp) {
    std::signal(SIGUSR1, look_up_all);
    std::atomic<bool> is_over = false;
    std::thread interrupted([&] {
        while (!is_over) {
            create(end_at_once);
            look_up_all(0);
        }
    });
    for (int i = 0; i < support::rounds(20000); ++i)
        pthread_kill(interrupted.native_handle(), SIGUSR1);
    is_over = true;
    interrupted.join();
    std::signal(SIGUSR1, SIG_DFL);
}

// The last round of destructors, too, finds a thread that is known.
TEST_F(VosTask, AThreadMayUseTheLayerInItsDestructors) {
    static pthread_key_t key;
    pthread_key_create(&key, [](void* again) {
        pthread_setspecific(key, again);
        osal_get_self_id();
    });
    ASSERT_EQ(create(sleep_for_ever), (Created{0, 1}));
    for (int i = 0; i < 3; ++i) {
        const VOS_TASK_ENTRY entry = [](auto...) { pthread_setspecific(key, &key); };
        EXPECT_EQ(create(entry, {}, "task", 0, uint64_t{64} << 20), (Created{0, 2}));
        EXPECT_TRUE(only_these_threads(1));
    }
    EXPECT_EQ(vos_delete_task(1), 0U);
    pthread_key_delete(key);
}

// One sanitizer has no threads in such a child, the other's memory may be locked there for good.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)

// What is wrong in a child of a task: the number of the line, or 0.
int look_as_child(uint32_t own) {
    alarm(20);
    if (vos_get_current_task_id() != own || m_task_dyn_info[0] != 1)
        return __LINE__;
    for (uint32_t task_no = 1; task_no <= 3; ++task_no)
        if (vos_check_task_idvalid(task_no) != (task_no == own))
            return __LINE__;
    for (int i = 0; i < 50; ++i) {
        const Created created = create(i % 2 == 0 ? sleep_for_ever : end_at_once);
        if (created.code != 0 || (i % 2 == 0 && vos_delete_task(created.task_no) != 0))
            return __LINE__;
    }
    return support::eventually([] { return load(m_task_dyn_info[0]) == 1; }) ? 0 : __LINE__;
}

// From before the library was loaded: these handlers of fork(2) run while the layer is held, and
// specific data under the library's keys needs memory.
[[gnu::section(".preinit_array"), gnu::used]] void (*const register_handlers)() = [] {
    for (pthread_key_t key = 0; key < 40;)
        pthread_key_create(&key, nullptr);
    const auto use_layer = [] { osal_delete_task(0); };
    pthread_atfork(use_layer, use_layer, use_layer);
};

TEST_F(VosTask, AChildHasTheTaskThatForkedAlone) {
    const VOS_TASK_ENTRY fork_and_look = [](uint64_t result, uint64_t, uint64_t, uint64_t) {
        const uint32_t own = vos_get_current_task_id();
        int status = 0;
        const pid_t child = fork();
        if (child == 0)
            _exit(look_as_child(own) % 256);
        waitpid(child, &status, 0);
        *std::bit_cast<std::atomic<int>*>(result) = status;
    };
    ASSERT_EQ(create(sleep_for_ever), (Created{0, 1}));
    for (int i = 0; i < support::rounds(50); ++i) {
        std::atomic<int> status = -1;
        EXPECT_EQ(create(fork_and_look, {as_arg(&status)}), (Created{0, 2}));
        for (int j = 0; j < 20; ++j) // while it forks
            create(end_at_once);
        EXPECT_TRUE(only_these_threads(1));
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(vos_delete_task(1), 0U);
}

#endif

TEST_F(VosTask, AThreadWithoutATaskEnds) {
    uint64_t tid = 0;
    EXPECT_EQ(osal_create_task("none", vos_task_entry, 0, 0, 0, 0x10000 | 2000, &tid, &tid), 0);
    EXPECT_TRUE(only_these_threads(0));
    EXPECT_EQ(support::logged('E', ":pfn_local_task_entry is null ptr funtion!\r\n"), 1);
    pretended_id = OSAL_NO_THREAD; // what every free block has
    EXPECT_EQ(vos_get_current_task_id(), VOS_TASK_NONE);
    EXPECT_EQ(vos_get_current_pid(), VOS_TASK_NONE);
    EXPECT_EQ(vos_get_sys_task_id(0), VOS_TASK_NONE);
    pretended_id = 0;
}

TEST_F(VosTask, ABlockThatCannotBeClearedIsNotUsedAgain) {
    Event began; // before it has, it has something to log itself
    ASSERT_EQ(create(sleep_for_ever, {as_arg(&began)}), (Created{0, 1}));
    ASSERT_TRUE(began.wait());
    const Fault not_cleared(Call::memset_s, 1);
    EXPECT_EQ(vos_delete_task(1), 0U);
    EXPECT_EQ(support::logged('E', "", "free_task_cb"), 1);
    EXPECT_EQ(search_free_tcb(), 2U);
    free_task_cb(1);
}

uint64_t create_thread(uint64_t priority = 0, uint64_t stack_size = 65536) {
    uint64_t tids[2] = {7, 7};
    EXPECT_EQ(osal_create_task("one", osal_end, priority, 0, stack_size, 0, &tids[0], &tids[1]), 0);
    EXPECT_EQ(tids[0], tids[1]);
    return tids[0];
}

TEST(OsalTask, APriorityBecomesAttributes) {
    for (const auto& [priority, value] :
         {std::pair{0U, 1}, {25U, 10}, {128U, 50}, {254U, 98}, {255U, 99}}) {
        for (const bool preempts : {false, true}) {
            pthread_attr_t attr;
            const auto set = preempts ? set_thread_attr_by_prio_preempt : set_thread_attr_by_prio;
            EXPECT_EQ(set(priority, &attr), 0U);
            int policy = 0, detached = 0;
            sched_param param{};
            pthread_attr_getschedpolicy(&attr, &policy);
            pthread_attr_getdetachstate(&attr, &detached);
            pthread_attr_getschedparam(&attr, &param);
            EXPECT_EQ(policy, preempts ? SCHED_RR : SCHED_OTHER);
            EXPECT_EQ(detached, PTHREAD_CREATE_DETACHED);
            EXPECT_EQ(param.sched_priority, preempts ? value : 0);
            EXPECT_EQ(set(priority, nullptr), 1U);
            pthread_attr_destroy(&attr);
        }
    }
    EXPECT_NE(support::log_lines().back().text.find("] lib/vos/ipmi_osal_task.cpp::"),
              std::string::npos);
}

TEST(OsalTask, TheFateOfAnEndedThreadIsToldByErrno) {
    const uint64_t ended = create_thread(255);
    ASSERT_TRUE(only_these_threads(0));
    for (const uint64_t gone : {ended, uint64_t{OSAL_NO_THREAD}, uint64_t{0}}) {
        for (const auto& [number, code] : {std::pair{ESRCH, 1U}, {EINTR, 6U}}) {
            errno = number;
            EXPECT_EQ(osal_delete_task(gone), code);
            EXPECT_EQ(errno, number);
        }
    }
    // Some have not begun, some have ended, and some have the identifier of an ended one.
    for (int i = 0; i < support::rounds(1000); ++i)
        osal_delete_task(create_thread());
    EXPECT_TRUE(only_these_threads(0));
    // A thread of other means can be deleted, too.
    create_thread(0, 0); // whose identifier the C library will use again
    ASSERT_TRUE(only_these_threads(0));
    Event began;
    std::thread other([&] {
        const size_t memory = mallinfo2().uordblks; // for a handler, no more is allocated
        osal_get_self_id();
        EXPECT_EQ(mallinfo2().uordblks, memory);
        sleep_for_ever(as_arg(&began), 0, 0, 0);
    });
    ASSERT_TRUE(began.wait());
    EXPECT_EQ(osal_delete_task(other.native_handle()), 0U);
    other.join();
}

// With identifiers that are each seen once, more than there is room for.
TEST(ThreadTable, ForgetsWhoEndedFirst) {
    constexpr pthread_t room = dm::ThreadTable::kEntries;
    static dm::ThreadTable table;
    table.enter(1, dm::ThreadState::live, false);
    for (pthread_t id = 2; id <= 3 * room; ++id)
        table.end(*table.enter(id, dm::ThreadState::starting, true));
    EXPECT_EQ(table.find(2 * room + 1), nullptr);
    for (pthread_t id = 2 * room + 2; id <= 3 * room; ++id) {
        ASSERT_EQ(table.find(id)->state, dm::ThreadState::ended);
        table.enter(id, dm::ThreadState::live, false); // again
    }
    EXPECT_FALSE(table.is_incomplete());
    EXPECT_EQ(table.enter(2, dm::ThreadState::live, false), nullptr);
    EXPECT_TRUE(table.is_incomplete());
    table.end_all_but(1);
    EXPECT_TRUE(table.find(3 * room)->is_gone());
    EXPECT_FALSE(table.find(1)->is_gone());
}

} // namespace

extern "C" int pthread_cancel(pthread_t thread) {
    if (before_cancel)
        before_cancel();
    return REAL(pthread_cancel)(thread);
}

extern "C" uint64_t osal_get_self_id() {
    return pretended_id != 0 ? pretended_id : REAL(osal_get_self_id)();
}
