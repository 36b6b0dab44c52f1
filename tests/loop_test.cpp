#include "dm_loop.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <thread>
#include <vector>

namespace {

using support::Context;
using support::Event;
using support::MsgFunction;

class Loop : public testing::Test {
protected:
    int receive(const SELF_MSG_ST& frame, size_t size, int16_t events = POLLIN) {
        return support::receive(intf_, {reinterpret_cast<const char*>(&frame), size}, &msg_,
                                events);
    }

    Context context_;
    DM_INTF_ST* intf_ = context_.selfloop();
    DM_ADDR_ST addr_{};
    char buffer_[DM_MAX_DATA_LEN]{};
    DM_MSG_ST msg_{0, 0, 0, 0, &addr_, sizeof(addr_), 0, {DM_MAX_DATA_LEN, buffer_}};
};

TEST_F(Loop, CarriesTheLargestMessage) {
    const std::string text = std::string(DM_MAX_DATA_LEN - 1, 'x') + 'y';
    Event event;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        EXPECT_EQ(support::text_of(msg), text);
        EXPECT_EQ(msg->addr_len, 6U);
        EXPECT_EQ(msg->addr->kind, 98U);
        EXPECT_EQ(msg->src_type, 1);
        event.set();
    };
    context_.on_request(handler);
    addr_.kind = 98;
    EXPECT_EQ(support::send(intf_, text, nullptr, addr_), 0);
    EXPECT_TRUE(event.wait());
    DM_DATA_ST too_long{DM_MAX_DATA_LEN + 1, buffer_};
    EXPECT_EQ(intf_->send_msg_ex(intf_, 0, &addr_, 40, &too_long, 1, 2, 7), 22);
    EXPECT_EQ(support::logged('E', "msg->data_len too long.msg->data_len=4097\n"), 1);
    DM_DATA_ST data{1, buffer_};
    const int wfd = std::exchange(intf_->wfd, -1);
    EXPECT_EQ(intf_->send_msg(intf_, 0, &addr_, 40, &data, 7), EBADF) << "the record's own is used";
    intf_->wfd = wfd;
}

TEST_F(Loop, RefusesMalformedFrames) {
    SELF_MSG_ST frame{};
    frame.type = 1;
    frame.data_len = 5;
    std::memcpy(frame.data, "hello", 5);
    EXPECT_EQ(receive(frame, 65, POLLHUP), 0) << "not readable: nothing is touched";
    EXPECT_EQ(msg_.type, 0U);
    EXPECT_EQ(receive(frame, 59), -1);
    EXPECT_EQ(receive(frame, 64), -1);
    EXPECT_EQ(support::logged('W', "Drv_check:tmp->data_len == ret\n", "__selfloop_recv"), 1);
    ASSERT_EQ(receive(frame, 65), 0);
    EXPECT_EQ(support::text_of(&msg_), "hello");
    EXPECT_EQ(msg_.addr_len, 6U);
    msg_.data.data_len = 4;
    EXPECT_EQ(receive(frame, 65), 0);
    EXPECT_EQ(msg_.data.data_len, 4) << "a payload that does not fit is dropped";
    frame.data_len = 4097;
    EXPECT_EQ(receive(frame, 65), -1);
    frame.data_len = 0;
    support::skip_log_interval();
    EXPECT_EQ(receive(frame, 60), -1);
    EXPECT_EQ(support::logged('E', "msg->data_len too long=0\r\n", "__selfloop_recv"), 1);
}

TEST_F(Loop, ChecksItsArguments) {
    EXPECT_EQ(selfloop_init(nullptr, nullptr, nullptr, nullptr, 0), 22);
    const std::string name(40, 'n');
    for (const auto& [kind, status] : {std::pair(98U, 22), {97U, 0}}) {
        addr_ = {kind, 1, {}, 0, {}};
        EXPECT_EQ(selfloop_init(&intf_, context_.get(), &addr_, name.c_str(), 0), status);
    }
    EXPECT_EQ(intf_->name, std::string(31, 'n'));
}

// Several threads fill the pipe while the poll thread is held up. Large frames are taken in part:
// every message that was accepted arrives whole and once.
TEST_F(Loop, FullPipeCutsNoFrame) {
    constexpr int kThreads = 4, kMessages = 1000;
    std::map<std::string, int> arrived, sent;
    Event received;
    // The handler and the senders take turns: it is held whenever the pipe is not full.
    std::atomic<int> refused = 0;
    std::atomic<int> running = kThreads;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        const int seen = refused;
        support::eventually([&] { return refused > seen || running == 0; });
        ++arrived[support::text_of(msg)];
        received.set();
    };
    context_.on_request(handler);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        const std::string text(DM_MAX_DATA_LEN, static_cast<char>('a' + t));
        sent[text] = kMessages;
        threads.emplace_back([&, text] {
            DM_ADDR_ST addr{};
            DM_DATA_ST data{DM_MAX_DATA_LEN, const_cast<char*>(text.data())};
            for (int i = 0; i < kMessages; ++i)
                EXPECT_TRUE(support::eventually([&] {
                    const int status = intf_->send_msg(intf_, DM_MSG_REQ, &addr, 40, &data, 1);
                    refused += status == EAGAIN ? 1 : 0;
                    return status == 0;
                }));
            --running;
        });
    }
    threads.clear();
    EXPECT_TRUE(received.wait(kThreads * kMessages));
    EXPECT_GT(refused, 0) << "the pipe was never full";
    EXPECT_EQ(arrived, sent);
}

