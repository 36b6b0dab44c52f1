// An end of a transport, as users write it and as the library takes it: udp://ADDR:PORT, hdc://N or
// ipc://N. It is a peer, or where a server listens.
#ifndef EXAMPLES_ENDPOINT_H
#define EXAMPLES_ENDPOINT_H

#include "dm_msg_intf.h"

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>

namespace example {

class Endpoint {
public:
    enum class Transport { udp, hdc, ipc };
    enum class Role { client, server };

    // Gives none for what is no such URL. ADDR is a dotted IPv4 address or "localhost", PORT and N
    // are numbers from 0 to 65535.
    static std::optional<Endpoint> parse(std::string_view url);

    // The parts of a URL alone: "ADDR:PORT", and the device ids of HDC and of the device manager's
    // channel.
    static std::optional<Endpoint> parse_udp(std::string_view address);
    static Endpoint hdc(std::uint16_t device);
    static Endpoint ipc(std::uint16_t device);

    // The source of a received message.
    static Endpoint source(const DM_ADDR_ST& address);

    // Where an interface is really bound: it tells the port that the system chose for port 0.
    static Endpoint bound(const DM_INTF_ST& intf);

    // udp://0.0.0.0:0, which is nobody's.
    Endpoint() = default;

    Transport transport() const { return transport_; }

    // False for the port 0, which only a server can take.
    bool can_be_peer() const;

    std::string url() const;

    // The address that requests to this peer go to.
    DM_ADDR_ST address() const;

    // Opens an interface in the context, to which it belongs: a server that listens here, or a
    // client of this peer. `timeout_hndl` is dm_udp_init()'s and the others'. A server of HDC waits
    // for two minutes while its device id is taken. Throws std::runtime_error, which tells the URL
    // and the reason.
    DM_INTF_ST& open(DM_CB_ST& context, Role role, DM_DATA_HANDLER timeout_hndl) const;

    // What a result of an interface's send_msg means that is not 0.
    std::string why_not_sent(int status) const;

private:
    Endpoint(Transport transport, const sockaddr_in& socket, std::uint32_t device)
        : transport_(transport), socket_(socket), device_(device) {}

    DM_ADDR_ST own_address(Role role) const;
    std::string why_not_open(int status) const;
    std::string explain(int status) const;

    Transport transport_ = Transport::udp;
    sockaddr_in socket_{};     // of udp, ip(7)
    std::uint32_t device_ = 0; // of hdc and ipc
};

} // namespace example

#endif
