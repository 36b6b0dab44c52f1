#include "dm_msg_intf.h"

#include "base/atomic_field.h"
#include "base/cancellation.h"
#include "base/log.h"
#include "base/memory.h"
#include "dm_loop.h"
#include "list/dm_list_walk.h"
#include "msg/dm_context.h"
#include "msg/dm_msg_private.h"
#include "platform_adapter.h"
#include "poller/dm_poller_private.h"

#include <poll.h>

#include <cerrno>
#include <ctime>
#include <mutex>
#include <new>
#include <utility>

uint32_t g_dev_mon_debug = 5;

constinit dm::SubjectLog msg_log;

namespace dm {

// A record that is out of the interface list but for the reference on its node.
struct Retired {
    LIST_ITER_ST iter;
    Retired* next;
};

} // namespace dm

namespace {

using dm::CallbackScope;
using dm::Context;
using dm::ListWalk;
using dm::Retired;

constexpr uint32_t kDestroyWaitMs = 100;

// How far messages of one interface are taken in a row before the others and the timers have their
// turn: so many, and not beyond a tick of the coarse clock, for a handler may be slow.
constexpr int kMostInARow = 16;

// ---- the interface list ----

int __dm_intf_cmp(const void* item, const void* key) {
    if (item == nullptr || key == nullptr)
        return -EINVAL;
    return std::strncmp(static_cast<const char*>(item), static_cast<const char*>(key),
                        DM_INTF_NAME_LEN);
}

// Runs the close slot, once.
void __close(DM_INTF_ST* intf) {
    if (const DM_CLOSE close = std::exchange(intf->close, nullptr); close != nullptr)
        close(intf);
}

void __dm_intf_free(void* item) {
    if (item == nullptr)
        return;
    const dm::Owned<DM_INTF_ST> intf(static_cast<DM_INTF_ST*>(item));
    __close(intf.get());
}

// ---- receiving ----

void __dm_msg_dispatch(Context* context, DM_INTF_ST* intf, DM_MSG_ST* msg) {
    if (msg->type == DM_MSG_REQ)
        __dm_cmd_handle(intf, msg);
    else if (msg->type == DM_MSG_RSP)
        context->requests.answer(intf, msg);
}

// The interface that receives, as handlers see it.
class Receiving {
public:
    Receiving(Context* context, const DM_INTF_ST* intf) : context_(context) {
        context_->receiving = intf;
    }
    Receiving(const Receiving&) = delete;
    Receiving& operator=(const Receiving&) = delete;
    ~Receiving() { context_->receiving = nullptr; }

private:
    Context* context_;
};

// Takes a message and gives it to who waits for it. False when there was none.
bool __receive(Context* context, DM_INTF_ST* intf, int fd, int events) {
    const auto data = dm::allocate<uint8_t>(DM_MAX_DATA_LEN);
    if (!DM_CHECK_IN("__dm_recv", data != nullptr, "(data != ((void *)0))"))
        return false;
    if (dm::zero(data.get(), DM_MAX_DATA_LEN) != 0)
        return false;
    DM_ADDR_ST addr{};
    DM_MSG_ST msg{};
    msg.addr = &addr;
    msg.addr_len = sizeof(addr);
    msg.data = {DM_MAX_DATA_LEN, data.get()};
    if (intf->recv_msg(intf, fd, static_cast<int16_t>(events), &msg) != 0 || context->destroyed)
        return false;
    __dm_msg_dispatch(context, intf, &msg);
    return true;
}

// The ticks of the clock that costs next to nothing to read.
timespec __tick() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now;
}

// True when the interface, of which a message was just taken, is to be read again.
bool __is_read_on(Context* context, DM_INTF_ST* intf, DM_HAS_NEXT has_next, const timespec& begin) {
    if (has_next == nullptr || context->receiving != intf || context->destroyed ||
        !__poller_callback_goes_on(context->poller))
        return false;
    const timespec now = __tick();
    return now.tv_sec == begin.tv_sec && now.tv_nsec == begin.tv_nsec && has_next(intf);
}

bool __on_pass(void* arg) {
    auto* context = static_cast<Context*>(arg);
    const CallbackScope scope(context);
    return context->requests.hand_over();
}

// ---- removing an interface ----

