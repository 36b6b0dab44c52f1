#include "dm_hdc.h"

#include "ipmi_v_task.h"
#include "platform_hal.h"
#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>

struct HAL_HDC_MSG {
    std::string bytes;
};

namespace {

using support::Call;
using support::Event;
using support::MsgFunction;

// The HAL. Accept threads end with their test, by the next server's number.
struct Hal {
    std::mutex lock;
    std::condition_variable changed;
    HDC_SERVER server = 1;
    std::vector<HDC_SESSION> peers;           // to be accepted
    std::map<HDC_SESSION, std::string> inbox; // to be received
    std::string sent;
    std::map<std::string, int> code; // of a failing call
    int32_t run_env = 1;
    std::string calls; // each with a blank behind it

    int call(const char* name) {
        const std::lock_guard guard(lock);
        calls.append(name).append(" ");
        changed.notify_all();
        return code.contains(name) ? code[name] : 0;
    }
    int count(const std::string& name) const {
        int times = 0;
        for (size_t at = 0; (at = calls.find(name + " ", at)) != std::string::npos; ++at)
            ++times;
        return times;
    }
    bool called(const std::string& name, size_t times = 1) {
        std::unique_lock guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(30),
                                [&] { return count(name) >= static_cast<int>(times); });
    }
    std::string trace() {
        const std::lock_guard guard(lock);
        const std::string text = calls;
        calls.clear();
        return text;
    }
    void change(const std::function<void()>& what) {
        const std::lock_guard guard(lock);
        what();
        changed.notify_all();
    }
};
Hal hal;
const std::atomic_ref run(g_dm_hdc_run);

DM_ADDR_ST addr_of(const DM_HDC_ADDR_ST& hdc) {
    DM_ADDR_ST addr;
    std::memcpy(&addr, &hdc, sizeof(addr));
    return addr;
}

// A message as a peer sends it; it may lie about its length.
std::string frame(const std::string& text, int announced = -1) {
    const size_t size = announced < 0 ? text.size() : static_cast<size_t>(announced);
    HDC_MSG_ST msg{~0ULL, 21, 22, 99, DM_MSG_REQ, static_cast<uint16_t>(size), {}};
    return std::string(reinterpret_cast<const char*>(&msg), DM_HDC_HEADER_LEN) + text;
}

class Hdc : public testing::Test {
protected:
    void SetUp() override {
        hal.calls.reserve(10000);
        run = 1;
        support::skip_log_interval();
        support::clear_log();
    }
    void TearDown() override {
        context_.reset();
        support::on_write_file = nullptr;
        hal.change([] { ++hal.server; });
        hal.calls.clear();
        hal.code.clear();
    }
    int init(uint32_t role, uint32_t number = 3, uint32_t kind = 99, int32_t opt_len = 31) {
        DM_ADDR_ST addr = addr_of({kind, DM_FAMILY_HDC, 0, role, 0, 21, 0, 0, number, 0});
        return dm_hdc_init(&intf_, context_->get(), nullptr, &addr, "", opt_len);
    }
    int send(DM_HDC_ADDR_ST& to, size_t size = 4) {
        std::string text(size, 'x');
        DM_DATA_ST data{static_cast<uint16_t>(size), text.data()};
        DM_ADDR_ST addr = addr_of(to);
        const int status = intf_->send_msg_ex(intf_, DM_MSG_RSP, &addr, 40, &data, 1, 2, 77);
        std::memcpy(&to, &addr, sizeof(to));
        return status;
    }
    // Lets messages come, a session each, and looks at what the handler gets. It may hold up the
    // poll thread, from the first one until the last one is there.
    void exchange(const std::vector<std::string>& messages, const std::vector<std::string>& good,
                  bool hold = false) {
        std::vector<std::string> seen;
        Event event;
        Event delivered;
        MsgFunction handler = [&](DM_INTF_ST*, DM_MSG_ST* msg) {
            seen.push_back(support::text_of(msg));
            event.set();
            EXPECT_TRUE(!hold || delivered.wait());
        };
        context_->on_request(handler);
        ASSERT_EQ(init(DM_HDC_SERVER), 0);
        for (size_t i = 0; i < messages.size(); ++i) {
            hal.change([&] {
                hal.inbox[i + 1] = messages[i];
                hal.peers.push_back(i + 1);
            });
            ASSERT_TRUE(hal.called("free", i + 1));
            ASSERT_TRUE(!hold || event.wait());
        }
        delivered.set();
        EXPECT_TRUE(event.wait(static_cast<int>(good.size())));
        context_.reset();
        EXPECT_EQ(seen, good);
    }

