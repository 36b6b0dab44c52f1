#include "support/framework.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace support {

namespace {

int call(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t /*len*/) {
    (**static_cast<MsgFunction**>(user_data))(intf, msg);
    return 0;
}

Transport& transport_of(DM_INTF_ST* intf) {
    return *reinterpret_cast<Transport*>(intf->reserved);
}

// A time-out handler does not learn its interface: the tests use one at a time.
Transport* timed_transport = nullptr;

} // namespace

bool eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

Context::Context() {
    if (dm_init(&dm_cb_) != 0)
        throw std::runtime_error("dm_init");
}

// A timer may still fire in the pass that looked at the descriptors before; the next one may not.
bool Context::pass() const {
    Event fired;
    Event* pointer = &fired;
    const auto set = [](uint32_t, int32_t, void* user_data, uint32_t) {
        (*static_cast<Event**>(user_data))->set();
        return 0;
    };
    for (int i = 1; i <= 2; ++i) {
        poller_timer_add(dm_cb_->poller, 0, set, &pointer, sizeof(pointer), nullptr);
        if (!fired.wait(i))
            return false;
    }
    return true;
}

void Context::on_request(MsgFunction& handler) {
    MsgFunction* pointer = &handler;
    dm_cmd_register(dm_cb_, call, nullptr, &pointer, sizeof(pointer));
}

int send(DM_INTF_ST* intf, std::string_view text, MsgFunction* on_response, DM_ADDR_ST addr) {
    DM_DATA_ST data{static_cast<uint16_t>(text.size()), const_cast<char*>(text.data())};
    return dm_send_req(intf, &addr, sizeof(addr), &data, on_response != nullptr ? call : nullptr,
                       &on_response, sizeof(on_response));
}

std::string text_of(const DM_MSG_ST* msg) {
    return {static_cast<const char*>(msg->data.data), msg->data.data_len};
}

int receive(DM_INTF_ST* intf, std::string_view bytes, DM_MSG_ST* msg, int16_t events) {
    int fds[2];
    if (pipe2(fds, O_NONBLOCK) != 0 || write(fds[1], bytes.data(), bytes.size()) < 0)
        throw std::runtime_error("pipe");
    const int status = intf->recv_msg(intf, fds[0], events, msg);
    close(fds[0]);
    close(fds[1]);
    return status;
}

int answer(DM_INTF_ST* intf, DM_MSG_ST* msg, std::string_view text) {
    DM_DATA_ST data{static_cast<uint16_t>(text.size()), const_cast<char*>(text.data())};
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &data, msg->req_id);
}

Transport::Transport() {
    if (pipe(fds) != 0)
        throw std::runtime_error("pipe");
}

Transport::~Transport() {
    close(fds[0]);
    close(fds[1]);
}

void Transport::wake() const {
    if (write(fds[1], "", 1) != 1)
        throw std::runtime_error("write");
}

DM_INTF_ST* Transport::make(DM_CB_ST* dm_cb, const char* name) {
    auto* intf = static_cast<DM_INTF_ST*>(std::calloc(1, sizeof(DM_INTF_ST)));
    std::strncpy(intf->name, name, sizeof(intf->name) - 1);
    intf->reserved = reinterpret_cast<uintptr_t>(this);
    intf->fd = fds[0];
    intf->wfd = -1;
    intf->retry_cnt = retry_cnt;
    intf->timeout_ms = timeout_ms;
    intf->recv_msg = [](DM_INTF_ST* self, int32_t, int16_t, DM_MSG_ST* msg) {
        return transport_of(self).recv(self, msg);
    };
    intf->send_msg = [](DM_INTF_ST* self, uint32_t type, DM_ADDR_ST*, uint32_t, DM_DATA_ST*,
                        uint64_t req_id) { return transport_of(self).send(self, type, req_id); };
    intf->close = [](DM_INTF_ST* self) {
        ++transport_of(self).closed;
        return 0;
    };
    if (timeout) {
        timed_transport = this;
        intf->timeout_hndl = [](DM_DATA_ST*, DM_DATA_ST* response) {
            static char text[] = "too late";
            *response = {sizeof(text) - 1, text};
            timed_transport->timeout();
            return 0;
        };
    }
    intf->dm_cb = dm_cb;
    return intf;
}

DM_INTF_ST* Transport::add(const Context& context, const char* name) {
    DM_INTF_ST* intf = make(context.get(), name);
    if (dm_intf_register(context.get(), intf) != 0)
        throw std::runtime_error("dm_intf_register");
    return intf;
}

} // namespace support
