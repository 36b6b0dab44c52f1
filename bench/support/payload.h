// What all systems carry and check: 64 bytes, which begin with their request's number.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

namespace bench {

using Payload = std::array<char, 64>;

inline Payload payload_of(uint64_t request) {
    Payload payload{};
    std::memcpy(payload.data(), &request, sizeof(request));
    return payload;
}

inline bool is_payload_of(uint64_t request, const void* data, size_t size) {
    return size == sizeof(Payload) && std::memcmp(data, &request, sizeof(request)) == 0;
}

} // namespace bench
