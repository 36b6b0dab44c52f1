// Requests: time-outs, re-sends and the matching of responses.
#include "dm_loop.h"
#include "dm_msg_intf.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <thread>

namespace {

using support::Context;
using support::Event;
using support::MsgFunction;
using support::Transport;

// An interface that sends nowhere and notes how often.
class Request : public testing::Test {
protected:
    void SetUp() override {
        transport_.send = [this](DM_INTF_ST*, uint32_t, uint64_t req_id) {
            req_id_ = req_id;
            ++sent_;
            return send_status_.load();
        };
        on_response_ = [this](DM_INTF_ST* intf, DM_MSG_ST* msg) {
            EXPECT_EQ(msg->type, DM_MSG_RSP);
            EXPECT_EQ(msg->req_id, req_id_);
            through_ = intf->name;
            text_ = support::text_of(msg);
            response_.set();
        };
    }

    DM_INTF_ST* add(int32_t retry_cnt, uint32_t timeout_ms) {
        transport_.retry_cnt = retry_cnt;
        transport_.timeout_ms = timeout_ms;
        return transport_.add(context_, "fake");
    }

    Transport transport_;
    Event response_;
    MsgFunction on_response_;
    std::string text_;
    std::string through_;
    std::atomic<int> sent_ = 0;
    std::atomic<int> send_status_ = 0;
    std::atomic<uint64_t> req_id_ = 0;
    Context context_;
};

// A request's identity is its address: as long as it may be answered late, no other request has it.
TEST_F(Request, LateAnswerIsForNoLaterRequest) {
    constexpr int rounds = 20;
    std::set<uint64_t> identities;
    DM_INTF_ST* intf = add(0, 1);
    for (int round = 1; round <= rounds; ++round) {
        EXPECT_EQ(support::send(intf, "anybody?", &on_response_), 0);
        identities.insert(req_id_);
        ASSERT_TRUE(response_.wait(round));
    }
    dm_intf_deregister(intf);
    intf = add(-1, 0);
    for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(support::send(intf, "anybody?", &on_response_), 0);
        identities.insert(req_id_);
        dm_intf_deregister(intf);
        intf = add(-1, 0);
    }
    EXPECT_EQ(identities.size(), 2U * rounds);
    // Nor one that may be answered twice.
    identities.clear();
    dm_intf_deregister(intf);
    transport_.recv = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        msg->type = DM_MSG_RSP;
        msg->req_id = req_id_;
        return 0;
    };
    transport_.wake();
    intf = add(-1, 0);
    for (int round = 1; round <= 256; ++round) {
        const int before = response_.count();
        EXPECT_EQ(support::send(intf, "anybody?", &on_response_), 0);
        identities.insert(req_id_);
        ASSERT_TRUE(response_.wait(before + 1));
    }
    EXPECT_EQ(identities.size(), 256U);
}

// The pipe refuses frames for another reason than that it is full, and nothing is read from it.
TEST_F(Request, TimeOutOutlivesAShortage) {
    DM_INTF_ST* intf = add(0, 1);
    std::atomic<int> refused = 0;
    support::on_write_file = [&](int fd, const void* buffer, uint32_t size) -> int64_t {
        if (size == 1 || ++refused > 3)
            return write(fd, buffer, size);
        errno = ENOMEM;
        return -1;
    };
    EXPECT_EQ(support::send(intf, "anybody?", &on_response_), 0);
    EXPECT_TRUE(response_.wait());
    dm_intf_deregister(intf);
    support::on_write_file = nullptr;
}

// Without a self-loop, a time-out that goes nowhere comes again with the last re-send's own timer.
TEST_F(Request, TimeOutWithoutASelfloopComesAgain) {
    int timeouts = 0;
    transport_.timeout = [&] {
        if (++timeouts == 1)
            dm_intf_deregister(context_.selfloop());
        else
            selfloop_init(nullptr, context_.get(), nullptr, nullptr, 0);
    };
    EXPECT_EQ(support::send(add(1, 10), "anybody?", &on_response_), 0);
    EXPECT_TRUE(response_.wait());
    EXPECT_EQ(timeouts, 2);
}

// An empty one is not read from the self-loop: nothing may wait for that.
TEST_F(Request, EmptyTimeOutsLeaveNoMemoryBehind) {
    DM_INTF_ST* intf = add(0, 0);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(support::send(intf, "", &on_response_), 0);
    EXPECT_TRUE(context_.pass());
    EXPECT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_TRUE(
        support::eventually([&] { return list_is_empty(context_.get()->pending_list) == 1; }));
    EXPECT_LT(mallinfo2().uordblks, before + size_t{600} * sizeof(SELF_MSG_ST));
}

