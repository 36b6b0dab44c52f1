// What may go while it is in use: contexts, interfaces and requests. Meant for the sanitizers.
#include "dm_msg_intf.h"
#include "dm_udp.h"

#include "support/framework.h"
#include "support/platform_hooks.h"
#include "support/threads.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

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
    Transport last;
    last.recv = [&](DM_INTF_ST* intf, DM_MSG_ST*) {
        dm_destroy(intf->dm_cb);
        return 0;
    };
    MsgFunction never = [](DM_INTF_ST*, DM_MSG_ST*) { FAIL() << "its receive has destroyed it"; };
    Context other;
    other.on_request(never);
    last.add(other, "last");
    static_cast<void>(other.release());
    last.wake();
    timed.retry_cnt = 0;
    timed.timeout = [&] { EXPECT_EQ(returned.count(), 0); };
    context.on_request(handler);
    ready.add(context, "ready");
    ASSERT_EQ(support::send(timed.add(context, "timed"), "x"), 0);
    ASSERT_EQ(support::send(context.selfloop(), "x"), 0);
    ASSERT_TRUE(returned.wait());
    EXPECT_TRUE(support::eventually(
        [&] { return ready.closed == 1 && timed.closed == 1 && last.closed == 1; }));
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
// then fails. The request has had its outcome, and what is at its address by now is another one.
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
    EXPECT_EQ(support::send(transport.add(context, "fake"), "first", &on_first), 0);
    EXPECT_EQ(first.count(), 1);
    EXPECT_TRUE(support::eventually([&] { return list_size(context.get()->pending_list) == 0; }));
}

// The answer and the failure of the send at the same moment: one of them is the outcome.
TEST(Lifetime, AnswerRacesAFailingSend) {
    Transport transport;
    std::atomic<uint64_t> identity = 0;
    std::atomic<bool> done = false;
    const auto spin = [](int turns) {
        std::atomic<int> turned = 0;
        while (turned < turns)
            ++turned;
    };
    transport.recv = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
        msg->type = DM_MSG_RSP;
        while (!done && msg->req_id == 0)
            msg->req_id = identity.exchange(0);
        return 0;
    };
    int turns = 0;
    transport.send = [&](DM_INTF_ST*, uint32_t, uint64_t req_id) {
        identity = req_id;
        spin(turns);
        return 5;
    };
    std::atomic<int> answered = 0;
    MsgFunction on_response = [&](DM_INTF_ST*, DM_MSG_ST*) { ++answered; };
    const Context context;
    DM_INTF_ST* intf = transport.add(context, "fake");
    transport.wake();
    int succeeded = 0;
    for (int i = 0; i < support::rounds(20000); ++i) {
        turns = i % 500;
        succeeded += support::send(intf, "x", &on_response) == 0 ? 1 : 0;
    }
    done = true;
    dm_intf_deregister(intf);
    EXPECT_EQ(answered, succeeded);
}

// A time-out that falls due during the send waits for how that ends: it is reported with success,
// though nothing else wakes the poll thread, and never with a failure or when the thread ends.
TEST(Lifetime, RequestTimesOutDuringItsSend) {
    enum class Outcome { success, late_cancel, failure, thread_ends };
    for (const Outcome outcome :
         {Outcome::success, Outcome::late_cancel, Outcome::failure, Outcome::thread_ends}) {
        const bool succeeds = outcome == Outcome::success || outcome == Outcome::late_cancel;
        // What wakes the poll thread is a cancellation point.
        static thread_local bool is_cancelled_late = false;
        support::on_write_file = [](int fd, const void* buffer, uint32_t size) {
            if (is_cancelled_late)
                pthread_cancel(pthread_self());
            pthread_testcancel();
            return write(fd, buffer, size);
        };
        Transport transport;
        transport.retry_cnt = 1;
        transport.timeout_ms = 1;
        const Context context;
        std::atomic<int> sends = 0;
        Event resent;
        std::atomic<bool> sent = false;
        transport.timeout = [&] { EXPECT_TRUE(sent); };
        transport.send = [&](DM_INTF_ST*, uint32_t, uint64_t) {
            if (++sends > 1) {
                resent.set();
                return 0;
            }
            EXPECT_TRUE(resent.wait());
            EXPECT_TRUE(context.pass()) << "the time-out was due with the re-send";
            poller_timer_add(context.get()->poller, 100000, nullptr, nullptr, 1, nullptr);
            if (outcome == Outcome::thread_ends)
                pthread_exit(nullptr);
            sent = succeeds;
            return succeeds ? 0 : 1;
        };
        Event reported;
        MsgFunction on_response = [&](DM_INTF_ST*, DM_MSG_ST*) { reported.set(); };
        DM_INTF_ST* intf = transport.add(context, "fake");
        std::atomic<int> result = -1;
        std::thread([&] {
            is_cancelled_late = outcome == Outcome::late_cancel;
            result = support::send(intf, "x", &on_response);
        }).join();
        EXPECT_EQ(result, succeeds ? 0 : outcome == Outcome::failure ? DM_ERR_SEND : -1);
        EXPECT_TRUE(!succeeds || reported.wait());
        EXPECT_EQ(dm_intf_deregister(intf), 0);
        EXPECT_EQ(list_size(context.get()->poller->timer_list), 1U) << "not by the far timer";
        EXPECT_EQ(reported.count(), succeeds ? 1 : 0);
        EXPECT_TRUE(
            support::eventually([&] { return list_size(context.get()->pending_list) == 0; }));
    }
    support::on_write_file = nullptr;
}

