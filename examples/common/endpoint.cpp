#include "endpoint.h"

#include "dm_hdc.h"
#include "dm_ipc.h"
#include "dm_udp.h"
#include "platform_hal_codes.h"

#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

namespace example {

namespace {

using Transport = Endpoint::Transport;

constexpr auto kSchemes = std::to_array<std::pair<Transport, std::string_view>>({
    {Transport::udp, "udp://"},
    {Transport::hdc, "hdc://"},
    {Transport::ipc, "ipc://"},
});

std::optional<std::uint16_t> parse_number(std::string_view text) {
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    if (error != std::errc() || end != text.end())
        return std::nullopt;
    return number;
}

// The addresses of the transports, as the record that they share.
template<class Address>
DM_ADDR_ST to_record(const Address& address) {
    DM_ADDR_ST record{};
    static_assert(sizeof address == sizeof record);
    std::memcpy(&record, &address, sizeof record);
    return record;
}

DM_HDC_ADDR_ST to_hdc(const DM_ADDR_ST& record) {
    DM_HDC_ADDR_ST address{};
    std::memcpy(&address, &record, sizeof address);
    return address;
}

DM_ADDR_ST udp_address(const sockaddr_in& socket) {
    DM_ADDR_ST address{};
    address.kind = DM_KIND_UDP;
    address.family = DM_FAMILY_UDP;
    std::memcpy(address.sa, &socket, sizeof socket);
    return address;
}

// A peer on this machine (127.0.0.0/8) is sent to from this machine's own address, which others
// cannot reach.
sockaddr_in socket_for(const sockaddr_in& peer) {
    const bool loopback = ntohl(peer.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(loopback ? INADDR_LOOPBACK : INADDR_ANY);
    return own;
}

} // namespace

std::optional<Endpoint> Endpoint::parse(std::string_view url) {
    for (const auto& [transport, scheme] : kSchemes) {
        if (!url.starts_with(scheme))
            continue;
        const std::string_view rest = url.substr(scheme.size());
        if (transport == Transport::udp)
            return parse_udp(rest);
        const auto device = parse_number(rest);
        return device ? std::optional(Endpoint(transport, {}, *device)) : std::nullopt;
    }
    return std::nullopt;
}

std::optional<Endpoint> Endpoint::parse_udp(std::string_view address) {
    const std::size_t colon = address.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    std::string host(address.substr(0, colon));
    if (host == "localhost")
        host = "127.0.0.1";
    const auto port = parse_number(address.substr(colon + 1));
    sockaddr_in socket{};
    if (!port || inet_pton(AF_INET, host.c_str(), &socket.sin_addr) != 1)
        return std::nullopt;
    socket.sin_family = AF_INET;
    socket.sin_port = htons(*port);
    return Endpoint(Transport::udp, socket, 0);
}

Endpoint Endpoint::hdc(std::uint16_t device) {
    return {Transport::hdc, {}, device};
}

Endpoint Endpoint::ipc(std::uint16_t device) {
    return {Transport::ipc, {}, device};
}

Endpoint Endpoint::source(const DM_ADDR_ST& address) {
    if (address.kind == DM_KIND_HDC)
        return {Transport::hdc, {}, to_hdc(address).src_dev};
    if (address.kind == DM_KIND_IPC)
        return {Transport::ipc, {}, address.peer_id};
    sockaddr_in socket{};
    std::memcpy(&socket, address.sa, sizeof socket);
    return {Transport::udp, socket, 0};
}

Endpoint Endpoint::bound(const DM_INTF_ST& intf) {
    if (intf.addr.kind == DM_KIND_HDC)
        return {Transport::hdc, {}, to_hdc(intf.addr).dev_id};
    Endpoint bound = source(intf.addr);
    socklen_t len = sizeof bound.socket_;
    if (bound.transport_ == Transport::udp)
        getsockname(intf.fd, reinterpret_cast<sockaddr*>(&bound.socket_), &len);
    return bound;
}

bool Endpoint::can_be_peer() const {
    return transport_ != Transport::udp || socket_.sin_port != 0;
}

std::string Endpoint::url() const {
    switch (transport_) {
    case Transport::hdc:
        return "hdc://" + std::to_string(device_);
    case Transport::ipc:
        return "ipc://" + std::to_string(device_);
    default:
        char host[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &socket_.sin_addr, host, sizeof host);
        return std::string("udp://") + host + ":" + std::to_string(ntohs(socket_.sin_port));
    }
}

DM_ADDR_ST Endpoint::address() const {
    if (transport_ == Transport::udp)
        return udp_address(socket_);
    if (transport_ == Transport::hdc) {
        DM_HDC_ADDR_ST address{};
        address.kind = DM_KIND_HDC;
        address.family = DM_FAMILY_HDC;
        address.dev_id = device_;
        return to_record(address);
    }
    DM_ADDR_ST address{};
    address.kind = DM_KIND_IPC;
    address.family = DM_FAMILY_IPC;
    address.peer_id = device_;
    return address;
}

DM_ADDR_ST Endpoint::own_address(Role role) const {
    if (transport_ == Transport::ipc)
        return address();
    if (transport_ == Transport::udp)
        return udp_address(role == Role::server ? socket_ : socket_for(socket_));
    DM_HDC_ADDR_ST own = to_hdc(address());
    own.role = role == Role::server ? DM_HDC_SERVER : DM_HDC_CLIENT;
    own.intf_num = device_;
    return to_record(own);
}

DM_INTF_ST& Endpoint::open(DM_CB_ST& context, Role role, DM_DATA_HANDLER timeout_hndl) const {
    DM_ADDR_ST own = own_address(role);
    DM_INTF_ST* intf = nullptr;
    const auto init = [&] {
        switch (transport_) {
        case Transport::hdc:
            return dm_hdc_init(&intf, &context, timeout_hndl, &own, nullptr, 0);
        case Transport::ipc:
            return dm_ipc_init(&intf, &context, timeout_hndl, &own, nullptr, 0);
        default:
            return dm_udp_init(&intf, &context, timeout_hndl, &own, nullptr, 0);
        }
    };
    if (const int status = init(); status != 0)
        throw std::runtime_error("cannot open " + url() + ": " + why_not_open(status));
    return *intf;
}

std::string Endpoint::why_not_open(int status) const {
    if (status == -1)
        return transport_ == Transport::ipc
                   ? "the device manager gives no channel (DM_LOG_LEVEL=warning tells why)"
                   : "no thread can be started";
    return explain(status);
}

std::string Endpoint::why_not_sent(int status) const {
    if (status == -1 && transport_ == Transport::hdc)
        return "the answer is malformed";
    return explain(status);
}

// HDC and the device manager hand on the codes of the HAL, most of which lie above errno numbers.
std::string Endpoint::explain(int status) const {
    const bool hal =
        transport_ != Transport::udp && (status == HAL_HDC_TIMEOUT || status == HAL_HDC_NOT_READY);
    return hal || status >= HAL_ERR_FIRST ? hal_strerror(status) : std::strerror(std::abs(status));
}

} // namespace example