// Keeps a record that a callback may still stand in until that has ended. Without memory for that
// it stays until the context goes.
void __release_later(Context* context, ListWalk& walk) {
    const LIST_ITER_ST iter = walk.release();
    if (auto retired = dm::allocate<Retired>(); retired != nullptr) {
        *retired = {iter, context->retired};
        context->retired = retired.release();
    }
}

// Ends what refers to the interface that the walk stands on and that is not watched any more, and
// closes it. The record lives until the walk ends: the node is marked and no longer found, but
// stays.
void __retire(Context* context, ListWalk& walk, DM_INTF_ST* intf) {
    context->requests.end_those_of(intf);
    const bool is_poll_thread = __poller_is_current(context->poller);
    if (!is_poll_thread)
        context->requests.await_service_of(intf);
    else if (context->receiving == intf)
        context->receiving = nullptr;
    __close(intf);
    if (is_poll_thread && context->callbacks != 0)
        __release_later(context, walk);
}

// Removes the first interface of the record's name, which may be an older twin of it. The record
// itself is not watched any more.
void __retire_first(Context* context, const DM_INTF_ST* record) {
    ListWalk walk(context->intf_list);
    DM_INTF_ST* intf = nullptr;
    {
        const std::lock_guard lock(context->registry);
        intf = dm::find_intf(walk, record->name);
        list_remove(context->intf_list, walk.node());
    }
    if (intf == nullptr)
        return;
    if (intf != record)
        __poller_fd_remove_and_wait(context->poller, intf->fd, POLLIN);
    __retire(context, walk, intf);
}

// Removes this very record, without a call of its close slot.
void __retire_unclosed(Context* context, DM_INTF_ST* record) {
    ListWalk walk(context->intf_list);
    while (LIST_NODE_ST* node = walk.next()) {
        if (list_to_item(node) != record)
            continue;
        list_remove(context->intf_list, node);
        record->close = nullptr;
        __retire(context, walk, record);
        return;
    }
}

// Lists a record and lets the poller watch it. A record that the list refuses is the caller's, one
// that the poller refuses is still listed.
int __list_record(DM_CB_ST* dm_cb, DM_INTF_ST* intf, POLLER_FD_CALLBACK on_input, bool* is_listed) {
    int status = list_append(dm_cb->intf_list, intf);
    *is_listed = status == 0;
    if (status == 0)
        status = poller_fd_add(dm_cb->poller, intf->fd, POLLIN, on_input, &intf,
                               static_cast<int32_t>(sizeof(intf)));
    return status;
}

// ---- the context's life ----

// Closes the interfaces one after another, each while it is listed and with no lock held: a close
// slot may look the others up, or remove them.
void __close_all(LIST_ST* intf_list) {
    ListWalk walk(intf_list);
    while (LIST_NODE_ST* node = walk.next()) {
        __close(static_cast<DM_INTF_ST*>(list_to_item(node)));
        list_remove(intf_list, node);
    }
}

// Gives up one holder's share of the context. The last one releases it. Not left half done.
void __drop_context(void* arg) {
    auto* context = static_cast<Context*>(arg);
    if (context->holders.fetch_sub(1) != 1)
        return;
    const dm::CancellationOff whole;
    // A close slot that would send finds no list to wait on.
    list_destroy(std::exchange(context->pending_list, nullptr));
    if (context->intf_list != nullptr)
        __close_all(context->intf_list);
    list_destroy(context->intf_list);
    list_destroy(context->cmd_reg_list);
    if (context->poller != nullptr)
        __poller_drop(context->poller);
    context->~Context();
    std::free(context);
}

int __create_poller(Context* context) {
    if (const int ret = poller_create(&context->poller); ret != 0) {
        DM_LOG_ERROR_IN(msg_log, "dm_init", "call poller_create fail,ret:%d\r\n", ret);
        return ret;
    }
    context->holders = 2;
    __poller_hold(context->poller, {__on_pass, __drop_context, context});
    const int ret = poller_run(context->poller);
    if (ret != 0)
        DM_LOG_ERROR_IN(msg_log, "dm_init", "call poller_run fail,ret:%d\r\n", ret);
    return ret;
}

