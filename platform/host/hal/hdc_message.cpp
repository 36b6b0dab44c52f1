// HDC messages and their buffers.
#include "hal/hdc.h"
#include "platform_hal_codes.h"

#include <climits>
#include <new>
#include <numeric>

namespace {

size_t __length(std::span<const iovec> buffers) {
    return std::accumulate(buffers.begin(), buffers.end(), size_t{0},
                           [](size_t sum, const iovec& buffer) { return sum + buffer.iov_len; });
}

} // namespace

int32_t drvHdcGetCapacity(HDC_CAPACITY_ST* capacity) {
    if (capacity == nullptr)
        return HAL_ERR_INVALID_ARGUMENT;
    *capacity = {0, hal::kMaxMessage};
    return 0;
}

int32_t drvHdcAllocMsg(HDC_SESSION session, HAL_HDC_MSG** msg, int32_t count) try {
    if (msg == nullptr || count <= 0 || count > IOV_MAX)
        return HAL_ERR_INVALID_ARGUMENT;
    std::shared_ptr<hal::Session> found;
    if (const int32_t code = hal::SessionTable::only().find(session, found); code != 0)
        return code;
    *msg = std::make_unique<HAL_HDC_MSG>(static_cast<size_t>(count)).release();
    return 0;
} catch (const std::bad_alloc&) {
    return HAL_ERR_NO_MEMORY;
}

int32_t drvHdcAddMsgBuffer(HAL_HDC_MSG* msg, char* buffer, int32_t length) {
    if (msg == nullptr || buffer == nullptr || length <= 0)
        return HAL_ERR_INVALID_ARGUMENT;
    if (msg->used == msg->room.size())
        return HAL_ERR_TOO_MANY;
    const auto size = static_cast<size_t>(length);
    if (__length(msg->buffers()) + size > hal::kMaxMessage)
        return HAL_ERR_TOO_LONG;
    msg->room[msg->used++] = {buffer, size};
    return 0;
}

int32_t drvHdcGetMsgBuffer(HAL_HDC_MSG* msg, int32_t index, char** buffer, int32_t* length) {
    if (msg == nullptr || buffer == nullptr || length == nullptr || index < 0 ||
        static_cast<size_t>(index) >= msg->used)
        return HAL_ERR_INVALID_ARGUMENT;
    const iovec& found = msg->room[static_cast<size_t>(index)];
    *buffer = static_cast<char*>(found.iov_base);
    *length = static_cast<int32_t>(found.iov_len);
    return 0;
}

int32_t drvHdcFreeMsg(HAL_HDC_MSG* msg) {
    if (msg == nullptr)
        return HAL_ERR_INVALID_ARGUMENT;
    delete msg;
    return 0;
}
