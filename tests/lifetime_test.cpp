// What may go while it is in use: contexts, interfaces and requests. Meant for the sanitizers.
#include "dm_msg_intf.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

using support::Context;
using support::Event;
using support::MsgFunction;
using support::Transport;

TEST(Lifetime, ContextDestroyedUnderALongHandler) {
    Transport transport;
    Event entered;
    Event destroyed;
    Event done;
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        entered.set();
        EXPECT_TRUE(destroyed.wait());
        EXPECT_EQ(transport.closed, 0) << "the lists are not freed under the handler";
        EXPECT_STREQ(intf->name, "selfloop");
        EXPECT_EQ(support::answer(intf, msg, "late"), 0);
        done.set();
    };
    MsgFunction never = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL() << "the context is destroyed"; };
    {
        Context context;
        context.on_request(handler);
        transport.add(context, "fake");
        ASSERT_EQ(support::send(context.selfloop(), "x", &never), 0);
        ASSERT_TRUE(entered.wait());
    }
    destroyed.set();
    ASSERT_TRUE(done.wait());
    EXPECT_TRUE(support::eventually([&] { return transport.closed == 1; }));
}

TEST(Lifetime, ContextDestroyedByItsOwnHandler) {
    Transport ready;
    Transport timed;
    int handled = 0;
    Event returned;
    Context context;
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST* msg) {
        ++handled;
        // Both a descriptor and a timer are due in the same pass.
        ready.wake();
        dm_destroy(context.release());
        EXPECT_EQ(support::answer(intf, msg, "still there"), 0);
        returned.set();
    };
    ready.recv = [&](DM_INTF_ST*, DM_MSG_ST*) {
        EXPECT_EQ(returned.count(), 0) << "no callback runs afterwards";
        return -1;
    };
    timed.retry_cnt = 0;
    timed.timeout = [&] { EXPECT_EQ(returned.count(), 0); };
    context.on_request(handler);
    ready.add(context, "ready");
    ASSERT_EQ(support::send(timed.add(context, "timed"), "x"), 0);
    ASSERT_EQ(support::send(context.selfloop(), "x"), 0);
    ASSERT_TRUE(returned.wait());
    EXPECT_TRUE(support::eventually([&] { return ready.closed == 1 && timed.closed == 1; }));
    EXPECT_EQ(handled, 1);
}

TEST(Lifetime, DeregistrationWaitsForTheHandler) {
    Transport transport;
    Context context;
    Event entered;
    Event go;
    std::atomic<bool> left = false;
    transport.recv = [](DM_INTF_ST*, DM_MSG_ST*) { return 0; };
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST*) {
        entered.set();
        EXPECT_TRUE(go.wait());
        EXPECT_STREQ(intf->name, "fake");
        left = true;
    };
    context.on_request(handler);
    DM_INTF_ST* intf = transport.add(context, "fake");
    transport.wake();
    ASSERT_TRUE(entered.wait());
    std::thread releaser([&] {
        // The call is under way when the name is no longer found.
        EXPECT_TRUE(support::eventually(
            [&] { return list_is_empty(context.get()->poller->timer_list) == 1; }));
        go.set();
    });
    EXPECT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_TRUE(left);
    EXPECT_EQ(transport.closed, 1);
    releaser.join();
}

TEST(Lifetime, DeregistrationWaitsForNoOtherInterface) {
    Transport transport;
    Context context;
    Event entered;
    Event go;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST*) {
        entered.set();
        EXPECT_TRUE(go.wait());
    };
    context.on_request(handler);
    DM_INTF_ST* intf = transport.add(context, "fake");
    ASSERT_EQ(support::send(context.selfloop(), "x"), 0);
    ASSERT_TRUE(entered.wait());
    EXPECT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_EQ(transport.closed, 1);
    go.set();
}

TEST(Lifetime, InterfaceDeregisteredByItsOwnHandlers) {
    Transport requested;
    Transport timed;
    Context context;
    static std::atomic<DM_INTF_ST*> victim;
    static Event removed;
    requested.recv = [](DM_INTF_ST*, DM_MSG_ST*) { return 0; };
    requested.send = [](DM_INTF_ST*, uint32_t, uint64_t) {
        ADD_FAILURE() << "the interface is gone";
        return 0;
    };
    // Through the default handler, behind which the framework would answer.
    support::Fault dropped(support::Call::malloc, 2);
    ASSERT_EQ(dm_cmd_register(
                  context.get(), nullptr,
                  [](DM_DATA_ST*, DM_DATA_ST*) {
                      EXPECT_EQ(dm_intf_deregister(victim), 0);
                      removed.set();
                      return 0;
                  },
                  nullptr, 1),
              0);
    ASSERT_TRUE(dropped.fired());
    victim = requested.add(context, "requested");
    requested.wake();
    ASSERT_TRUE(removed.wait());
    EXPECT_EQ(requested.closed, 1);

    timed.retry_cnt = 0;
    timed.timeout = [] {
        EXPECT_EQ(dm_intf_deregister(victim), 0);
        removed.set();
    };
    victim = timed.add(context, "timed");
    MsgFunction never = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL() << "its requests end quietly"; };
    ASSERT_EQ(support::send(victim, "x", &never), 0);
    ASSERT_TRUE(removed.wait(2));
    EXPECT_TRUE(support::eventually([&] { return timed.closed == 1; }));
    EXPECT_TRUE(support::eventually([&] { return list_size(context.get()->pending_list) == 0; }));
}