    std::unique_ptr<support::Context> context_ = std::make_unique<support::Context>();
    DM_INTF_ST* intf_ = nullptr;
    DM_HDC_ADDR_ST peer_{DM_KIND_HDC, DM_FAMILY_HDC, 0, 0, 22, 21, 1, 8, 0, 0};
};

TEST_F(Hdc, ServerIsTriedFor42Times) {
    hal.code["create"] = 9;
    EXPECT_EQ(init(DM_HDC_SERVER), 9);
    EXPECT_EQ(hal.count("create"), 42);
    EXPECT_EQ(hal.count("delay"), 41);
    EXPECT_TRUE(hal.trace().ends_with("delay create "));
    hal.code.clear();
    const support::Fault fault(Call::create_task_with_attr, 1);
    EXPECT_EQ(init(DM_HDC_SERVER), -1);
    EXPECT_EQ(hal.trace(), "capacity create destroy ");
}

TEST_F(Hdc, ClientGivesUpStepByStep) {
    ASSERT_EQ(init(2), 0);
    EXPECT_EQ(hal.trace(), "capacity client ");
    const std::string sent = "connect ref alloc add send free ";
    for (const auto& [failing, calls] : std::map<std::string, std::string>{
             {"connect", "connect "},
             {"alloc", "connect ref alloc close "},
             {"add", "connect ref alloc add free close "},
             {"send", sent + "close "},
             {"recv", sent + "alloc recv free close "},
             {"get", sent + "alloc recv get free close "},
         }) {
        hal.code = {{failing, 9}};
        hal.inbox[8] = frame("x");
        EXPECT_EQ(send(peer_), 9);
        EXPECT_EQ(hal.trace(), calls);
    }
    hal.code = {{"connect", 35}};
    EXPECT_EQ(send(peer_), 35);
    EXPECT_EQ(hal.count("connect"), 41);
    EXPECT_EQ(hal.count("sleep"), 40);
    hal.code = {{"recv", 16}};
    EXPECT_EQ(send(peer_), 16);
    EXPECT_EQ(hal.count("recv"), 5);
    hal.code.clear();
    hal.inbox[8] = frame("the answer");
    EXPECT_EQ(send(peer_, 5000), 0);
    EXPECT_EQ(hal.sent.size(), 30U) << "too much goes out as a bare header";
}

TEST_F(Hdc, ServerAnswersOnceAndCloses) {
    ASSERT_EQ(init(DM_HDC_SERVER), 0);
    ASSERT_TRUE(hal.called("accept"));
    hal.trace();
    const auto answer = [&](const char* failing, int status, const std::string& calls) {
        hal.code = {{failing, 9}};
        DM_HDC_ADDR_ST peer = peer_;
        EXPECT_EQ(send(peer), status);
        EXPECT_EQ(hal.trace(), calls);
        EXPECT_EQ(send(peer), 48) << "answered, or failed, for good";
        EXPECT_EQ(hal.trace(), "");
    };
    answer("alloc", 9, "alloc close ");
    answer("add", 9, "alloc add free close ");
    answer("send", 9, "alloc add send free close ");
    answer("none", 0, "alloc add send free close ");
    HDC_MSG_ST sent{8, 21, 21, 77, DM_MSG_RSP, 4, {'x', 'x', 'x', 'x'}};
    EXPECT_EQ(hal.sent, std::string(reinterpret_cast<const char*>(&sent), 34));
}

