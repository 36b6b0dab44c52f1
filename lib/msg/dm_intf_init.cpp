#include "msg/dm_intf_init.h"

#include "base/log.h"

namespace {

constinit dm::SubjectLog init_log;

} // namespace

bool __dm_is_duplicate(DM_CB_ST* dm_cb, const char* name) {
    if (dm_get_intf(dm_cb, name, DM_INTF_NAME_LEN) == nullptr)
        return false;
    DM_LOG_ERROR(init_log, "duplicate interface [%s]\r\n", name);
    return true;
}

int __dm_begin_record(DM_INTF_ST* intf, const char* name, const DM_ADDR_ST* addr) {
    if (const int status = dm::zero(intf); status != 0) {
        DM_LOG_ERROR(init_log, "memset_s fail: %d\n", status);
        return status;
    }
    if (const int status = __dm_copy_intf_name(intf->name, name); status != 0) {
        DM_LOG_ERROR(init_log, "strncpy_s error\n");
        return status;
    }
    intf->addr = *addr;
    return 0;
}

void __dm_fill_slots(DM_INTF_ST* intf, DM_RECV_MSG recv_msg, DM_SEND_MSG send_msg,
                     DM_SEND_MSG_EX send_msg_ex, DM_CLOSE close) {
    intf->recv_msg = recv_msg;
    intf->send_msg = send_msg;
    intf->send_msg_ex = send_msg_ex;
    intf->set_retry = __dm_set_retry;
    intf->get_retry = __dm_get_retry;
    intf->close = close;
}

int __dm_register_record(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST>& intf, DM_INTF_ST** out,
                         IntfHolder* holder) {
    DM_INTF_ST* record = intf.release();
    const int status = __dm_intf_register(dm_cb, record, holder);
    if (*holder == IntfHolder::caller)
        intf.reset(record);
    if (status == 0 && out != nullptr)
        *out = record;
    return status;
}

int __dm_register_or_close(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST> intf, DM_INTF_ST** out) {
    IntfHolder holder{};
    const int status = __dm_register_record(dm_cb, intf, out, &holder);
    if (intf != nullptr)
        intf->close(intf.get());
    return status;
}
