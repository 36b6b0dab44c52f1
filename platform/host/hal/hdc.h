// What the files of the HDC channel share.
#ifndef HAL_HDC_H
#define HAL_HDC_H

#include "hal/sessions.h"
#include "platform_hal.h"

#include <sys/uio.h>

#include <array>
#include <cstdio>
#include <memory>
#include <vector>

namespace hal {

// Most bytes in one message: the library's longest frame has 4126.
constexpr uint32_t kMaxMessage = 8192;

using FileName = std::array<char, 32>;

// @return the name of a server's socket.
inline FileName socket_name(int32_t device_id) {
    FileName name = {};
    std::snprintf(name.data(), name.size(), "hdc-%d", device_id);
    return name;
}

} // namespace hal

struct HAL_HDC_MSG {
    size_t max_buffers = 0;
    std::vector<iovec> buffers;
    std::unique_ptr<char[]> received; // what the only buffer refers to after a receive
};

#endif