TEST_F(Hdc, MessageTellsWhereItCameFrom) {
    DM_ADDR_ST addr{};
    char buffer[DM_MAX_DATA_LEN]{};
    DM_MSG_ST msg{};
    const auto receive = [&](const std::string& text, int announced = -1,
                             uint16_t capacity = 4096) {
        std::memset(buffer, 'z', sizeof(buffer));
        msg = {9, 9, 9, 9, &addr, 40, 0, {capacity, buffer}};
        return support::receive(intf_, frame(text, announced), &msg);
    };
    const auto word_of = [&](size_t size, uint16_t capacity) {
        EXPECT_EQ(receive(std::string(size, 'x'), -1, capacity), 0);
        EXPECT_EQ(msg.data.data_len, std::min<size_t>(size, capacity));
        int32_t word;
        std::memcpy(&word, buffer + 8, sizeof(word));
        return word;
    };
    for (const uint32_t role : {0U, 2U, 1U}) {
        ASSERT_EQ(init(role, 10 + role), 0);
        EXPECT_EQ(receive("x"), 0);
        const DM_ADDR_ST src = addr_of({99, 3, 0, role == 0 ? 1U : 0U, 22, 21, 1, ~0ULL, 0, 0});
        EXPECT_EQ(std::memcmp(&addr, &src, sizeof(src)), 0);
        EXPECT_EQ(msg.addr_len, 40U);
        EXPECT_EQ(msg.src_id, 10 + role);
        EXPECT_EQ(msg.src_index, role == 1 ? 1001U : 9U) << "a client leaves it";
    }
    for (const auto& [run_env, type] : {std::pair(2, 2), {3, 0}, {4, 2}, {5, -1}, {1, 1}}) {
        hal.run_env = run_env;
        EXPECT_EQ(receive("x"), type < 0 ? -1 : 0);
        EXPECT_TRUE(type < 0 || msg.src_type == type);
    }
    EXPECT_EQ(word_of(10, 4096), 0);
    EXPECT_EQ(word_of(40, 4096), 28);
    EXPECT_EQ(word_of(40, 12), 0);
    EXPECT_EQ(word_of(40, 11), 0x7a787878) << "there is no room for it";
    EXPECT_EQ(receive("x", 2), -1);
    support::skip_log_interval();
    EXPECT_EQ(receive("", 4097), -1);
    EXPECT_EQ(support::logged('E', "__dm_hdc_recv: msg->data_len too long=4097\n"), 1);
}

TEST_F(Hdc, MalformedMessagesKeepThePipeInStep) {
    const std::string longest(4096, 'x');
    exchange({frame("first"), "", "short", frame("").substr(0, 29), frame("less", 5),
              frame("cut here, and more", 8), frame("far too much", 5000), frame(longest),
              frame("last")},
             {"first", "cut here", std::string(longest).replace(8, 4, "\xf4\xf\0\0", 4), "last"});
    EXPECT_TRUE(hal.called("close", 4));
}

TEST_F(Hdc, FullPipeCutsNoFrame) {
    std::deque<int> taken{35, 20, -1, 8}; // of the writes; -1: it is full
    support::on_write_file = [&](int fd, const void* buffer, uint32_t size) {
        if (intf_ == nullptr || fd != intf_->wfd || taken.empty())
            return write(fd, buffer, size);
        const int part = taken.front();
        taken.pop_front();
        errno = EAGAIN;
        return part < 0 ? part : write(fd, buffer, static_cast<size_t>(part));
    };
    exchange({frame("first"), frame("kept"), frame("dropped"), frame("dropped too"), frame("last")},
             {"first", "kept", "last"}, true);
    EXPECT_TRUE(hal.called("close", 2));
    EXPECT_EQ(support::logged('E', "__hdc_write_to_pipe: write fail.errno=11\r\n"), 1);
}

TEST_F(Hdc, ThreadsOutliveTheContext) {
    ASSERT_EQ(init(DM_HDC_SERVER), 0);
    hal.change([] { hal.peers.push_back(5); });
    ASSERT_TRUE(hal.called("recv"));
    ASSERT_TRUE(hal.called("accept", 2));
    const int fd = intf_->fd;
    context_.reset();
    EXPECT_EQ(run, 0);
    hal.trace();
    hal.change([] { hal.inbox[5] = frame("late"); });
    ASSERT_TRUE(hal.called("close"));
    EXPECT_EQ(hal.trace(), "get free close ");
    EXPECT_EQ(support::logged('E', "Assert:intf\n"), 1);
    hal.change([] { hal.peers.push_back(6); });
    ASSERT_TRUE(hal.called("close"));
    EXPECT_EQ(hal.trace(), "ref close ") << "and no other session is accepted";
    char byte;
    EXPECT_EQ(read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN) << "the pipe is open, and empty";
}

TEST_F(Hdc, OnlyTheBareNameReleasesTheChannel) {
    EXPECT_EQ(init(0, 0, DM_KIND_IPC), -22);
    EXPECT_EQ(init(0, 0, DM_KIND_HDC, 32), -22);
    for (const char* name : {"dm_hdc0", "dm_hdc"}) {
        ASSERT_EQ(init(DM_HDC_SERVER, 0), 0);
        EXPECT_STREQ(intf_->name, "dm_hdc0");
        EXPECT_EQ(intf_->max_data_len, 8192U);
        EXPECT_EQ(init(0, 0), -16);
        std::strcpy(intf_->name, name);
        EXPECT_EQ(intf_->close(intf_), 0);
        EXPECT_EQ(dm_intf_deregister(intf_), 0) << "closed twice";
        EXPECT_EQ(hal.count("destroy"), std::string(name) == "dm_hdc" ? 1 : 0);
    }
}

