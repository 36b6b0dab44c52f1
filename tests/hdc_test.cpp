#include "dm_hdc.h"

#include "support/platform_hooks.h"
#include "support/scripted_hal.h"
#include "support/threads.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>

namespace {

using support::Call;
using support::Event;
using support::hal;
using support::MsgFunction;

const std::atomic_ref run(g_dm_hdc_run);

// A message as a peer sends it; it may lie about its length.
std::string frame(const std::string& text, int announced = -1) {
    const size_t size = announced < 0 ? text.size() : static_cast<size_t>(announced);
    HDC_MSG_ST msg{~0ULL, 21, 22, 99, DM_MSG_REQ, static_cast<uint16_t>(size), {}};
    return std::string(reinterpret_cast<const char*>(&msg), DM_HDC_HEADER_LEN) + text;
}

class Hdc : public testing::Test {
protected:
    void SetUp() override { run = 1; }
    void TearDown() override {
        context_.reset();
        support::on_write_file = nullptr;
        hal.reset();
    }
    int init(uint32_t role, uint32_t number = 3, uint32_t kind = 99, int32_t opt_len = 31) {
        DM_HDC_ADDR_ST addr{kind, DM_FAMILY_HDC, 0, role, 0, 21, 0, 0, number, 0};
        auto* own = reinterpret_cast<DM_ADDR_ST*>(&addr);
        return dm_hdc_init(&intf_, context_->get(), nullptr, own, "", opt_len);
    }
    int send(DM_HDC_ADDR_ST& to, size_t size = 4) {
        std::string text(size, 'x');
        DM_DATA_ST data{static_cast<uint16_t>(size), text.data()};
        auto* addr = reinterpret_cast<DM_ADDR_ST*>(&to);
        return intf_->send_msg_ex(intf_, DM_MSG_RSP, addr, 40, &data, 1, 2, 77);
    }
    // Lets messages come, a session each, and looks at what the handler gets. It may hold up the
    // poll thread, from the first one until the last one is there.
    void exchange(const std::vector<std::string>& messages, const std::vector<std::string>& good,
                  bool hold = false) {
        std::vector<std::string> seen;
        Event event, delivered;
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

TEST_F(Hdc, FailedOpenLeavesNothing) {
    const auto before = support::entries_of("/proc/self/fd");
    hal.code = {{"create", 9}, {"client", 8}};
    EXPECT_EQ(init(DM_HDC_CLIENT), 8);
    EXPECT_EQ(init(DM_HDC_SERVER), 9);
    EXPECT_EQ(hal.count("create"), 42U);
    EXPECT_EQ(hal.count("delay"), 41U);
    EXPECT_TRUE(hal.trace().ends_with("delay create "));
    hal.code.clear();
    const support::Fault fault(Call::create_task_with_attr, 1);
    EXPECT_EQ(init(DM_HDC_SERVER), -1);
    EXPECT_EQ(hal.trace(), "capacity create destroy ");
    EXPECT_EQ(support::entries_of("/proc/self/fd"), before);
    EXPECT_EQ(support::operations(), std::set<std::string>{"__dm_hdc_open"});
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
        support::skip_log_interval();
        EXPECT_EQ(send(peer_), 9);
        EXPECT_EQ(hal.trace(), calls);
    }
    EXPECT_EQ(support::operations(),
              (std::set<std::string>{"__dm_hdc_client_send", "__dm_session_recv_proc"}));
    EXPECT_EQ(hal.device_id, 21U);
    hal.code = {{"connect", 35}};
    EXPECT_EQ(send(peer_), 35);
    EXPECT_EQ(hal.count("connect"), 41U);
    EXPECT_EQ(hal.count("sleep"), 40U);
    hal.code = {{"recv", 16}};
    support::clear_log();
    EXPECT_EQ(send(peer_), 16);
    EXPECT_EQ(hal.count("recv"), 5U);
    EXPECT_EQ(support::logged('E', "halHdcRecv timeout.\n", "__dm_session_hdc_recv_proc"), 1);
    EXPECT_EQ(support::logged('E', ""), 1) << "all files of HDC share a limiter";
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
    const auto receive = [&](const std::string& bytes, uint16_t capacity = 4096) {
        msg = {9, 9, 9, 9, &addr, 40, 0, {capacity, buffer}};
        return support::receive(intf_, bytes, &msg);
    };
    for (const uint32_t role : {0U, 2U, 1U}) {
        ASSERT_EQ(init(role, 10 + role), 0);
        EXPECT_EQ(receive(frame("x")), 0);
        const DM_HDC_ADDR_ST src{99, 3, 0, role == 0 ? 1U : 0U, 22, 21, 1, ~0ULL, 0, 0};
        EXPECT_EQ(std::memcmp(&addr, &src, sizeof(src)), 0);
        EXPECT_EQ(std::pair(msg.addr_len, msg.src_id), std::pair(40U, 10 + role));
        EXPECT_EQ(msg.src_index, role == 1 ? 1001U : 9U) << "a client leaves it";
    }
    for (const auto& [run_env, type] : {std::pair(2, 2), {3, 0}, {4, 2}, {5, -1}, {1, 1}}) {
        hal.run_env = run_env;
        EXPECT_EQ(receive(frame("x")), type < 0 ? -1 : 0);
        EXPECT_TRUE(type < 0 || msg.src_type == type);
    }
    // Of the payload's size, and of the room for it.
    using Case = std::tuple<size_t, uint16_t, int32_t>;
    for (const auto& [size, capacity, word] :
         {Case(10, 4096, 0), {40, 4096, 28}, {40, 12, 0}, {40, 11, 0x7a787878}}) {
        std::memset(buffer, 'z', sizeof(buffer));
        EXPECT_EQ(receive(frame(std::string(size, 'x')), capacity), 0);
        EXPECT_EQ(msg.data.data_len, std::min<size_t>(size, capacity));
        EXPECT_EQ(std::memcmp(buffer + 8, &word, sizeof(word)), 0);
    }
    EXPECT_EQ(receive(frame("x", 2)), -1);
    support::skip_log_interval();
    EXPECT_EQ(receive(frame("", 4097)), -1);
    EXPECT_EQ(support::logged('E', "msg->data_len too long=4097\n", "__dm_hdc_recv"), 1);
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
    EXPECT_EQ(support::logged('E', "Assert:intf\n", "__dm_session_recv_proc"), 1);
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
        EXPECT_EQ(hal.count("destroy"), std::string(name) == "dm_hdc" ? 1U : 0U);
    }
}

TEST_F(Hdc, FailedRegistrationLeavesTheChannelToItsThreads) {
    hal.change([] { hal.peers.push_back(5); });
    const auto accept = support::hold_next_task();
    int closed = 0;
    support::on_close_file = [&](int) {
        EXPECT_EQ(support::logged('E', "dm_hdc_init->dm_intf_register fail.\n", "dm_hdc_init"), 1);
        ++closed;
    };
    {
        const support::Fault refused(Call::memmove_s, 1);
        EXPECT_EQ(init(DM_HDC_SERVER), support::kInjectedStatus);
    }
    support::on_close_file = nullptr;
    EXPECT_EQ(closed, 2);
    EXPECT_EQ(run.exchange(1), 0);
    EXPECT_EQ(hal.trace(), "capacity create ");
    pthread_detach(accept());
    ASSERT_TRUE(hal.called("close"));
    EXPECT_EQ(hal.trace().find("recv"), std::string::npos) << "there is no pipe for a message";
}

} // namespace
