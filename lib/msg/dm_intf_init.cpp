#include "msg/dm_intf_init.h"

#include "base/memory.h"
#include "msg/dm_msg_private.h"
#include "platform_bounds.h"

int __dm_copy_intf_name(const dm::LogSite& site, char (&copy)[DM_INTF_NAME_LEN], const char* name) {
    const int status = strncpy_s(copy, sizeof(copy), name, DM_INTF_NAME_LEN - 1);
    copy[DM_INTF_NAME_LEN - 1] = '\0';
    if (status != 0)
        DM_LOG_ERROR_AT(site, "strncpy_s error\n");
    return status;
}

bool __dm_is_duplicate(const dm::LogSite& site, DM_CB_ST* dm_cb, const char* name) {
    if (dm_get_intf(dm_cb, name, DM_INTF_NAME_LEN) == nullptr)
        return false;
    DM_LOG_ERROR_AT(site, "duplicate interface [%s]\r\n", name);
    return true;
}

int __dm_begin_record(const dm::LogSite& site, DM_INTF_ST* intf, const char* name,
                      const DM_ADDR_ST* addr) {
    if (const int status = dm::zero(intf); status != 0) {
        DM_LOG_ERROR_AT(site, "memset_s fail: %d\n", status);
        return status;
    }
    if (const int status = __dm_copy_intf_name(site, intf->name, name); status != 0)
        return status;
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
