// Where a peer is, or where to listen: udp://ADDR:PORT, hdc://DEVICE or ipc://DEVICE.
#ifndef DMCAT_ENDPOINT_H
#define DMCAT_ENDPOINT_H

#include "dm_msg_intf.h"

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>

namespace dmcat {

struct Endpoint {
    enum class Transport { udp, hdc, ipc };

    Transport transport = Transport::udp;
    sockaddr_in socket{};     // of udp
    std::uint32_t device = 0; // of hdc and ipc

    std::string url() const;
    // The address that requests to this peer go to.
    DM_ADDR_ST address() const;
};

// Gives none for what is no such URL. The device is a number up to 65535.
std::optional<Endpoint> parse_url(const std::string& url);

// The URL of a message's source.
std::string source_url(const DM_ADDR_ST& address);

} // namespace dmcat

#endif
