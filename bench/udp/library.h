// The library: two contexts, each with its poll thread.
#pragma once

#include "support/requester.h"
#include "udp/works.h"

#include <optional>

namespace udp {

class Library : public bench::System {
public:
    explicit Library(int depth) {
        require(dm_init(&server_) == 0 && dm_init(&client_) == 0, "dm_init");
        require(dm_cmd_register(server_, bench::Requester::echo, nullptr, nullptr, 1) == 0,
                "dm_cmd_register");
        const DM_INTF_ST* service = open(server_);
        requester_.emplace(depth, open(client_), library_address(address_of(service->fd)),
                           DM_UDP_ADDR_LEN);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() override {
        dm_destroy(client_);
        dm_destroy(server_);
    }

    void run(int operations) override { requester_->run(operations); }

private:
    static DM_ADDR_ST library_address(const sockaddr_in& address) {
        DM_ADDR_ST made{};
        made.kind = DM_KIND_UDP;
        made.family = DM_FAMILY_UDP;
        std::memcpy(made.sa, &address, sizeof(address));
        return made;
    }
    static DM_INTF_ST* open(DM_CB_ST* context) {
        DM_INTF_ST* intf = nullptr;
        DM_ADDR_ST any = library_address(loopback());
        require(dm_udp_init(&intf, context, nullptr, &any, nullptr, 0) == 0, "dm_udp_init");
        make_room(intf->fd);
        return intf;
    }

    DM_CB_ST* server_ = nullptr;
    DM_CB_ST* client_ = nullptr;
    std::optional<bench::Requester> requester_;
};

} // namespace udp
