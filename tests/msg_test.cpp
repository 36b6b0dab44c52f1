// The context, the interface registry and the dispatch of received messages.
#include "dm_loop.h"
#include "dm_msg_intf.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using support::Call;
using support::Context;
using support::Event;
using support::MsgFunction;
using support::Transport;

TEST(Msg, ContextBeginsWithTheSelfloop) {
    const Context context;
    DM_INTF_ST* intf = dm_get_intf(context.get(), "selfloop", 9);
    ASSERT_NE(intf, nullptr);
    EXPECT_EQ(intf->dm_cb, context.get());
    EXPECT_EQ(dm_get_intf(context.get(), "selfloop", 32), intf);
    EXPECT_EQ(dm_get_intf(context.get(), "dm_udp", 7), nullptr);
    EXPECT_EQ(support::logged('E', ""), 0) << "not finding a name is a normal answer";
    EXPECT_EQ(dm_get_intf(context.get(), "selfloop", 33), nullptr);
    EXPECT_EQ(
        support::logged('E', "dm_get_intf input cb or name null ,name len 33 larger than 32\n"), 1);
    EXPECT_EQ(dm_get_intf(nullptr, "selfloop", 9), nullptr);
    EXPECT_EQ(dm_intf_register(context.get(), nullptr), -22);
    EXPECT_EQ(dm_intf_deregister(nullptr), -22);
    EXPECT_EQ(dm_cmd_deregister(nullptr), -22);
    EXPECT_EQ(dm_cmd_deregister(context.get()), 0);
    dm_destroy(nullptr);
}

TEST(Msg, RequestsGoToTheFirstHandlerOnly) {
    Context context;
    Event first;
    MsgFunction count = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        if (msg->type == DM_MSG_REQ)
            first.set();
    };
    MsgFunction never = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL(); };
    EXPECT_EQ(dm_cmd_register(context.get(), nullptr, nullptr, nullptr, 0), -22);
    EXPECT_EQ(support::logged('E', "dm_cmd_register input dm_cb null!\n"), 1);
    context.on_request(count);
    context.on_request(never);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(support::send(context.selfloop(), "hello"), 0);
    EXPECT_TRUE(first.wait(3));
}

TEST(Msg, DefaultHandlerAnswersWhileNothingIsRegistered) {
    Context context;
    MsgFunction none = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL(); };
    context.selfloop()->set_retry(context.selfloop(), -1, 0);
    EXPECT_EQ(support::send(context.selfloop(), "too early", &none), 0) << "there is none yet";
    ASSERT_TRUE(context.pass());
    {
        // A registration that cannot be listed is dropped, but its default handler stays.
        static char reply[] = "default";
        support::Fault fault(Call::malloc, 3);
        EXPECT_EQ(dm_cmd_register(
                      context.get(), nullptr,
                      [](DM_DATA_ST* request, DM_DATA_ST* response) {
                          EXPECT_EQ(response->data, request->data);
                          *response = {7, reply};
                          return 0;
                      },
                      "x", 1),
                  0);
        EXPECT_TRUE(fault.fired());
    }
    std::string text;
    Event answered;
    MsgFunction on_response = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        text = support::text_of(msg);
        answered.set();
    };
    EXPECT_EQ(support::send(context.selfloop(), "hello", &on_response), 0);
    ASSERT_TRUE(answered.wait());
    EXPECT_EQ(text, "default");
}

TEST(Msg, TwinsGoFirstComeFirst) {
    Transport older;
    Transport younger;
    const Context context;
    DM_INTF_ST* first = older.add(context, "twin");
    DM_INTF_ST* second = younger.add(context, "twin");
    EXPECT_EQ(dm_get_intf(context.get(), "twin", 5), first);
    EXPECT_EQ(dm_intf_deregister(second), 0);
    EXPECT_EQ(older.closed, 1);
    EXPECT_EQ(younger.closed, 0);
    EXPECT_EQ(dm_get_intf(context.get(), "twin", 5), second);
    // Nothing in the poller may refer to the released record.
    older.wake();
    EXPECT_TRUE(context.pass());
    EXPECT_EQ(dm_intf_deregister(second), 0);
    EXPECT_EQ(younger.closed, 1);
}

TEST(Msg, RefusedRegistrationTellsWhoOwnsTheRecord) {
    Transport transport;
    Transport older;
    const Context context;
    DM_INTF_ST* intf = transport.make(context.get(), "fake");
    {
        support::Fault list_refuses(Call::malloc, 1);
        EXPECT_EQ(dm_intf_register(context.get(), intf), 12);
    }
    EXPECT_EQ(transport.closed, 0) << "the record is the caller's still";
    {
        support::Fault poller_refuses(Call::malloc, 2);
        EXPECT_EQ(dm_intf_register(context.get(), intf), 12);
    }
    EXPECT_EQ(transport.closed, 1) << "closed and released";
    older.add(context, "twin");
    DM_INTF_ST* twin = transport.make(context.get(), "twin");
    {
        support::Fault poller_refuses(Call::malloc, 2);
        EXPECT_EQ(dm_intf_register(context.get(), twin), 12);
    }
    EXPECT_EQ(older.closed, 1) << "the removal goes by name";
    EXPECT_EQ(dm_get_intf(context.get(), "twin", 5), twin);
    older.wake();
}

// Every failure of dm_init() leaves no context, no thread and no descriptor.
TEST(Msg, FailedInitLeavesNothing) {
    for (const Call call :
         {Call::malloc, Call::memset_s, Call::memmove_s, Call::strncpy_s, Call::create_task}) {
        // A first attempt with special attributes that fails is no failure of dm_init().
        const int failures = support::fail_each(call, [&] {
            support::Fault no_priority(Call::create_task_with_attr,
                                       call == Call::create_task ? 1 : 0);
            int nothing = 0;
            auto* dm_cb = reinterpret_cast<DM_CB_ST*>(&nothing);
            const int status = dm_init(&dm_cb);
            EXPECT_EQ(status == 0, dm_cb != nullptr);
            dm_destroy(dm_cb);
        });
        EXPECT_GT(failures, 0);
    }
}

TEST(Msg, HundredCyclesLeakNothing) {
    const int before = dup(0);
    close(before);
    for (int i = 0; i < 100; ++i) {
        Context context;
        Event answered;
        MsgFunction on_request = [](DM_INTF_ST* intf, DM_MSG_ST* msg) {
            support::answer(intf, msg, "pong");
        };
        MsgFunction on_response = [&](DM_INTF_ST*, DM_MSG_ST*) { answered.set(); };
        context.on_request(on_request);
        ASSERT_EQ(support::send(context.selfloop(), "ping", &on_response), 0);
        ASSERT_TRUE(answered.wait());
    }
    EXPECT_TRUE(support::eventually([&] {
        const int now = dup(0);
        close(now);
        return now == before;
    }));
}

} // namespace