int __create_lists(Context* context) {
    if (const int ret = list_create(&context->intf_list, __dm_intf_cmp, __dm_intf_free); ret != 0) {
        DM_LOG_ERROR_IN(msg_log, "dm_init", "create intf list fail,ret:%d\r\n", ret);
        return ret;
    }
    if (const int ret =
            list_create(&context->pending_list, dm::__dm_pending_cmp, dm::__dm_pending_free);
        ret != 0) {
        DM_LOG_ERROR_IN(msg_log, "dm_init", "create pending list fail,ret:%d\r\n", ret);
        return ret;
    }
    const int ret = list_create(&context->cmd_reg_list, __dm_cmd_cmp, __dm_cmd_free);
    if (ret != 0)
        DM_LOG_ERROR_IN(msg_log, "dm_init", "create cmd_reg_list fail,ret:%d\r\n", ret);
    return ret;
}

int __build_context(Context* context) {
    if (const int ret = __create_poller(context); ret != 0)
        return ret;
    if (const int ret = __create_lists(context); ret != 0)
        return ret;
    const int ret = selfloop_init(nullptr, context, nullptr, nullptr, 0);
    if (ret != 0)
        DM_LOG_ERROR_IN(msg_log, "dm_init", "selfloop init fail,ret:%d\r\n", ret);
    return ret;
}

} // namespace

dm::CallbackScope::~CallbackScope() noexcept(false) {
    if (--context_->callbacks != 0)
        return;
    while (context_->retired != nullptr) {
        const Owned<Retired> retired(context_->retired);
        context_->retired = retired->next;
        list_iter_destroy(&retired->iter);
    }
}

DM_INTF_ST* dm::find_intf(ListWalk& walk, const char* name) {
    while (LIST_NODE_ST* node = walk.next()) {
        auto* intf = static_cast<DM_INTF_ST*>(list_to_item(node));
        if (intf == nullptr) {
            DM_LOG_ERROR_IN(msg_log, "dm_get_intf", "dm_get_intf:tmp is null!\n");
            return nullptr;
        }
        if (__dm_intf_cmp(intf, name) == 0)
            return intf;
    }
    return nullptr;
}

int __dm_copy_user_data(void** copy, const void* user_data, size_t len, dm::CopyFunction copy_s,
                        const char* copy_failed, const dm::LogSite& site) {
    dm::Duplicate made = dm::duplicate(user_data, len, copy_s);
    switch (made.failed) {
    case dm::Duplicate::Step::none:
        *copy = made.bytes.release();
        return 0;
    case dm::Duplicate::Step::allocate:
        return -ENOMEM;
    case dm::Duplicate::Step::zero:
        DM_LOG_ERROR_AT(site, "memset_s fail: %d\n", made.status);
        break;
    case dm::Duplicate::Step::copy:
        DM_LOG_ERROR_AT(site, "%s", copy_failed);
        break;
    }
    return made.status;
}

// The interface is valid as it begins: whoever releases it takes its descriptor out of the poller
// before.
int __dm_recv_all(int fd, int events, void* user_data, DM_HAS_NEXT has_next) {
    DM_INTF_ST* intf = *static_cast<DM_INTF_ST**>(user_data);
    if (intf == nullptr || intf->recv_msg == nullptr || intf->dm_cb == nullptr)
        return 0;
    Context* context = dm::context_of(intf->dm_cb);
    if (context->destroyed)
        return 0;
    const CallbackScope scope(context);
    const Receiving receiving(context, intf);
    const timespec begin = has_next != nullptr ? __tick() : timespec{};
    bool is_taken = __receive(context, intf, fd, events);
    for (int taken = 1; is_taken && taken < kMostInARow; ++taken)
        is_taken =
            __is_read_on(context, intf, has_next, begin) && __receive(context, intf, fd, POLLIN);
    return 0;
}

int __dm_recv(int fd, int events, void* user_data, uint32_t /*user_data_len*/) {
    return __dm_recv_all(fd, events, user_data, nullptr);
}

int __dm_intf_register(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST> intf, DM_INTF_ST** out,
                       POLLER_FD_CALLBACK on_input) {
    const dm::CancellationOff whole;
    DM_INTF_ST* record = intf.get();
    bool is_listed = false;
    const int status = __list_record(dm_cb, record, on_input, &is_listed);
    if (is_listed)
        static_cast<void>(intf.release());
    if (is_listed && status != 0)
        __retire_unclosed(dm::context_of(dm_cb), record);
    if (status == 0 && out != nullptr)
        *out = record;
    return status;
}