// A close slot may look names up, remove another interface and use the poller, in a removal and
// when the context goes; it runs on the removing thread, whoever else stands on the record.
TEST(Lifetime, CloseSlotUsesTheContext) {
    for (const bool by_destroy : {false, true}) {
        Transport parent;
        Transport child;
        Transport other;
        {
            const Context context;
            static DM_CB_ST* dm_cb;
            static std::thread::id closer;
            dm_cb = context.get();
            DM_INTF_ST* intf = parent.add(context, "parent");
            child.add(context, "child");
            other.add(context, "other");
            parent.wake();
            intf->close = [](DM_INTF_ST* self) {
                closer = std::this_thread::get_id();
                EXPECT_EQ(dm_intf_deregister(dm_get_intf(dm_cb, "child", 6)), 0);
                EXPECT_EQ(dm_get_intf(dm_cb, "child", 6), nullptr);
                EXPECT_NE(dm_get_intf(dm_cb, "other", 6), nullptr);
                EXPECT_EQ(poller_fd_remove(dm_cb->poller, 0, POLLIN), 0);
                poller_timer_add(dm_cb->poller, 1, nullptr, nullptr, 1, nullptr);
                EXPECT_EQ(self->dm_cb, dm_cb);
                ++reinterpret_cast<Transport*>(self->reserved)->closed;
                return 0;
            };
            if (!by_destroy) {
                LIST_ITER_ST looker;
                list_iter_init(dm_cb->intf_list, &looker);
                while (list_to_item(list_iter_next(&looker)) != intf) {
                }
                std::thread remover([&] { EXPECT_EQ(dm_intf_deregister(intf), 0); });
                const auto id = remover.get_id();
                remover.join();
                EXPECT_EQ(parent.closed, 1);
                EXPECT_EQ(closer, id);
                list_iter_destroy(&looker);
            }
        }
        EXPECT_EQ(parent.closed, 1);
        EXPECT_EQ(child.closed, 1);
        EXPECT_EQ(other.closed, 1);
    }
}

// Its slot still stands in the record then; the message that it gives is handled.
TEST(Lifetime, InterfaceRemovedByItsOwnReceive) {
    Transport transport;
    Context context;
    Event handled;
    MsgFunction handler = [&](DM_INTF_ST* intf, DM_MSG_ST*) {
        EXPECT_STREQ(intf->name, "fake");
        handled.set();
    };
    context.on_request(handler);
    transport.recv = [&](DM_INTF_ST* intf, DM_MSG_ST*) {
        EXPECT_EQ(dm_intf_deregister(intf), 0);
        EXPECT_EQ(transport.closed, 1);
        return intf->fd == transport.fds[0] ? 0 : -1;
    };
    transport.add(context, "fake");
    transport.wake();
    EXPECT_TRUE(handled.wait());
}

