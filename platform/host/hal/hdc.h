// What the files of the HDC channel share.
#ifndef HAL_HDC_H
#define HAL_HDC_H

#include "hal/sessions.h"
#include "platform_hal.h"

#include <sys/uio.h>

#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <span>

namespace hal {

// Most bytes in one message: the library's longest frame has 4126.
constexpr uint32_t kMaxMessage = 8192;

using FileName = std::array<char, 32>;

// @return the name of a server's socket.
inline FileName socket_name(int32_t device_id) {
    FileName name = {"hdc-"};
    std::to_chars(name.data() + std::strlen(name.data()), name.data() + name.size(), device_id);
    return name;
}

} // namespace hal

struct HAL_HDC_MSG {
    explicit HAL_HDC_MSG(size_t most)
        : several(most > 1 ? std::make_unique<iovec[]>(most) : nullptr),
          room(several ? several.get() : &single, most) {}
    HAL_HDC_MSG(const HAL_HDC_MSG&) = delete;
    HAL_HDC_MSG& operator=(const HAL_HDC_MSG&) = delete;

    std::span<iovec> buffers() const { return room.first(used); }

    iovec single = {};                // the room of a message for one buffer
    std::unique_ptr<iovec[]> several; // that of one for more
    const std::span<iovec> room;
    size_t used = 0;
    std::unique_ptr<char[]> received; // what the only buffer refers to after a receive
};

#endif
