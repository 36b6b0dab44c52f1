#include "udp_endpoint.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <sys/socket.h>

namespace udp {

namespace {

std::optional<in_addr> parse_host(const std::string& text) {
    in_addr host{};
    if (inet_pton(AF_INET, text == "localhost" ? "127.0.0.1" : text.c_str(), &host) != 1)
        return std::nullopt;
    return host;
}

std::optional<std::uint16_t> parse_port(std::string_view text) {
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return port;
}

} // namespace

std::optional<sockaddr_in> parse_endpoint(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    const auto host = parse_host(std::string(text.substr(0, colon)));
    const auto port = parse_port(text.substr(colon + 1));
    if (!host || !port)
        return std::nullopt;
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    endpoint.sin_addr = *host;
    endpoint.sin_port = htons(*port);
    return endpoint;
}

std::string endpoint_text(const sockaddr_in& endpoint) {
    char host[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &endpoint.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(endpoint.sin_port));
}

bool is_loopback(const sockaddr_in& endpoint) {
    return ntohl(endpoint.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

DM_ADDR_ST to_address(const sockaddr_in& endpoint) {
    DM_ADDR_ST address{};
    address.kind = DM_KIND_UDP;
    address.family = DM_FAMILY_UDP;
    std::memcpy(address.sa, &endpoint, sizeof endpoint);
    return address;
}

sockaddr_in to_endpoint(const DM_ADDR_ST& address) {
    sockaddr_in endpoint{};
    std::memcpy(&endpoint, address.sa, sizeof endpoint);
    return endpoint;
}

sockaddr_in bound_endpoint(const DM_INTF_ST& intf) {
    sockaddr_in endpoint{};
    socklen_t len = sizeof endpoint;
    getsockname(intf.fd, reinterpret_cast<sockaddr*>(&endpoint), &len);
    return endpoint;
}

} // namespace udp
