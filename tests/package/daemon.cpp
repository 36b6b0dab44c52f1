// A daemon in C++ against the installed library and the host layer beside it: echoes what comes to
// a port that the system chooses, which it prints, until SIGTERM.
#include <dm_msg_intf.h>
#include <dm_udp.h>
#include <platform_bounds.h>

#include <arpa/inet.h>

#include <array>
#include <csignal>
#include <iostream>
#include <memory>

namespace {

struct Destroy {
    void operator()(DM_CB_ST* context) const { dm_destroy(context); }
};

using Context = std::unique_ptr<DM_CB_ST, Destroy>;

Context make_context() {
    DM_CB_ST* context = nullptr;
    return Context(dm_init(&context) == 0 ? context : nullptr);
}

int on_request(DM_INTF_ST* intf, DM_MSG_ST* msg, void* /*user_data*/, int32_t /*user_data_len*/) {
    // The copy goes through the host layer, which refuses a length that the peer has made up.
    std::array<char, DM_MAX_DATA_LEN> copy{};
    if (memcpy_s(copy.data(), copy.size(), msg->data.data, msg->data.data_len) != 0)
        return 0;
    DM_DATA_ST answer{msg->data.data_len, copy.data()};
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &answer, msg->req_id);
}

bool open_udp(DM_CB_ST* context) {
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    DM_ADDR_ST address{};
    address.kind = DM_KIND_UDP;
    address.family = DM_FAMILY_UDP;
    if (memcpy_s(address.sa, sizeof address.sa, &own, sizeof own) != 0)
        return false;
    DM_INTF_ST* intf = nullptr;
    socklen_t len = sizeof own;
    if (dm_udp_init(&intf, context, nullptr, &address, nullptr, 0) != 0 ||
        getsockname(intf->fd, reinterpret_cast<sockaddr*>(&own), &len) != 0)
        return false;
    std::cout << ntohs(own.sin_port) << std::endl;
    return true;
}

} // namespace

int main() {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);

    const Context context = make_context();
    if (!context || dm_cmd_register(context.get(), on_request, nullptr, nullptr, 1) != 0 ||
        !open_udp(context.get()))
        return 1;
    int signal = 0;
    return sigwait(&end, &signal);
}
