#pragma once

#include "hdc/works.h"
#include "support/requester.h"

#include "dm_hdc.h"

namespace hdc {

// A server and a client, each with a context of its own as in two processes. A server's thread
// waits for sessions until the process ends, and no interface accepts any more once one has been
// closed: so the repetitions share them.
class Library : public bench::System {
public:
    // The caller's own thread makes the whole exchange.
    void run(int operations) override {
        for (int i = 0; i < operations; ++i)
            requester().run(1);
    }

private:
    static DM_ADDR_ST address(uint32_t role, uint32_t number) {
        DM_HDC_ADDR_ST hdc{};
        hdc.kind = DM_KIND_HDC;
        hdc.family = DM_FAMILY_HDC;
        hdc.role = role;
        hdc.intf_num = number;
        DM_ADDR_ST made{};
        std::memcpy(&made, &hdc, sizeof(made));
        return made;
    }
    static DM_INTF_ST* open(DM_CB_ST* context, DM_ADDR_ST own) {
        DM_INTF_ST* intf = nullptr;
        require(dm_hdc_init(&intf, context, nullptr, &own, nullptr, 0) == 0, "dm_hdc_init");
        return intf;
    }
    static bench::Requester* connect() {
        Directory::path();
        DM_CB_ST* server = nullptr;
        DM_CB_ST* client = nullptr;
        require(dm_init(&server) == 0 && dm_init(&client) == 0, "dm_init");
        require(dm_cmd_register(server, bench::Requester::echo, nullptr, nullptr, 1) == 0,
                "dm_cmd_register");
        open(server, address(DM_HDC_SERVER, 0));
        return new bench::Requester(1, open(client, address(DM_HDC_CLIENT, 1)),
                                    address(DM_HDC_CLIENT, 0), DM_HDC_ADDR_LEN);
    }
    static bench::Requester& requester() {
        static bench::Requester& only = *connect();
        return only;
    }
};

} // namespace hdc