uint32_t dev_mon_get_log_flag(void) {
    return dm::load(g_dev_mon_debug);
}

void dev_mon_set_log_flag(uint32_t value) {
    dm::store(g_dev_mon_debug, value);
}

int dm_init(DM_CB_ST** dm_cb) {
    if (dm_cb == nullptr) {
        DM_LOG_ERROR(msg_log, "dm_init input dm_cb null.");
        return -EINVAL;
    }
    const dm::CancellationOff whole;
    *dm_cb = nullptr;
    auto block = dm::allocate<void>(sizeof(Context));
    if (!block) {
        DM_LOG_ERROR(msg_log, "dm_init malloc cb error.");
        return -ENOMEM;
    }
    if (const int ret = memset_s(block.get(), sizeof(Context), 0, sizeof(Context)); ret != 0) {
        DM_LOG_ERROR(msg_log, "memset_s fail: %d\n", ret);
        return ret;
    }
    auto* context = new (block.release()) Context();
    *dm_cb = context;
    const int ret = __build_context(context);
    if (ret != 0) {
        dm_destroy(context);
        *dm_cb = nullptr;
    }
    return ret;
}

// In a forked child there is nothing to stop, and the lists may have been in the middle of a
// change.
void dm_destroy(DM_CB_ST* dm_cb) {
    if (dm_cb == nullptr)
        return;
    Context* context = dm::context_of(dm_cb);
    if (context->process != getpid())
        return;
    const dm::CancellationOff whole;
    if (dm_cb->poller != nullptr)
        __poller_end(dm_cb->poller);
    mmSleep(kDestroyWaitMs);
    context->destroyed = true;
    context->requests.stop();
    __drop_context(context);
}

int dm_intf_register(DM_CB_ST* dm_cb, DM_INTF_ST* intf) {
    if (dm_cb == nullptr || intf == nullptr) {
        DM_LOG_ERROR(msg_log, "dm_intf_register input cb or intf null.\n");
        return -EINVAL;
    }
    const dm::CancellationOff whole;
    bool is_listed = false;
    const int status = __list_record(dm_cb, intf, __dm_recv, &is_listed);
    // The removal goes by name: of two records of one name the older one goes.
    if (is_listed && status != 0)
        __retire_first(dm::context_of(dm_cb), intf);
    return status;
}

int dm_intf_deregister(DM_INTF_ST* intf) {
    if (intf == nullptr || intf->dm_cb == nullptr) {
        DM_LOG_ERROR(msg_log, "dm_intf_deregister input intf null.\n");
        return -EINVAL;
    }
    const dm::CancellationOff whole;
    DM_CB_ST* dm_cb = intf->dm_cb;
    if (const int status = __poller_fd_remove_and_wait(dm_cb->poller, intf->fd, POLLIN);
        status != 0)
        return status;
    __retire_first(dm::context_of(dm_cb), intf);
    return 0;
}

DM_INTF_ST* dm_get_intf(DM_CB_ST* dm_cb, const char* name, int name_len) {
    if (dm_cb == nullptr || name == nullptr || name_len > DM_INTF_NAME_LEN) {
        DM_LOG_ERROR(msg_log, "dm_get_intf input cb or name null ,name len %d larger than %d\n",
                     name_len, DM_INTF_NAME_LEN);
        return nullptr;
    }
    ListWalk walk(dm_cb->intf_list);
    return dm::find_intf(walk, name);
}

int dm_send_req(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                DM_MSG_HANDLER rsp_cb, void* user_data, uint32_t user_data_len) {
    if (intf == nullptr || addr == nullptr || addr_len == 0 || data == nullptr)
        return DM_ERR_INVALID_ARG;
    if (intf->dm_cb == nullptr)
        return DM_ERR_PENDING_ADD;
    return dm::context_of(intf->dm_cb)
        ->requests.send(intf, addr, addr_len, data, rsp_cb, user_data, user_data_len);
}

int dm_send_rsp(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                uint64_t req_id) {
    return intf->send_msg(intf, DM_MSG_RSP, addr, addr_len, data, req_id);
}
