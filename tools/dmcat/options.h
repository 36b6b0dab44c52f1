// dmcat's command line.
#ifndef DMCAT_OPTIONS_H
#define DMCAT_OPTIONS_H

#include "dmond_protocol.h"
#include "endpoint.h"

#include <cstdint>
#include <optional>
#include <string>

namespace dmcat {

struct Options {
    enum class Smbus { no, send, receive };

    Smbus smbus = Smbus::no; // otherwise only the payload counts
    bool listen = false;
    example::Endpoint endpoint; // the peer, or where to listen
    std::string url;            // the same, for messages

    std::optional<dmond::Command> command; // none: the payload is the whole message
    std::string payload;

    bool series = false;     // reports a reply a line, and a summary
    std::uint32_t count = 1; // 0: until interrupted
    std::uint32_t interval_ms = 1000;
    std::uint32_t timeout_ms = 1000;
    std::int32_t retry = 2;
    bool json = false;
};

// Gives none when the line asked for the help or the version, which is printed then. Throws
// UsageError for a wrong line, std::system_error for a payload that cannot be read and for help
// that cannot be written.
std::optional<Options> parse_options(int argc, char** argv);

} // namespace dmcat

#endif