// Real answers overtake time-outs that are in the self-loop's pipe already: those are for nobody,
// however many requests have ended since.
TEST_F(Request, TimeOutInThePipeIsForNoLaterRequest) {
    constexpr size_t count = 700, answered = 20;
    std::vector<uint64_t> asked;
    Event over;
    transport_.timeout = [this, left = count]() mutable {
        if (--left == 0)
            transport_.wake();
    };
    transport_.recv = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        msg->type = DM_MSG_RSP;
        if (asked.size() == count - answered) { // the others' time-outs are faster
            over.set();
            return -1;
        }
        msg->req_id = asked.back();
        asked.pop_back();
        return 0;
    };
    Transport silent;
    DM_INTF_ST* later = silent.add(context_, "silent");
    MsgFunction never = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL() << "nobody has answered that"; };
    on_response_ = [&](DM_INTF_ST*, DM_MSG_ST*) { response_.set(); };
    DM_INTF_ST* intf = add(0, 300);
    transport_.send = [&](DM_INTF_ST*, uint32_t, uint64_t req_id) {
        asked.push_back(req_id);
        return 0;
    };
    for (size_t i = 0; i < count; ++i)
        EXPECT_EQ(support::send(intf, "x", &on_response_), 0);
    for (size_t i = 1; i <= count; ++i) {
        ASSERT_TRUE(response_.wait(static_cast<int>(i)));
        EXPECT_EQ(support::send(later, "later", &never), 0);
    }
    EXPECT_TRUE(over.wait(static_cast<int>(count)));
    dm_intf_deregister(later);
    dm_intf_deregister(intf);
}

// More time-outs at a time than the self-loop takes: each is reported, once and in their order,
// also when their timers are due again before that.
TEST_F(Request, ManyTimeOutTogether) {
    constexpr int count = 1500;
    std::atomic<int> timeouts = 0;
    transport_.timeout = [&] { ++timeouts; };
    DM_INTF_ST* intf = add(1, 30);
    std::vector<uint64_t> sent;
    std::vector<uint64_t> answered;
    transport_.send = [&](DM_INTF_ST*, uint32_t, uint64_t req_id) {
        req_id_ = req_id;
        return 0;
    };
    on_response_ = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        if (answered.empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(60)); // two periods
        answered.push_back(msg->req_id);
        response_.set();
    };
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(support::send(intf, "x", &on_response_), 0);
        sent.push_back(req_id_);
    }
    ASSERT_TRUE(response_.wait(count));
    EXPECT_EQ(answered, sent);
    EXPECT_EQ(timeouts, count);
    EXPECT_GT(support::logged('E', "__selfloop_send: write fail.errno=11\n"), 0);
}

TEST_F(Request, IsSentOnceMoreThanItIsRetried) {
    for (const int retries : {0, 1, 3}) {
        sent_ = 0;
        int timeouts = 0;
        int sent_at_timeout = 0;
        transport_.timeout = [&] {
            ++timeouts;
            sent_at_timeout = sent_;
        };
        DM_INTF_ST* intf = add(retries, 20);
        EXPECT_EQ(support::send(intf, "anybody?", &on_response_), 0);
        const int before = response_.count();
        ASSERT_TRUE(response_.wait(before + 1));
        EXPECT_EQ(sent_, retries + 1);
        EXPECT_EQ(sent_at_timeout, retries + 1) << "the last re-send reports the time-out";
        EXPECT_EQ(timeouts, 1);
        EXPECT_EQ(text_, "too late");
        EXPECT_EQ(through_, "selfloop");
        EXPECT_EQ(dm_intf_deregister(intf), 0);
    }
}

TEST_F(Request, WithoutTimeoutHandlerIsAnsweredWithItsOwnData) {
    EXPECT_EQ(support::send(add(0, 1), "anybody?", &on_response_), 0);
    ASSERT_TRUE(response_.wait());
    EXPECT_EQ(text_, "anybody?");
}

TEST_F(Request, FailedResendEndsTheRetries) {
    int timeouts = 0;
    transport_.timeout = [&] { ++timeouts; };
    DM_INTF_ST* intf = add(5, 20);
    EXPECT_EQ(support::send(intf, "x", &on_response_), 0);
    send_status_ = 1;
    ASSERT_TRUE(response_.wait());
    EXPECT_EQ(sent_, 2);
    EXPECT_EQ(timeouts, 1);
    EXPECT_EQ(support::logged('I', "finish call intf->send_msg"), 1);
    EXPECT_EQ(support::send(intf, "x", &on_response_), DM_ERR_SEND);
    EXPECT_TRUE(
        support::eventually([&] { return list_is_empty(context_.get()->pending_list) == 1; }));
}

