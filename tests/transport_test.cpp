// What the transports' init functions have in common.
#include "dm_hdc.h"
#include "dm_ipc.h"
#include "dm_loop.h"
#include "dm_udp.h"

#include "support/platform_hooks.h"
#include "support/scripted_hal.h"
#include "support/threads.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <set>

namespace {

using support::Call;

DM_ADDR_ST udp_addr{DM_KIND_UDP, DM_FAMILY_UDP, {}, 0, {AF_INET, 0, 0, 0, 127, 0, 0, 1}};
DM_ADDR_ST ipc_addr{DM_KIND_IPC, DM_FAMILY_IPC, {}, 1, {}};
DM_ADDR_ST hdc_addr{DM_KIND_HDC, DM_FAMILY_HDC, {}, DM_HDC_CLIENT, {}};

struct Kind {
    const char* name; // of the interface
    int taken;        // the code for a name that is taken
    bool stays_open;  // when it is closed
    int (*init)(DM_CB_ST*, DM_INTF_ST**);
};
const Kind kinds[] = {
    {"selfloop", 16, false,
     [](auto* cb, auto** out) { return selfloop_init(out, cb, nullptr, nullptr, 0); }},
    {"loop", 16, true,
     [](auto* cb, auto** out) { return selfloop_init(out, cb, nullptr, "loop", 0); }},
    {"dm_udp", 16, false,
     [](auto* cb, auto** out) { return dm_udp_init(out, cb, nullptr, &udp_addr, nullptr, 0); }},
    {"udp", 16, true,
     [](auto* cb, auto** out) { return dm_udp_init(out, cb, nullptr, &udp_addr, "udp", 4); }},
    {"dm_ipc1", 16, false,
     [](auto* cb, auto** out) { return dm_ipc_init(out, cb, nullptr, &ipc_addr, nullptr, 0); }},
    {"dm_hdc0", -16, true,
     [](auto* cb, auto** out) { return dm_hdc_init(out, cb, nullptr, &hdc_addr, nullptr, 0); }},
};

class Transports : public testing::Test {
protected:
    void TearDown() override { support::hal.reset(); }

    support::Context context_;
};

// Each through its own limiter, under its own name and path.
TEST_F(Transports, RefuseATakenName) {
    for (const Kind& kind : kinds)
        kind.init(context_.get(), nullptr); // the self-loop is there
    support::clear_log();
    for (const Kind& kind : kinds)
        EXPECT_EQ(kind.init(context_.get(), nullptr), kind.taken);
    const auto refusal = [](const std::string& file, const std::string& operation,
                            const std::string& name) {
        return "[lib/msg/" + file + ":#][device monitor] [" + operation +
               " #] duplicate interface [" + name + "]\r\n";
    };
    EXPECT_EQ(support::lines_of('E'),
              (std::vector{refusal("dm_loop.cpp", "selfloop_init", "selfloop"),
                           refusal("dm_udp.cpp", "dm_udp_init", "dm_udp"),
                           refusal("dm_ipc.cpp", "dm_ipc_init", "dm_ipc1"),
                           refusal("dm_hdc.cpp", "dm_hdc_init", "dm_hdc0")}));
    EXPECT_EQ(support::lines_of('W').at(0),
              "[lib/msg/dm_loop.cpp:#][device monitor] [selfloop_init #] [selfloop_init #] "
              "Drv_check:intf == ((void *)0)\n");
}

TEST_F(Transports, FailedInitLeavesNothing) {
    for (const Kind& kind : kinds) {
        dm_intf_deregister(dm_get_intf(context_.get(), kind.name, DM_INTF_NAME_LEN));
        EXPECT_TRUE(context_.pass());
        const auto before = support::entries_of("/proc/self/fd");
        const auto step = [&] {
            support::skip_log_interval();
            DM_INTF_ST* made = nullptr;
            errno = 0;
            if (kind.init(context_.get(), &made) != 0) {
                EXPECT_EQ(made, nullptr);
                return;
            }
            const DM_INTF_ST copy = *made;
            dm_intf_deregister(made);
            EXPECT_TRUE(!kind.stays_open || close(copy.fd) == 0);
            EXPECT_TRUE(!kind.stays_open || copy.wfd == copy.fd || close(copy.wfd) == 0);
        };
        for (const Call call : {Call::malloc, Call::memset_s, Call::memmove_s, Call::strncpy_s})
            EXPECT_GT(support::fail_each(call, step), 0);
        EXPECT_TRUE(context_.pass());
        EXPECT_EQ(support::entries_of("/proc/self/fd"), before) << kind.name;
        EXPECT_EQ(dm_get_intf(context_.get(), kind.name, DM_INTF_NAME_LEN), nullptr);
    }
    const std::set<std::string> operations{"selfloop_init", "dm_udp_init",       "dm_udp_init_intf",
                                           "__dm_udp_open", "dm_ipc_init",       "dm_hdc_init",
                                           "__dm_hdc_open", "dm_intf_deregister"};
    EXPECT_EQ(support::operations(), operations) << "no line names a part of an operation";
}

} // namespace