// However long the poll thread would sleep, a socket is closed when its interface is removed.
TEST(Lifetime, PortIsFreeOnceItsInterfaceIsRemoved) {
    Context context;
    Event handled;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST*) { handled.set(); };
    context.on_request(handler);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    DM_ADDR_ST addr{DM_KIND_UDP, DM_FAMILY_UDP, {}, 0, {}};
    std::memcpy(addr.sa, &sa, sizeof(sa));
    DM_INTF_ST* intf = nullptr;
    ASSERT_EQ(dm_udp_init(&intf, context.get(), nullptr, &addr, nullptr, 0), 0);
    socklen_t len = sizeof(sa);
    ASSERT_EQ(getsockname(intf->fd, reinterpret_cast<sockaddr*>(&sa), &len), 0);
    std::memcpy(addr.sa, &sa, sizeof(sa));
    poller_timer_add(context.get()->poller, 100000, nullptr, nullptr, 1, nullptr);
    // Whoever looks at the poller's list keeps the entry, and so a slot of the array for it.
    LIST_ITER_ST looker;
    list_iter_init(context.get()->poller->fd_list, &looker);
    while (static_cast<POLLER_FD_ENTRY_ST*>(list_to_item(list_iter_next(&looker)))->fd !=
           intf->fd) {
    }
    ASSERT_EQ(support::send(context.selfloop(), "x"), 0);
    ASSERT_TRUE(handled.wait()) << "the long wait begins behind that";
    EXPECT_EQ(dm_intf_deregister(intf), 0);
    EXPECT_EQ(dm_udp_init(nullptr, context.get(), nullptr, &addr, nullptr, 0), 0);
    list_iter_destroy(&looker);
}

// Cancelling a thread ends it behind the call, not in it.
TEST(Lifetime, CancelledCallsAreFinished) {
    Transport transport;
    Context context;
    Event entered;
    Event cancelled;
    transport.recv = [&](DM_INTF_ST*, DM_MSG_ST*) {
        entered.set();
        EXPECT_TRUE(cancelled.wait());
        return -1;
    };
    const auto run_cancelled = [](Event& under_way, const std::function<void()>& call) {
        std::thread thread([&] {
            under_way.set();
            call();
            for (;;)
                pthread_testcancel();
        });
        under_way.wait();
        pthread_cancel(thread.native_handle());
        thread.join();
    };
    DM_INTF_ST* intf = transport.add(context, "fake");
    transport.wake();
    ASSERT_TRUE(entered.wait());
    Event removing;
    std::thread releaser([&] {
        EXPECT_TRUE(removing.wait());
        cancelled.set();
    });
    run_cancelled(removing, [&] { EXPECT_EQ(dm_intf_deregister(intf), 0); });
    EXPECT_EQ(transport.closed, 1);
    releaser.join();
    transport.recv = [](DM_INTF_ST*, DM_MSG_ST*) { return -1; };
    transport.add(context, "fake");
    Event destroying;
    run_cancelled(destroying, [dm_cb = context.release()] { dm_destroy(dm_cb); });
    EXPECT_EQ(transport.closed, 2);
}

// A handler that ends the poll thread leaves a context that can be released.
TEST(Lifetime, PollThreadEndedByAHandler) {
    Transport transport;
    {
        Context context;
        Event entered;
        MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST*) {
            entered.set();
            pthread_exit(nullptr);
        };
        context.on_request(handler);
        transport.add(context, "fake");
        ASSERT_EQ(support::send(context.selfloop(), "x"), 0);
        ASSERT_TRUE(entered.wait());
        EXPECT_TRUE(support::eventually(
            [&] { return std::atomic_ref(context.get()->poller->state).load() == POLLER_IDLE; }));
    }
    EXPECT_EQ(transport.closed, 1);
}

TEST(Lifetime, ForkedChildLeavesTheContextAlone) {
    Transport transport;
    Context context;
    transport.add(context, "fake");
    const pid_t child = fork();
    if (child == 0) {
        dm_destroy(context.get());
        poller_destory(context.get()->poller);
        _exit(transport.closed);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    Event handled;
    MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST*) { handled.set(); };
    context.on_request(handler);
    EXPECT_EQ(support::send(context.selfloop(), "x"), 0);
    EXPECT_TRUE(handled.wait());
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
    begin();
    EXPECT_TRUE(support::only_these_threads(0));
}

// Its thread is leaving after poller_exit(), and would leave an idle poller.
TEST(Lifetime, ContextDestroyedWhileItsPollerStops) {
    Transport first;
    Transport second;
    Event entered;
    Event go;
    first.recv = second.recv = [&](DM_INTF_ST*, DM_MSG_ST*) {
        entered.set();
        EXPECT_TRUE(go.wait(entered.count()));
        return -1;
    };
    Context context;
    first.add(context, "first");
    first.wake();
    ASSERT_TRUE(entered.wait());
    second.add(context, "second");
    second.wake();
    EXPECT_EQ(poller_exit(context.get()->poller), 0);
    go.set();
    ASSERT_TRUE(entered.wait(2));
    dm_destroy(context.release());
    for (int i = 0; i < 3; ++i)
        go.set();
    EXPECT_TRUE(support::eventually([&] { return first.closed == 1 && second.closed == 1; }));
}

} // namespace