// The frames that come in as responses carry the identity that `req_id_` says.
TEST_F(Request, IgnoresResponsesToNothing) {
    Event received;
    std::atomic<uint64_t> identity = 0;
    transport_.recv = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        msg->type = DM_MSG_RSP;
        msg->req_id = identity;
        msg->data.data_len = 4;
        std::memcpy(msg->data.data, "real", 4);
        received.set();
        return 0;
    };
    DM_INTF_ST* intf = add(-1, 0);
    EXPECT_EQ(support::send(intf, "x", &on_response_), 0);
    transport_.wake();
    ASSERT_TRUE(received.wait(3));
    identity = 12345;
    ASSERT_TRUE(received.wait(received.count() + 3));
    EXPECT_EQ(response_.count(), 0);
    identity = req_id_.load();
    ASSERT_TRUE(response_.wait());
    EXPECT_EQ(text_, "real");
    ASSERT_TRUE(received.wait(received.count() + 3));
    EXPECT_EQ(response_.count(), 1) << "a second response finds nothing";
    EXPECT_EQ(dm_intf_deregister(intf), 0);
}

// Many are outstanding, and their answers come in no order; some never do.
TEST_F(Request, AnswersFindTheirRequestsInAnyOrder) {
    constexpr int kRequests = 1000, kAnswered = 900;
    std::vector<uint64_t> identities;
    transport_.send = [&](DM_INTF_ST*, uint32_t, uint64_t req_id) {
        identities.push_back(req_id);
        return 0;
    };
    std::vector<size_t> order(kRequests);
    std::iota(order.begin(), order.end(), 0);
    std::ranges::shuffle(order, std::mt19937(3));
    const size_t memory_before = mallinfo2().uordblks;
    Event sent, all;
    transport_.recv = [&, next = 0U](DM_INTF_ST*, DM_MSG_ST* msg) mutable {
        EXPECT_TRUE(sent.wait());
        if (next == kAnswered) {
            all.set();
            return -1;
        }
        msg->type = DM_MSG_RSP;
        msg->req_id = identities[order[next++]];
        return 0;
    };
    DM_INTF_ST* intf = add(0, 100000);
    std::vector<int> times(kRequests);
    std::vector<MsgFunction> on_answer(kRequests);
    for (size_t i = 0; i < kRequests; ++i) {
        on_answer[i] = [&times, i](DM_INTF_ST*, DM_MSG_ST*) { ++times[i]; };
        ASSERT_EQ(support::send(intf, "x", &on_answer[i]), 0);
    }
    sent.set();
    transport_.wake();
    ASSERT_TRUE(all.wait());
    EXPECT_EQ(list_size(context_.get()->pending_list), kRequests - kAnswered);
    EXPECT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_EQ(list_size(context_.get()->pending_list), 0U);
    EXPECT_TRUE(support::eventually([&] { // with the timers of the last ones
        return mallinfo2().uordblks < memory_before + size_t{600} * sizeof(SELF_MSG_ST);
    }));
    for (size_t i = 0; i < kRequests; ++i)
        EXPECT_EQ(times[order[i]], i < kAnswered ? 1 : 0);
}

// The response callback of a request that timed out sends the next request, whose timer is likely
// to get the memory of the one that fired. The first request's end must not take it.
TEST_F(Request, TimerThatReusesTheAddressFires) {
    Event second;
    MsgFunction on_second = [&](DM_INTF_ST*, DM_MSG_ST*) { second.set(); };
    DM_INTF_ST* intf = add(0, 1);
    MsgFunction on_first = [&](DM_INTF_ST*, DM_MSG_ST*) {
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(support::send(intf, "again", &on_second), 0);
    };
    EXPECT_EQ(support::send(intf, "first", &on_first), 0);
    EXPECT_TRUE(second.wait(8));
}

TEST_F(Request, FailuresOfThePendingRecordAreOneCode) {
    DM_INTF_ST* intf = add(0, 100000);
    for (const auto call :
         {support::Call::malloc, support::Call::memset_s, support::Call::memmove_s}) {
        std::vector<int> statuses;
        statuses.reserve(10);
        const int failures = support::fail_each(
            call, [&] { statuses.push_back(support::send(intf, "x", &on_response_)); });
        std::vector<int> expected(static_cast<size_t>(failures), DM_ERR_PENDING_ADD);
        EXPECT_GT(failures, 0);
        expected.push_back(0);
        EXPECT_EQ(statuses, expected);
    }
    EXPECT_EQ(list_size(context_.get()->pending_list), 3U) << "one that went well each";
    // The timers of the others go with the next pass, for which the poll thread must wake.
    EXPECT_EQ(support::send(context_.selfloop(), "wake"), 0);
    EXPECT_TRUE(
        support::eventually([&] { return list_size(context_.get()->poller->timer_list) <= 4; }));
}

} // namespace
