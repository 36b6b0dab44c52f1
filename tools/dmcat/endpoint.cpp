#include "endpoint.h"

#include "dm_hdc.h"
#include "udp_endpoint.h"

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

namespace dmcat {

namespace {

using Transport = Endpoint::Transport;

constexpr auto kSchemes = std::to_array<std::pair<Transport, std::string_view>>({
    {Transport::udp, "udp://"},
    {Transport::hdc, "hdc://"},
    {Transport::ipc, "ipc://"},
});

std::optional<std::uint32_t> parse_device(std::string_view text) {
    std::uint16_t device = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), device);
    if (error != std::errc() || end != text.end())
        return std::nullopt;
    return device;
}

} // namespace

std::string Endpoint::url() const {
    switch (transport) {
    case Transport::hdc:
        return "hdc://" + std::to_string(device);
    case Transport::ipc:
        return "ipc://" + std::to_string(device);
    default:
        return "udp://" + udp::endpoint_text(socket);
    }
}

DM_ADDR_ST Endpoint::address() const {
    if (transport == Transport::udp)
        return udp::to_address(socket);
    DM_ADDR_ST address{};
    if (transport == Transport::ipc) {
        address.kind = DM_KIND_IPC;
        address.family = DM_FAMILY_IPC;
        address.peer_id = device;
        return address;
    }
    DM_HDC_ADDR_ST hdc{};
    hdc.kind = DM_KIND_HDC;
    hdc.family = DM_FAMILY_HDC;
    hdc.dev_id = device;
    std::memcpy(&address, &hdc, sizeof address);
    return address;
}

std::optional<Endpoint> parse_url(const std::string& url) {
    for (const auto& [transport, scheme] : kSchemes) {
        if (!url.starts_with(scheme))
            continue;
        const std::string_view rest = std::string_view(url).substr(scheme.size());
        if (transport == Transport::udp) {
            const auto socket = udp::parse_endpoint(rest);
            return socket ? std::optional(Endpoint{transport, *socket, 0}) : std::nullopt;
        }
        const auto device = parse_device(rest);
        return device ? std::optional(Endpoint{transport, {}, *device}) : std::nullopt;
    }
    return std::nullopt;
}

std::string source_url(const DM_ADDR_ST& address) {
    if (address.kind == DM_KIND_UDP)
        return Endpoint{Transport::udp, udp::to_endpoint(address), 0}.url();
    if (address.kind == DM_KIND_IPC)
        return Endpoint{Transport::ipc, {}, address.peer_id}.url();
    DM_HDC_ADDR_ST hdc{};
    std::memcpy(&hdc, &address, sizeof hdc);
    return Endpoint{Transport::hdc, {}, hdc.src_dev}.url();
}

} // namespace dmcat