// A pipe that takes a part of the header, or just the header.
TEST_F(Loop, PartTakenGoesOutAheadOfTheNextFrame) {
    std::vector<std::string> seen;
    Event event;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        seen.push_back(support::text_of(msg));
        event.set();
    };
    context_.on_request(handler);
    const int wfd = intf_->wfd;
    std::atomic<uint32_t> taken = 0;
    std::atomic<bool> cancel = true;
    support::on_write_file = [&](int fd, const void* buffer, uint32_t size) -> int64_t {
        const uint32_t part = fd == wfd ? taken.exchange(0) : 0;
        const int64_t written = write(fd, buffer, part != 0 ? part : size);
        if (part != 0 && cancel.exchange(false)) {
            pthread_cancel(pthread_self());
            pthread_testcancel();
        }
        return written;
    };
    intf_->set_retry(intf_, -1, 0);
    taken = 30;
    // A sender that is cancelled in the write leaves a whole frame, too.
    std::thread([&] { support::send(intf_, "first"); }).join();
    EXPECT_EQ(support::send(intf_, "second"), 0);
    EXPECT_TRUE(event.wait(2));
    // No other frame pushes the data: the reader itself has to.
    taken = sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN;
    EXPECT_EQ(support::send(intf_, "third"), 0);
    EXPECT_TRUE(event.wait(3));
    support::on_write_file = nullptr;
    EXPECT_EQ(seen, (std::vector<std::string>{"first", "second", "third"}));
}

// The poll thread, which preempts the writer that woke it where it runs in real time, answers while
// that one is still in its write.
TEST_F(Loop, AnswersWhileTheRequestIsStillBeingWritten) {
    Event answered;
    MsgFunction on_answer = [&](DM_INTF_ST*, DM_MSG_ST*) { answered.set(); };
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        support::answer(intf, msg, "at once");
    };
    context_.on_request(handler);
    intf_->set_retry(intf_, -1, 0);
    support::on_write_file = [&, writer = pthread_self()](int fd, const void* buffer,
                                                          uint32_t size) -> int64_t {
        const int64_t written = write(fd, buffer, size);
        const bool is_request = pthread_equal(pthread_self(), writer) != 0;
        EXPECT_TRUE(!is_request || answered.wait());
        return written;
    };
    EXPECT_EQ(support::send(intf_, "request", &on_answer), 0);
    support::on_write_file = nullptr;
}

// Writers of frames that pass one another leave room for that of a frame that has to go alone.
TEST_F(Loop, LargeFrameHasItsTurn) {
    std::atomic<bool> ends = false;
    const auto send = [&](uint16_t size) {
        DM_DATA_ST data{size, buffer_};
        DM_ADDR_ST addr{};
        intf_->send_msg(intf_, DM_MSG_RSP, &addr, 40, &data, 1);
    };
    std::vector<std::jthread> writers;
    for (int i = 0; i < 4; ++i)
        writers.emplace_back([&] {
            while (!ends)
                send(8);
        });
    Event sent;
    std::jthread large([&] {
        for (int i = 0; i < 20; ++i, sent.set())
            send(DM_MAX_DATA_LEN);
    });
    EXPECT_TRUE(sent.wait(20));
    ends = true;
}

// Of messages that wait behind one another several are taken at once, unless they take long; each
// interface has its turn.
TEST_F(Loop, MessagesInARowAreFair) {
    support::Transport other;
    std::atomic<int> in_a_row = 0, most = 0;
    std::atomic<bool> is_slow = false;
    Event turns, handled;
    other.recv = [&](DM_INTF_ST*, DM_MSG_ST*) {
        most = std::max(most.load(), in_a_row.exchange(0));
        turns.set();
        return -1;
    };
    const auto tick = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        return std::pair(now.tv_sec, now.tv_nsec);
    };
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST*) {
        const auto begin = tick();
        ++in_a_row;
        support::send(intf, "another");
        while (is_slow && tick() == begin) {
        }
        handled.set();
    };
    intf_->set_retry(intf_, -1, 0);
    context_.on_request(handler);
    DM_INTF_ST* others = other.add(context_, "other");
    other.wake();
    EXPECT_TRUE(turns.wait());
    EXPECT_EQ(support::send(intf_, "one"), 0);
    EXPECT_TRUE(handled.wait(1000) && turns.wait(turns.count() + 1));
    EXPECT_GT(most, 1);
    EXPECT_LE(most, 16);
    is_slow = true;
    EXPECT_TRUE(turns.wait(turns.count() + 2));
    most = 0;
    EXPECT_TRUE(handled.wait(handled.count() + 10) && turns.wait(turns.count() + 1));
    EXPECT_EQ(most, 1);
    is_slow = false;
    EXPECT_EQ(dm_intf_deregister(intf_), 0);
    const int count = handled.count();
    EXPECT_TRUE(turns.wait(turns.count() + 2));
    EXPECT_EQ(handled.count(), count);
    EXPECT_EQ(dm_intf_deregister(others), 0);
}

} // namespace
