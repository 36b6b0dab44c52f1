// Command handlers: registering them, and giving them the requests.
#include "dm_msg_intf.h"

#include "base/atomic_field.h"
#include "base/memory.h"
#include "msg/dm_context.h"
#include "msg/dm_msg_private.h"

#include <memory>

namespace {

// A registered command handler.
struct CMD_REG_ST {
    DM_MSG_HANDLER handler;
    void* user_data; // the registry's own copy, or null
    int32_t user_data_len;
};

struct CmdRegDeleter {
    void operator()(CMD_REG_ST* reg) const {
        std::free(reg->user_data);
        std::free(reg);
    }
};

using OwnedCmdReg = std::unique_ptr<CMD_REG_ST, CmdRegDeleter>;

// Without a registration the default handler makes the response.
void __answer_by_default(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    const dm::Context* context = dm::context_of(intf->dm_cb);
    const DM_DATA_HANDLER default_hndl = dm::load(context->default_hndl);
    if (default_hndl == nullptr)
        return;
    DM_DATA_ST response = msg->data;
    default_hndl(&msg->data, &response);
    // The handler may have removed the interface, or destroyed the context.
    if (context->receiving == intf && !context->destroyed)
        dm_send_rsp(intf, msg->addr, msg->addr_len, &response, msg->req_id);
}

} // namespace

// All requests go to the handler that was registered first. Registrations live as long as their
// context, so nothing keeps the list from changing while the handler runs.
void __dm_cmd_handle(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    LIST_ST* list = intf->dm_cb->cmd_reg_list;
    const CMD_REG_ST* reg = nullptr;
    {
        const dm::ListLock lock(list);
        if (LIST_NODE_ST* node = dm::first_node(list); node != nullptr) {
            reg = static_cast<const CMD_REG_ST*>(list_to_item(node));
            if (reg == nullptr) {
                DM_LOG_ERROR(msg_log, "__dm_cmd_handle: cmd is null\n");
                return;
            }
        }
    }
    if (reg == nullptr)
        __answer_by_default(intf, msg);
    else if (reg->handler != nullptr)
        reg->handler(intf, msg, reg->user_data, reg->user_data_len);
}

int __dm_cmd_cmp(const void* item, const void* key) {
    return item != nullptr && key != nullptr ? 0 : -1;
}

void __dm_cmd_free(void* item) {
    if (item != nullptr)
        OwnedCmdReg(static_cast<CMD_REG_ST*>(item)).reset();
}

int dm_cmd_register(DM_CB_ST* dm_cb, DM_MSG_HANDLER handler, DM_DATA_HANDLER default_hndl,
                    const void* user_data, int size) {
    if (dm_cb == nullptr || size <= 0) {
        DM_LOG_ERROR(msg_log, "dm_cmd_register input dm_cb null!\n");
        return -EINVAL;
    }
    auto block = dm::allocate<CMD_REG_ST>();
    if (!block) {
        DM_LOG_ERROR(msg_log, "dm_cmd_register alloc mem error!\n");
        return -ENOMEM;
    }
    if (const int status = dm::zero(block.get()); status != 0) {
        DM_LOG_ERROR(msg_log, "memset_s fail: %d\n", status);
        return status;
    }
    OwnedCmdReg reg(block.release());
    reg->handler = handler;
    dm::store(dm_cb->default_hndl, default_hndl);
    if (user_data != nullptr) {
        const int status =
            __dm_copy_user_data(&reg->user_data, user_data, static_cast<size_t>(size), memcpy_s,
                                "memcpy_s error\n", DM_LOG_SITE(msg_log));
        if (status != 0)
            return status;
        reg->user_data_len = size;
    }
    // A refused append is not reported: the registration is dropped.
    if (list_append(dm_cb->cmd_reg_list, reg.get()) == 0)
        static_cast<void>(reg.release());
    return 0;
}

int dm_cmd_deregister(DM_CB_ST* dm_cb) {
    return dm_cb != nullptr ? 0 : -EINVAL;
}
