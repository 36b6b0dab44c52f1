// A context with one interface of a benchmark's own, which is no transport: its slots are all that
// it has.
#pragma once

#include "dm_msg_intf.h"
#include "support/require.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace bench {

class Context {
public:
    Context() { require(dm_init(&dm_cb_) == 0, "dm_init"); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { destroy(); }

    void destroy() { dm_destroy(std::exchange(dm_cb_, nullptr)); }

    POLLER_ST* poller() const { return dm_cb_->poller; }

    // Registers an interface. Its slots find `owner` again with owner_of().
    DM_INTF_ST* add_interface(int fd, void* owner, DM_RECV_MSG recv_msg, DM_SEND_MSG send_msg,
                              DM_CLOSE close = nullptr) {
        constexpr uint32_t never_ms = 100'000'000;
        auto* intf = static_cast<DM_INTF_ST*>(std::calloc(1, sizeof(DM_INTF_ST)));
        require(intf != nullptr, "calloc");
        std::strcpy(intf->name, "bench");
        intf->reserved = reinterpret_cast<uintptr_t>(owner);
        intf->fd = fd;
        intf->timeout_ms = never_ms;
        intf->recv_msg = recv_msg;
        intf->send_msg = send_msg;
        intf->close = close;
        intf->dm_cb = dm_cb_;
        require(dm_intf_register(dm_cb_, intf) == 0, "dm_intf_register");
        return intf;
    }

private:
    DM_CB_ST* dm_cb_ = nullptr;
};

template<class Owner>
Owner& owner_of(const DM_INTF_ST* intf) {
    return *reinterpret_cast<Owner*>(intf->reserved);
}

// Sends a request of 64 bytes. It is answered by `on_answer`, if ever.
inline void send_request(DM_INTF_ST* intf, DM_MSG_HANDLER on_answer) {
    static char payload[64];
    DM_DATA_ST data{sizeof(payload), payload};
    DM_ADDR_ST addr{};
    require(dm_send_req(intf, &addr, sizeof(addr), &data, on_answer, nullptr, 1) == 0,
            "dm_send_req");
}

} // namespace bench
