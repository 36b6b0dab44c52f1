#include "ipmi_v_queue.h"

#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

// Whether a block is lost is for the address sanitizer to say.
namespace {

using support::Call;
using Errors = std::vector<int>;

// What the kernel's calls of this thread do, and have done.
struct Kernel {
    Errors errors;             // the next calls fail with these, 0 lets one pass
    bool cancel_after = false; // the thread is cancelled when the kernel has done its part
    int calls = 0;
    useconds_t slept = 0; // counted, not slept
    int last_made = -1;
};
thread_local Kernel kernel;

bool refuses() {
    ++kernel.calls;
    errno = kernel.errors.empty() ? 0 : kernel.errors.front();
    if (!kernel.errors.empty())
        kernel.errors.erase(kernel.errors.begin());
    return errno != 0;
}

template<class Result>
Result may_cancel(Result result) {
    if (kernel.cancel_after)
        pthread_cancel(pthread_self());
    pthread_testcancel();
    return result;
}

class Queue : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(vos_private_queue_create("commands", 16, &qid_, 9, 1), 0U);
        id_ = static_cast<uint64_t>(qid_);
        kernel = {};
    }
    void TearDown() override { EXPECT_EQ(vos_queue_delete(id_), 0); }

    uint32_t write(int32_t data = 0) { return vos_queue_asy_write(id_, &data, 4); }
    uint32_t read() { return vos_queue_asy_read(id_, &got_, 4); }
    uint32_t read(int timeout_ms) {
        kernel.calls = 0;
        kernel.slept = 0;
        return vos_queue_read(id_, timeout_ms, &got_, 4);
    }

    int qid_ = -1;
    uint64_t id_ = 0;
    int32_t got_ = -1;
};

// The line, in the operation's name.
template<class Step>
void expect_error_line(std::string_view operation, std::string_view text, Step step) {
    support::clear_log();
    step();
    EXPECT_EQ(support::logged('E', text, operation), 1) << text;
}