TEST(Lifetime, RequestsOfADeregisteredInterfaceEndQuietly) {
    // With the long time-out none may time out any more, with the short one some just do.
    for (const uint32_t timeout_ms : {100000U, 1U}) {
        const bool quiet = timeout_ms != 1;
        Transport transport;
        transport.retry_cnt = 0;
        transport.timeout_ms = timeout_ms;
        transport.timeout = [quiet] { EXPECT_FALSE(quiet); };
        MsgFunction on_response = [quiet](DM_INTF_ST*, DM_MSG_ST*) { EXPECT_FALSE(quiet); };
        const Context context;
        for (int round = 0; round < 25; ++round) {
            DM_INTF_ST* intf = transport.add(context, "fake");
            for (int i = 0; i < 20; ++i)
                ASSERT_EQ(support::send(intf, "x", &on_response), 0);
            ASSERT_EQ(dm_intf_deregister(intf), 0);
            // The poll thread may still stand on a node, looking for another response.
            EXPECT_TRUE(
                support::eventually([&] { return list_size(context.get()->pending_list) == 0; }));
        }
        EXPECT_EQ(transport.closed, 25);
    }
}

// The response comes, and the next request is made, while the first send has not returned; that
// then fails and must not take what is at the same address by now.
TEST(Lifetime, RequestAnsweredWhileItsSendFails) {
    Transport transport;
    Context context;
    std::atomic<uint64_t> identity = 0;
    Event first;
    Event second;
    transport.recv = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        msg->type = DM_MSG_RSP;
        msg->req_id = identity;
        return 0;
    };
    MsgFunction on_second = [&](DM_INTF_ST*, DM_MSG_ST*) { second.set(); };
    MsgFunction on_first = [&](DM_INTF_ST* intf, DM_MSG_ST*) {
        EXPECT_EQ(support::send(intf, "second", &on_second), 0);
        first.set();
    };
    std::atomic<bool> failing = true;
    transport.send = [&](DM_INTF_ST*, uint32_t, uint64_t req_id) {
        identity = req_id;
        if (!failing.exchange(false))
            return 0;
        transport.wake();
        EXPECT_TRUE(first.wait());
        EXPECT_TRUE(second.wait());
        return 1;
    };
    DM_INTF_ST* intf = transport.add(context, "fake");
    EXPECT_EQ(support::send(intf, "first", &on_first), DM_ERR_SEND);
    EXPECT_EQ(first.count(), 1);
    EXPECT_TRUE(support::eventually([&] { return list_size(context.get()->pending_list) == 0; }));
}

// A send that fails while the time-out of the same request runs.
TEST(Lifetime, RequestTimesOutWhileItsSendFails) {
    Transport transport;
    transport.retry_cnt = 0;
    transport.timeout_ms = 1;
    Event timed_out;
    Event send_over;
    transport.timeout = [&] {
        timed_out.set();
        EXPECT_TRUE(send_over.wait());
    };
    transport.send = [&](DM_INTF_ST*, uint32_t, uint64_t) {
        EXPECT_TRUE(timed_out.wait());
        return 1;
    };
    MsgFunction never = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL(); };
    const Context context;
    EXPECT_EQ(support::send(transport.add(context, "fake"), "x", &never), DM_ERR_SEND);
    send_over.set();
    EXPECT_TRUE(support::eventually([&] { return list_size(context.get()->pending_list) == 0; }));
}

// Destroyed by another thread before the poll thread has begun: nobody waits for it.
TEST(Lifetime, ContextWhoseThreadNeverBegan) {
    const auto begin = support::hold_next_task();
    Transport transport;
    {
        const Context context;
        transport.add(context, "fake");
    }
    EXPECT_EQ(transport.closed, 1);
    Event pipe_closed;
    support::on_close_file = [&](int) { pipe_closed.set(); };
    begin();
    EXPECT_TRUE(pipe_closed.wait(2));
    support::on_close_file = nullptr;
}

} // namespace
