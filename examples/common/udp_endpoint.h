// IPv4 endpoints of the UDP interface: as users write them, as the system has them (ip(7)) and as
// the library takes them.
#ifndef EXAMPLES_UDP_ENDPOINT_H
#define EXAMPLES_UDP_ENDPOINT_H

#include "dm_udp.h"

#include <netinet/in.h>
#include <optional>
#include <string>
#include <string_view>

namespace udp {

// Reads "ADDR:PORT", where ADDR is a dotted IPv4 address or "localhost" and PORT is 0 to 65535.
std::optional<sockaddr_in> parse_endpoint(std::string_view text);

// Writes "ADDR:PORT".
std::string endpoint_text(const sockaddr_in& endpoint);

// True for 127.0.0.0/8.
bool is_loopback(const sockaddr_in& endpoint);

// The record that dm_udp_init() binds and dm_send_req() sends to.
DM_ADDR_ST to_address(const sockaddr_in& endpoint);

// The endpoint in a record of a UDP interface, as messages carry it.
sockaddr_in to_endpoint(const DM_ADDR_ST& address);

// Where an interface is really bound: it tells the port that the system chose for port 0.
sockaddr_in bound_endpoint(const DM_INTF_ST& intf);

} // namespace udp

#endif