TEST_F(Hdc, FailedRegistrationClosesOnce) {
    int closed = 0;
    const auto try_it = [&] {
        run = 1;
        intf_ = nullptr;
        const int status = init(DM_HDC_CLIENT);
        EXPECT_EQ(intf_ != nullptr, status == 0);
        closed += status != 0 && run == 0 ? 1 : 0;
        dm_intf_deregister(intf_);
    };
    for (const Call call : {Call::malloc, Call::memset_s, Call::memmove_s, Call::strncpy_s})
        EXPECT_GT(support::fail_each(call, try_it), 0);
    EXPECT_GT(closed, 2) << "some failures came after the channel was open";
    EXPECT_EQ(hal.count("destroy"), 0);
}

} // namespace

// A call that has its effect and fails when it is to.
#define HAL_CALL(function, name, parameters, effect) \
    int32_t function parameters {                    \
        effect;                                      \
        return hal.call(name);                       \
    }
HAL_CALL(drvHdcServerDestroy, "destroy", (HDC_SERVER), )
HAL_CALL(drvHdcClientDestroy, "destroy", (HDC_CLIENT), )
HAL_CALL(drvHdcSessionClose, "close", (HDC_SESSION), )
HAL_CALL(drvHdcSetSessionReference, "ref", (HDC_SESSION), )
HAL_CALL(drvHdcClientCreate, "client", (HDC_CLIENT*, int32_t, int32_t, int32_t), )
HAL_CALL(drvHdcGetCapacity, "capacity", (HDC_CAPACITY_ST * capacity), capacity->max_len = 8192)
HAL_CALL(drvHdcServerCreate, "create", (int32_t, int32_t, HDC_SERVER* made), *made = hal.server)
HAL_CALL(drvHdcSessionConnect, "connect", (int32_t, int32_t id, HDC_CLIENT, HDC_SESSION* made),
         EXPECT_EQ(id, 21);
         *made = 8)
HAL_CALL(drvHdcAddMsgBuffer, "add", (HAL_HDC_MSG * msg, char* buffer, int32_t length),
         msg->bytes.assign(buffer, static_cast<size_t>(length)))
HAL_CALL(drvHdcGetMsgBuffer, "get", (HAL_HDC_MSG * msg, int32_t, char** buffer, int32_t* length),
         *buffer = msg->bytes.data();
         *length = static_cast<int32_t>(msg->bytes.size()))
HAL_CALL(drvHdcFreeMsg, "free", (HAL_HDC_MSG * msg), delete msg)
HAL_CALL(halHdcSend, "send", (HDC_SESSION, HAL_HDC_MSG* msg, uint64_t, uint32_t),
         hal.sent = msg->bytes)
HAL_CALL(usleep, "usleep", (useconds_t), )

unsigned sleep(unsigned) {
    return static_cast<unsigned>(hal.call("sleep"));
}
uint32_t vos_task_delay(uint64_t) {
    return static_cast<uint32_t>(hal.call("delay"));
}
int32_t drvHdcSessionAccept(HDC_SERVER server, HDC_SESSION* session) {
    hal.call("accept");
    std::unique_lock guard(hal.lock);
    hal.changed.wait(guard, [&] { return !hal.peers.empty() || hal.server != server; });
    if (hal.server != server) {
        guard.unlock();
        pthread_exit(nullptr);
    }
    *session = hal.peers.back();
    hal.peers.pop_back();
    return 0;
}
int32_t drvHdcAllocMsg(HDC_SESSION, HAL_HDC_MSG** msg, int32_t) {
    const int code = hal.call("alloc");
    *msg = code == 0 ? new HAL_HDC_MSG : nullptr;
    return code;
}
int32_t halHdcRecv(HDC_SESSION session, HAL_HDC_MSG* msg, int32_t, uint64_t, int32_t*, uint32_t) {
    if (const int code = hal.call("recv"); code != 0)
        return code;
    std::unique_lock guard(hal.lock);
    hal.changed.wait(guard, [&] { return hal.inbox.contains(session); });
    msg->bytes = hal.inbox.extract(session).mapped();
    return 0;
}
int32_t halHdcGetSessionAttr(HDC_SESSION, int32_t attribute, int32_t* value) {
    *value = attribute == HAL_HDC_ATTR_UID ? 1001 : hal.run_env;
    return 0;
}
