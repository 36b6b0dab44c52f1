#include "support/scripted_hal.h"

#include "ipmi_v_task.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

struct HAL_HDC_MSG {
    std::string bytes;
};

using support::hal;

// A call that has its effect and fails when it is to.
#define HAL_CALL(function, name, parameters, effect) \
    int32_t function parameters {                    \
        effect;                                      \
        return hal.call(name);                       \
    }
HAL_CALL(drvHdcServerDestroy, "destroy", (HDC_SERVER), )
HAL_CALL(drvHdcClientDestroy, "destroy", (HDC_CLIENT), )
HAL_CALL(drvHdcSessionClose, "close", (HDC_SESSION), )
HAL_CALL(drvHdcSetSessionReference, "ref", (HDC_SESSION), )
HAL_CALL(drvHdcClientCreate, "client", (HDC_CLIENT*, int32_t, int32_t, int32_t), )
HAL_CALL(drvHdcGetCapacity, "capacity", (HDC_CAPACITY_ST * capacity), capacity->max_len = 8192)
HAL_CALL(drvHdcServerCreate, "create", (int32_t, int32_t, HDC_SERVER* made), *made = hal.server)
HAL_CALL(drvHdcSessionConnect, "connect", (int32_t, int32_t id, HDC_CLIENT, HDC_SESSION* made),
         hal.device_id = static_cast<uint32_t>(id);
         *made = 8)
HAL_CALL(drvHdcAddMsgBuffer, "add", (HAL_HDC_MSG * msg, char* buffer, int32_t length),
         msg->bytes.assign(buffer, static_cast<size_t>(length)))
HAL_CALL(drvHdcGetMsgBuffer, "get", (HAL_HDC_MSG * msg, int32_t, char** buffer, int32_t* length),
         *buffer = msg->bytes.data();
         *length = static_cast<int32_t>(msg->bytes.size()))
HAL_CALL(drvHdcFreeMsg, "free", (HAL_HDC_MSG * msg), delete msg)
HAL_CALL(halHdcSend, "send", (HDC_SESSION, HAL_HDC_MSG* msg, uint64_t, uint32_t),
         hal.sent = msg->bytes)
HAL_CALL(halHdcGetSessionAttr, "attr", (HDC_SESSION, int32_t attribute, int32_t* value),
         *value = attribute == HAL_HDC_ATTR_UID ? 1001 : hal.run_env)
HAL_CALL(devdrv_imu_dmp_msg_send, "dmp_send",
         (int32_t, uint32_t device_id, const void*, uint8_t length), hal.device_id = device_id;
         hal.length = length)
HAL_CALL(devdrv_imu_dmp_msg_recv, "dmp_recv",
         (int32_t, uint32_t, void* buffer, uint32_t capacity, uint8_t* length),
         hal.length = static_cast<int>(capacity);
         std::copy_n("hello", *length = 5, static_cast<char*>(buffer)))
HAL_CALL(usleep, "usleep", (useconds_t), )

int32_t devdrv_open_device_manager(void) {
    return eventfd(0, 0);
}
unsigned sleep(unsigned) {
    return static_cast<unsigned>(hal.call("sleep"));
}
uint32_t vos_task_delay(uint64_t) {
    return static_cast<uint32_t>(hal.call("delay"));
}
int32_t drvHdcSessionAccept(HDC_SERVER server, HDC_SESSION* session) {
    hal.call("accept");
    std::unique_lock guard(hal.lock);
    hal.changed.wait(guard, [&] { return !hal.peers.empty() || hal.server != server; });
    if (hal.server != server) {
        guard.unlock();
        pthread_exit(nullptr);
    }
    *session = hal.peers.back();
    hal.peers.pop_back();
    return 0;
}
int32_t drvHdcAllocMsg(HDC_SESSION, HAL_HDC_MSG** msg, int32_t) {
    const int code = hal.call("alloc");
    *msg = code == 0 ? new HAL_HDC_MSG : nullptr;
    return code;
}
int32_t halHdcRecv(HDC_SESSION session, HAL_HDC_MSG* msg, int32_t, uint64_t, int32_t*, uint32_t) {
    if (const int code = hal.call("recv"); code != 0)
        return code;
    std::unique_lock guard(hal.lock);
    hal.changed.wait(guard, [&] { return hal.inbox.contains(session); });
    msg->bytes = hal.inbox.extract(session).mapped();
    return 0;
}
