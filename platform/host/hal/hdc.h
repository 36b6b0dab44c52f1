// What the files of the HDC channel share.
#ifndef HAL_HDC_H
#define HAL_HDC_H

#include "hal/descriptor.h"
#include "hal/handles.h"
#include "platform_hal.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <memory>
#include <utility>
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

struct Client {
    int32_t max_sessions = 0;
    std::atomic<int32_t> sessions = 0;
};

// One connection. A session that was accepted has no client.
struct Session {
    explicit Session(std::shared_ptr<Client> of) : client(std::move(of)) {
        if (client)
            ++client->sessions;
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (client)
            --client->sessions;
    }

    const std::shared_ptr<Client> client;
    Descriptor socket; // none once it was released
    uid_t peer_uid = 0;
};

using Sessions = Handles<Session>;

// Gives back the descriptors of accepted sessions whose peer has gone and that hold nothing to
// read. Their handles stay open: the library closes only sessions that it answers, so the requests
// that it drops would use up all descriptors.
void release_gone_sessions();

} // namespace hal

struct HAL_HDC_MSG {
    size_t max_buffers = 0;
    std::vector<iovec> buffers;
    std::unique_ptr<char[]> received; // what the only buffer refers to after a receive
};

#endif