TEST_F(Queue, HoldsDepthMessagesAndCarriesItsName) {
    msqid_ds ds{};
    ASSERT_EQ(msgctl(qid_, IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.msg_qbytes, 128U);
    EXPECT_EQ(ds.msg_perm.mode & 0777, 0600);
    EXPECT_EQ(std::memcmp(&ds.msg_perm.uid, "comm", 4), 0);
    EXPECT_EQ(std::memcmp(&ds.msg_perm.gid, "and", 4), 0) << "7 characters and a zero";
    for (int i = 0; i < 16; ++i)
        ASSERT_EQ(write(i), 0U);
    EXPECT_EQ(write(), VOS_QUEUE_REFUSED);
    EXPECT_EQ(errno, EAGAIN);
    while (read() == 4U) {
    }
    EXPECT_EQ(errno, ENOMSG);
}

TEST_F(Queue, FailedCreationRemovesTheQueueUnlessItsOwnerWasRefused) {
    const auto create = [&](const Errors& errors, std::string_view text) {
        kernel.errors = errors;
        kernel.last_made = -1;
        expect_error_line("vos_private_queue_create", text, [&] {
            EXPECT_EQ(vos_private_queue_create("q", 1, &got_, 10, 1), VOS_QUEUE_FAILED);
        });
        EXPECT_EQ(got_, -1);
        return vos_queue_delete(static_cast<uint64_t>(kernel.last_made));
    };
    EXPECT_EQ(vos_private_queue_create("q", 1, &got_, 11, 1), VOS_QUEUE_INVALID);
    EXPECT_EQ(create({ENOSPC}, "\r\ncreat queue error!! errno is 0x1c."), -1);
    EXPECT_EQ(create({0, EPERM}, "\r\nget queue stat error!! errno is 0x1."), -1);
    for (int nth : {1, 2}) {
        const support::Fault fault(Call::memcpy_s, nth);
        EXPECT_EQ(create({}, "memcpy_s error\n"), -1);
    }
    const support::Fault fault(Call::memset_s, 1);
    EXPECT_EQ(create({}, "memset_s error\n"), -1);
    EXPECT_EQ(create({0, 0, EPERM}, "\r\nset queue stat error!! errno is 0x1."), 0);
}

TEST_F(Queue, WriteRepeatsInterruptionsAndOnceAFullQueue) {
    for (const Errors& errors : {Errors{EINTR, EINTR, 0}, {EINTR, EAGAIN, EINTR, EINTR, 0}}) {
        kernel.errors = errors;
        EXPECT_EQ(write(), 0U);
        EXPECT_TRUE(kernel.errors.empty());
        EXPECT_EQ(read(), 4U);
    }
    for (const Errors& errors : {Errors{EAGAIN, EINTR, EAGAIN}, {EAGAIN, EIDRM}, {EACCES}}) {
        kernel.errors = errors;
        EXPECT_EQ(write(), VOS_QUEUE_REFUSED);
        EXPECT_EQ(errno, errors.back());
        EXPECT_TRUE(kernel.errors.empty());
    }
}

TEST_F(Queue, FailedCopiesAreNamed) {
    for (const auto& [call, text] : {std::pair{Call::malloc, "\r\ncan't alloc memory!\n"},
                                     {Call::memset_s, "memset_s fail: 77\n"},
                                     {Call::memcpy_s, "memcpy_s error\n"}}) {
        const support::Fault fault(call, 1);
        expect_error_line("vos_queue_asy_write", text,
                          [&] { EXPECT_EQ(write(), VOS_QUEUE_FAILED); });
    }
    for (const std::string operation : {"vos_queue_read", "vos_queue_asy_read"}) {
        write();
        const support::Fault fault(Call::memcpy_s, 1);
        expect_error_line(operation, "memcpy_s error\n", [&] {
            EXPECT_EQ(operation == "vos_queue_read" ? read(0) : read(), VOS_QUEUE_REFUSED);
        });
    }
}

TEST_F(Queue, TimedReadLooksEvery100MsAndWaitingReadRepeatsInterruptions) {
    EXPECT_EQ(read(250), VOS_QUEUE_TIMEOUT);
    EXPECT_EQ(kernel.calls, 2);
    EXPECT_EQ(kernel.slept, 200000U);
    write(7);
    EXPECT_EQ(read(99), VOS_QUEUE_TIMEOUT) << "not one look";
    EXPECT_EQ(vos_queue_read(id_, 0, nullptr, 1), VOS_QUEUE_REFUSED);
    kernel.errors = {EINTR, EIDRM}; // every error counts as an empty queue
    EXPECT_EQ(read(300), 4U);
    EXPECT_EQ(got_, 7);
    write();
    kernel.errors = {EINTR, EINTR};
    EXPECT_EQ(read(0), 4U);
    kernel.errors = {EIDRM};
    EXPECT_EQ(read(0), VOS_QUEUE_REFUSED);
    // A message of 3 bytes is nobody's here, and no pointer is made of it.
    ASSERT_EQ(msgsnd(qid_, "\1\0\0\0\0\0\0\0abc", 3, 0), 0);
    EXPECT_EQ(read(), 3U);
}

TEST_F(Queue, CancelledThreadsLeakNothing) {
    const auto run = [](auto step) {
        std::thread([=] {
            kernel.cancel_after = true;
            step();
        }).join();
    };
    write();
    run([&] { ADD_FAILURE() << "not cancelled: " << read(0); });
    EXPECT_EQ(read(), VOS_QUEUE_REFUSED) << "the message went with its reader";
    std::atomic<bool> written{false};
    run([&] { written = write() == 0; });
    EXPECT_TRUE(written) << "cancelled after the queue took the block";
    EXPECT_EQ(read(), 4U);
    const std::jthread writer([&] { write(1); }); // no race for the block, with a sanitizer
    EXPECT_EQ(read(0), 4U);
}

} // namespace

extern "C" {

int msgget(key_t key, int flags) noexcept {
    return kernel.last_made = refuses() ? -1 : REAL(msgget)(key, flags);
}
int msgctl(int qid, int command, msqid_ds* ds) noexcept {
    return refuses() ? -1 : REAL(msgctl)(qid, command, ds);
}
int msgsnd(int qid, const void* message, size_t size, int flags) {
    return may_cancel(refuses() ? -1 : REAL(msgsnd)(qid, message, size, flags));
}
ssize_t msgrcv(int qid, void* message, size_t size, long type, int flags) {
    return may_cancel(refuses() ? -1 : REAL(msgrcv)(qid, message, size, type, flags));
}
int usleep(useconds_t microseconds) {
    kernel.slept += microseconds;
    return 0;
}
}
