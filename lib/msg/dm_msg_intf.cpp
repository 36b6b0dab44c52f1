#include "dm_msg_intf.h"

#include "base/atomic_field.h"
#include "base/counted.h"
#include "base/log.h"
#include "base/memory.h"
#include "dm_loop.h"
#include "list/dm_list_walk.h"
#include "msg/dm_msg_private.h"
#include "platform_adapter.h"
#include "poller/dm_poller_private.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <new>
#include <utility>

uint32_t g_dev_mon_debug = 5;

namespace {

constinit dm::SubjectLog msg_log;

constexpr const char* kSelfloopName = "selfloop";
constexpr uint32_t kDestroyWaitMs = 100;

struct PENDING_REQ_ST;

void __ref(PENDING_REQ_ST* req);
void __unref(PENDING_REQ_ST* req);

struct PendingUnref {
    void operator()(PENDING_REQ_ST* req) const {
        __unref(req); // NOLINT(clang-analyzer-unix.Malloc): it does not follow the count
    }
};

using PendingRef = std::unique_ptr<PENDING_REQ_ST, PendingUnref>;

// Requests that have ended while an answer to them may still come. A request's identity is its
// address, so their memory is not given to another request, which such an answer would be taken
// for, before as many others have come here.
class LateAnswers {
public:
    void expect(PENDING_REQ_ST* req) {
        __ref(req);
        requests_[next_].reset(req);
        next_ = (next_ + 1) % requests_.size();
    }

private:
    std::array<PendingRef, 256> requests_;
    std::size_t next_ = 0;
};

// The context, with what it needs beyond its public fields.
//
// It is released by the last of its two holders: its owner, who gives it up in dm_destroy(), and
// the poller, which gives it up when no callback will run any more. So a handler that runs longer
// than dm_destroy() waits, or that calls it, keeps the lists that it works on.
struct Context : DM_CB_ST {
    std::atomic<int> holders{1};
    std::atomic<bool> destroyed{false}; // callbacks that still come do nothing

    std::mutex registry; // makes finding and removing an interface by name one step

    // Guards what follows up to `receiving`, and of every pending request its state.
    std::mutex lock;
    std::condition_variable service_ended;
    // The interface whose request times out or is answered on the poll thread at the moment.
    const DM_INTF_ST* serving = nullptr;
    uint32_t waiting = 0; // removals that wait for the end of that
    LateAnswers late_answers;

    // The interface that receives at the moment, null once its handler removed it. The poll
    // thread's own.
    const DM_INTF_ST* receiving = nullptr;
};

// A request that waits for its response. Its address is the request's identity on the wire.
//
// Each of these holds a reference: the pending list, the armed timer, the sender while it sends,
// the poll thread while it handles a time-out or a response, and a late answer that is expected.
struct PENDING_REQ_ST {
    DM_INTF_ST* intf;
    DM_ADDR_ST addr;
    uint32_t addr_len;
    DM_DATA_ST data; // points at buf
    uint8_t buf[DM_MAX_DATA_LEN];
    DM_MSG_HANDLER rsp_cb;
    void* user_data;
    uint32_t user_data_len;
    int32_t retry_left;           // negative: no timer
    POLLER_TIMER_ENTRY_ST* timer; // null while no timer is armed

    Context* context; // stays valid when the interface is gone
    uint32_t refs;
    bool timed_out; // once at least: there is more than one answer to come
    bool ended;     // answered, failed, or its interface is gone: nothing of it happens any more
};

// A registered command handler.
struct CMD_REG_ST {
    DM_MSG_HANDLER handler;
    void* user_data; // the registry's own copy, or null
    int32_t user_data_len;
};

Context* __private(DM_CB_ST* dm_cb) {
    return static_cast<Context*>(dm_cb);
}

struct CmdRegDeleter {
    void operator()(CMD_REG_ST* reg) const {
        std::free(reg->user_data);
        std::free(reg);
    }
};

using OwnedCmdReg = std::unique_ptr<CMD_REG_ST, CmdRegDeleter>;

// ---- references to pending requests ----

void __ref(PENDING_REQ_ST* req) {
    std::atomic_ref(req->refs).fetch_add(1);
}

void __unref(PENDING_REQ_ST* req) {
    if (std::atomic_ref(req->refs).fetch_sub(1) != 1)
        return;
    std::free(req->user_data);
    std::free(req);
}

uint64_t __identity(const PENDING_REQ_ST* req) {
    return reinterpret_cast<uintptr_t>(req);
}

// ---- list callbacks ----

int __dm_intf_cmp(const void* item, const void* key) {
    if (item == nullptr || key == nullptr)
        return -EINVAL;
    return std::strncmp(static_cast<const char*>(item), static_cast<const char*>(key),
                        DM_INTF_NAME_LEN);
}

void __dm_intf_free(void* item) {
    if (item == nullptr)
        return;
    const dm::Owned<DM_INTF_ST> intf(static_cast<DM_INTF_ST*>(item));
    if (intf->close != nullptr)
        intf->close(intf.get());
}

int __dm_pending_cmp(const void* item, const void* key) {
    if (item == nullptr || key == nullptr)
        return -1;
    return list_default_compare(item, key);
}

void __dm_pending_free(void* item) {
    if (item != nullptr)
        __unref(static_cast<PENDING_REQ_ST*>(item));
}

int __dm_cmd_cmp(const void* item, const void* key) {
    return item != nullptr && key != nullptr ? 0 : -1;
}

void __dm_cmd_free(void* item) {
    if (item != nullptr)
        OwnedCmdReg(static_cast<CMD_REG_ST*>(item)).reset();
}

// Moves the walk to the first interface of that name, which is not released while it stands there.
DM_INTF_ST* __find_intf(dm::ListWalk& walk, const char* name) {
    while (LIST_NODE_ST* node = walk.next()) {
        auto* intf = static_cast<DM_INTF_ST*>(list_to_item(node));
        if (intf == nullptr) {
            DM_LOG_ERROR(msg_log, "dm_get_intf:tmp is null!\n");
            return nullptr;
        }
        if (__dm_intf_cmp(intf, name) == 0)
            return intf;
    }
    return nullptr;
}

// ---- pending requests ----

int __dm_timeout_handle(uint32_t period_ms, int32_t elapsed_ms, void* user_data,
                        uint32_t user_data_len);

void __release_timer_data(void* user_data) {
    __unref(*static_cast<PENDING_REQ_ST**>(user_data));
}

// Arms the request's timer, which holds a reference on it. The context is locked.
int __arm_timer(PENDING_REQ_ST* req, uint32_t period_ms) {
    __ref(req);
    const int status = __poller_timer_add_owning(
        req->context->poller, period_ms, __dm_timeout_handle, &req,
        static_cast<int32_t>(sizeof(req)), __release_timer_data, &req->timer);
    if (status != 0)
        __unref(req);
    return status;
}

enum class End { done, interface_gone };

// Ends a request: from here on nothing of it happens any more. False when it has ended before.
//
// The handle of the timer is valid while the context is locked and the request has one: a timer
// that fires clears it, under the lock, before its entry can go.
bool __end_request(PENDING_REQ_ST* req, End end) {
    const std::lock_guard lock(req->context->lock);
    if (std::exchange(req->ended, true))
        return false;
    if (req->timed_out || end == End::interface_gone)
        req->context->late_answers.expect(req);
    poller_timer_remove(req->context->poller, &req->timer);
    dm::store<POLLER_TIMER_ENTRY_ST*>(req->timer, nullptr);
    return true;
}

void __dm_pending_req_del(DM_CB_ST* dm_cb, PENDING_REQ_ST* req) {
    if (__end_request(req, End::done))
        list_remove_by_tag(dm_cb->pending_list, req, __dm_pending_cmp);
}

int __copy_request(PENDING_REQ_ST* req, DM_ADDR_ST* addr, uint32_t addr_len,
                   const DM_DATA_ST* data) {
    req->addr = *addr;
    req->addr_len = addr_len;
    req->data.data_len = std::min<uint16_t>(data->data_len, DM_MAX_DATA_LEN);
    req->data.data = data->data;
    const int status = __dm_copy_payload(memmove_s, req->buf, &req->data);
    req->data.data = req->buf;
    if (status != 0)
        DM_LOG_ERROR(msg_log, "memmove_s error\n");
    return status;
}

// Makes the framework's copy of a caller's user data. `copy_failed` is the line for a failed copy.
int __copy_user_data(void** copy, const void* user_data, size_t len, dm::CopyFunction copy_s,
                     const char* copy_failed) {
    dm::Duplicate made = dm::duplicate(user_data, len, copy_s);
    switch (made.failed) {
    case dm::Duplicate::Step::none:
        *copy = made.bytes.release();
        return 0;
    case dm::Duplicate::Step::allocate:
        return -ENOMEM;
    case dm::Duplicate::Step::zero:
        DM_LOG_ERROR(msg_log, "memset_s fail: %d\n", made.status);
        break;
    case dm::Duplicate::Step::copy:
        DM_LOG_ERROR(msg_log, "%s", copy_failed);
        break;
    }
    return made.status;
}

// Arms the timer and lists the request. In one step for the poll thread, which takes the lock
// before it handles a time-out: a response to a request that is not listed would be lost.
int __publish_request(PENDING_REQ_ST* req) {
    Context* context = req->context;
    const std::lock_guard lock(context->lock);
    if (req->retry_left >= 0) {
        const int status = __arm_timer(req, dm::load(req->intf->timeout_ms));
        if (status != 0)
            return status;
    }
    __ref(req);
    const int status = list_append(context->pending_list, req);
    if (status == 0)
        return 0;
    req->ended = true;
    poller_timer_remove(context->poller, &req->timer);
    __unref(req); // the list's reference
    return status;
}

// Makes the record of a request. `made` holds the sender's reference.
int __dm_pending_req_add(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len,
                         const DM_DATA_ST* data, DM_MSG_HANDLER rsp_cb, const void* user_data,
                         uint32_t user_data_len, PendingRef& made) {
    if (static_cast<int32_t>(user_data_len) <= 0 || intf->dm_cb == nullptr)
        return -ENOMEM;
    auto block = dm::allocate<PENDING_REQ_ST>();
    if (!block)
        return -ENOMEM;
    if (const int status = dm::zero(block.get()); status != 0) {
        DM_LOG_ERROR(msg_log, "memset_s fail: %d\n", status);
        return status;
    }
    block->refs = 1;
    PendingRef req(block.release());
    req->intf = intf;
    req->context = __private(intf->dm_cb);
    req->rsp_cb = rsp_cb;
    if (const int status = __copy_request(req.get(), addr, addr_len, data); status != 0)
        return status;
    if (user_data != nullptr) {
        const int status = __copy_user_data(&req->user_data, user_data, user_data_len, memmove_s,
                                            "memmove_s error\n");
        if (status != 0)
            return status;
        req->user_data_len = user_data_len;
    }
    req->retry_left = dm::load(intf->retry_cnt);
    if (const int status = __publish_request(req.get()); status != 0)
        return status;
    DM_LOG_INFO("finish __dm_pending_req_add\n");
    made = std::move(req);
    return 0;
}

// The poll thread's work on one request, a time-out or a response. Does not begin for a request
// that has ended; dm_intf_deregister() waits for one that has begun.
class Service {
public:
    enum class Cause { timeout, response };

    Service(PENDING_REQ_ST* req, Cause cause) : context_(req->context) {
        const std::lock_guard lock(context_->lock);
        // A timer that fired is gone, and a later one may get its handle.
        if (cause == Cause::timeout) {
            dm::store<POLLER_TIMER_ENTRY_ST*>(req->timer, nullptr);
            req->timed_out = true;
        }
        begun_ = !req->ended && !context_->destroyed;
        if (begun_)
            context_->serving = req->intf;
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() {
        if (!begun_)
            return;
        const std::lock_guard lock(context_->lock);
        context_->serving = nullptr;
        if (context_->waiting != 0)
            context_->service_ended.notify_all();
    }

    bool begun() const { return begun_; }

private:
    Context* context_;
    bool begun_;
};

bool __has_ended(const PENDING_REQ_ST* req) {
    const std::lock_guard lock(req->context->lock);
    return req->ended;
}

// ---- time-outs ----

// Sends the request again and arms its timer. False ends the retries.
bool __resend(PENDING_REQ_ST* req, uint32_t period_ms) {
    --req->retry_left;
    const int ret = req->intf->send_msg(req->intf, DM_MSG_REQ, &req->addr, req->addr_len,
                                        &req->data, __identity(req));
    if (ret != 0)
        return false;
    DM_LOG_INFO("process timeout, retry call intf->send_msg ret = %d\n", ret);
    const std::lock_guard lock(req->context->lock);
    return req->ended || __arm_timer(req, period_ms) == 0;
}

// Sends a time-out's response through the self-loop.
void __send_timeout_rsp(PENDING_REQ_ST* req, DM_DATA_ST* response) {
    dm::ListWalk walk(req->context->intf_list);
    DM_INTF_ST* selfloop =
        __dm_has_name(req->intf, kSelfloopName) ? req->intf : __find_intf(walk, kSelfloopName);
    if (selfloop == nullptr)
        return;
    dm_send_rsp(selfloop, &req->addr, req->addr_len, response, __identity(req));
    DM_LOG_INFO("finish call dm_send_rsp\n");
}

void __report_timeout(PENDING_REQ_ST* req) {
    DM_DATA_ST response = req->data;
    if (req->intf->timeout_hndl != nullptr)
        req->intf->timeout_hndl(&req->data, &response);
    DM_LOG_INFO("finish call intf->timeout_hndl\n");
    // The handler may have removed the interface.
    if (!__has_ended(req))
        __send_timeout_rsp(req, &response);
}

int __dm_timeout_handle(uint32_t period_ms, int32_t /*elapsed_ms*/, void* user_data,
                        uint32_t /*user_data_len*/) {
    PENDING_REQ_ST* req = *static_cast<PENDING_REQ_ST**>(user_data);
    if (req == nullptr || req->intf == nullptr || req->context == nullptr) {
        DM_LOG_ERROR(msg_log, "__dm_timeout_handle input user_data null!\n");
        return 0;
    }
    const Service service(req, Service::Cause::timeout);
    if (!service.begun())
        return 0;
    if (req->retry_left > 0 && !__resend(req, period_ms)) {
        DM_LOG_INFO("finish call intf->send_msg");
        req->retry_left = 0;
    }
    if (req->retry_left == 0 && !__has_ended(req))
        __report_timeout(req);
    return 0;
}

// ---- dispatch of received messages ----

PendingRef __find_request(DM_CB_ST* dm_cb, uint64_t req_id) {
    dm::ListWalk walk(dm_cb->pending_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* req = static_cast<PENDING_REQ_ST*>(list_to_item(node));
        if (__identity(req) != req_id)
            continue;
        __ref(req);
        return PendingRef(req);
    }
    return nullptr;
}

// Responses to unknown requests (late, repeated or never asked for) are ignored.
void __dm_rsp_handle(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    DM_CB_ST* dm_cb = intf->dm_cb;
    if (msg->req_id == 0)
        return;
    const PendingRef req = __find_request(dm_cb, msg->req_id);
    if (req == nullptr)
        return;
    const Service service(req.get(), Service::Cause::response);
    if (!service.begun())
        return;
    if (req->rsp_cb != nullptr)
        req->rsp_cb(intf, msg, req->user_data, static_cast<int32_t>(req->user_data_len));
    __dm_pending_req_del(dm_cb, req.get());
}

// Without a registration the default handler makes the response.
void __answer_by_default(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    Context* context = __private(intf->dm_cb);
    const DM_DATA_HANDLER default_hndl = dm::load(context->default_hndl);
    if (default_hndl == nullptr)
        return;
    DM_DATA_ST response = msg->data;
    default_hndl(&msg->data, &response);
    // The handler may have removed the interface.
    if (context->receiving == intf)
        dm_send_rsp(intf, msg->addr, msg->addr_len, &response, msg->req_id);
}

// All requests go to the handler that was registered first. Registrations live as long as their
// context, so the walk need not stand on the node while the handler runs.
void __dm_cmd_handle(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    const CMD_REG_ST* reg = nullptr;
    {
        dm::ListWalk walk(intf->dm_cb->cmd_reg_list);
        if (LIST_NODE_ST* node = walk.next(); node != nullptr) {
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

void __dm_msg_dispatch(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    if (msg->type == DM_MSG_REQ)
        __dm_cmd_handle(intf, msg);
    else if (msg->type == DM_MSG_RSP)
        __dm_rsp_handle(intf, msg);
}

// The poller's callback for an interface's descriptor. The interface is valid as it begins:
// whoever releases it takes its descriptor out of the poller before.
int __dm_recv(int fd, int events, void* user_data, uint32_t /*user_data_len*/) {
    DM_INTF_ST* intf = *static_cast<DM_INTF_ST**>(user_data);
    if (intf == nullptr || intf->recv_msg == nullptr || intf->dm_cb == nullptr)
        return 0;
    Context* context = __private(intf->dm_cb);
    if (context->destroyed)
        return 0;
    const auto data = dm::allocate<uint8_t>(DM_MAX_DATA_LEN);
    if (!DM_CHECK(data != nullptr, "(data != ((void *)0))"))
        return 0;
    if (dm::zero(data.get(), DM_MAX_DATA_LEN) != 0)
        return 0;
    DM_ADDR_ST addr{};
    DM_MSG_ST msg{};
    msg.addr = &addr;
    msg.addr_len = sizeof(addr);
    msg.data = {DM_MAX_DATA_LEN, data.get()};
    if (intf->recv_msg(intf, fd, static_cast<int16_t>(events), &msg) != 0)
        return 0;
    context->receiving = intf;
    __dm_msg_dispatch(intf, &msg);
    context->receiving = nullptr;
    return 0;
}

// ---- interfaces ----

// Ends the interface's requests without a callback.
void __end_requests(DM_CB_ST* dm_cb, const DM_INTF_ST* intf) {
    dm::ListWalk walk(dm_cb->pending_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* req = static_cast<PENDING_REQ_ST*>(list_to_item(node));
        if (req->intf == intf && __end_request(req, End::interface_gone))
            list_remove(dm_cb->pending_list, node);
    }
}

// Waits until the poll thread has done with the interface's requests, unless it is this thread.
void __await_service(Context* context, const DM_INTF_ST* intf) {
    if (__poller_is_current(context->poller)) {
        if (context->receiving == intf)
            context->receiving = nullptr;
        return;
    }
    std::unique_lock lock(context->lock);
    const dm::Counted waiting(context->waiting);
    context->service_ended.wait(lock, [&] { return context->serving != intf; });
}

// Removes the first interface of that name with all that refers to it, closes and releases it.
void __retire_first(DM_CB_ST* dm_cb, const char* name) {
    Context* context = __private(dm_cb);
    // The record lives until the walk ends: the node is marked and no longer found, but stays.
    dm::ListWalk walk(dm_cb->intf_list);
    const DM_INTF_ST* intf = nullptr;
    {
        const std::lock_guard lock(context->registry);
        intf = __find_intf(walk, name);
        list_remove(dm_cb->intf_list, walk.node());
    }
    if (intf == nullptr)
        return;
    __poller_fd_remove_and_wait(dm_cb->poller, intf->fd, POLLIN);
    __end_requests(dm_cb, intf);
    __await_service(context, intf);
}

int __watch(DM_CB_ST* dm_cb, DM_INTF_ST* intf) {
    return poller_fd_add(dm_cb->poller, intf->fd, POLLIN, __dm_recv, &intf,
                         static_cast<int32_t>(sizeof(intf)));
}

// ---- the context's life ----

// Gives up one holder's share of the context. The last one releases it.
void __drop_context(void* arg) {
    auto* context = static_cast<Context*>(arg);
    if (context->holders.fetch_sub(1) != 1)
        return;
    list_destroy(context->pending_list);
    list_destroy(context->intf_list);
    list_destroy(context->cmd_reg_list);
    if (context->poller != nullptr)
        __poller_drop(context->poller);
    context->~Context();
    std::free(context);
}

int __create_poller(Context* context) {
    if (const int ret = poller_create(&context->poller); ret != 0) {
        DM_LOG_ERROR(msg_log, "call poller_create fail,ret:%d\r\n", ret);
        return ret;
    }
    context->holders = 2;
    __poller_hold(context->poller, __drop_context, context);
    const int ret = poller_run(context->poller);
    if (ret != 0)
        DM_LOG_ERROR(msg_log, "call poller_run fail,ret:%d\r\n", ret);
    return ret;
}

int __create_lists(Context* context) {
    if (const int ret = list_create(&context->intf_list, __dm_intf_cmp, __dm_intf_free); ret != 0) {
        DM_LOG_ERROR(msg_log, "create intf list fail,ret:%d\r\n", ret);
        return ret;
    }
    if (const int ret = list_create(&context->pending_list, __dm_pending_cmp, __dm_pending_free);
        ret != 0) {
        DM_LOG_ERROR(msg_log, "create pending list fail,ret:%d\r\n", ret);
        return ret;
    }
    const int ret = list_create(&context->cmd_reg_list, __dm_cmd_cmp, __dm_cmd_free);
    if (ret != 0)
        DM_LOG_ERROR(msg_log, "create cmd_reg_list fail,ret:%d\r\n", ret);
    return ret;
}

int __build_context(Context* context) {
    if (const int ret = __create_poller(context); ret != 0)
        return ret;
    if (const int ret = __create_lists(context); ret != 0)
        return ret;
    const int ret = selfloop_init(nullptr, context, nullptr, nullptr, 0);
    if (ret != 0)
        DM_LOG_ERROR(msg_log, "selfloop init fail,ret:%d\r\n", ret);
    return ret;
}

} // namespace

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

void dm_destroy(DM_CB_ST* dm_cb) {
    if (dm_cb == nullptr)
        return;
    if (dm_cb->poller != nullptr)
        poller_destory(dm_cb->poller);
    mmSleep(kDestroyWaitMs);
    __private(dm_cb)->destroyed = true;
    __drop_context(__private(dm_cb));
}

int __dm_intf_register(DM_CB_ST* dm_cb, dm::Owned<DM_INTF_ST> intf, DM_INTF_ST** out) {
    if (const int status = list_append(dm_cb->intf_list, intf.get()); status != 0)
        return status;
    DM_INTF_ST* record = intf.release();
    const int status = __watch(dm_cb, record);
    if (status == 0 && out != nullptr)
        *out = record;
    if (status != 0) {
        record->close = nullptr;
        __retire_first(dm_cb, record->name);
    }
    return status;
}

int dm_intf_register(DM_CB_ST* dm_cb, DM_INTF_ST* intf) {
    if (dm_cb == nullptr || intf == nullptr) {
        DM_LOG_ERROR(msg_log, "dm_intf_register input cb or intf null.\n");
        return -EINVAL;
    }
    if (const int status = list_append(dm_cb->intf_list, intf); status != 0)
        return status;
    const int status = __watch(dm_cb, intf);
    // The removal goes by name: of two records of one name the older one goes.
    if (status != 0)
        __retire_first(dm_cb, intf->name);
    return status;
}

int dm_intf_deregister(DM_INTF_ST* intf) {
    if (intf == nullptr || intf->dm_cb == nullptr) {
        DM_LOG_ERROR(msg_log, "dm_intf_deregister input intf null.\n");
        return -EINVAL;
    }
    DM_CB_ST* dm_cb = intf->dm_cb;
    if (const int status = __poller_fd_remove_and_wait(dm_cb->poller, intf->fd, POLLIN);
        status != 0)
        return status;
    __retire_first(dm_cb, intf->name);
    return 0;
}

DM_INTF_ST* dm_get_intf(DM_CB_ST* dm_cb, const char* name, int name_len) {
    if (dm_cb == nullptr || name == nullptr || name_len > DM_INTF_NAME_LEN) {
        DM_LOG_ERROR(msg_log, "dm_get_intf input cb or name null ,name len %d larger than %d\n",
                     name_len, DM_INTF_NAME_LEN);
        return nullptr;
    }
    dm::ListWalk walk(dm_cb->intf_list);
    return __find_intf(walk, name);
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
        const int status = __copy_user_data(&reg->user_data, user_data, static_cast<size_t>(size),
                                            memcpy_s, "memcpy_s error\n");
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

int dm_send_req(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                DM_MSG_HANDLER rsp_cb, void* user_data, uint32_t user_data_len) {
    if (intf == nullptr || addr == nullptr || addr_len == 0 || data == nullptr)
        return DM_ERR_INVALID_ARG;
    // The sender's own reference: the request may be answered, or time out, before the send is
    // over, and its address must not be another request's then.
    PendingRef req;
    if (__dm_pending_req_add(intf, addr, addr_len, data, rsp_cb, user_data, user_data_len, req) !=
        0)
        return DM_ERR_PENDING_ADD;
    DM_CB_ST* dm_cb = req->context;
    const int ret = intf->send_msg(intf, DM_MSG_REQ, addr, addr_len, data, __identity(req.get()));
    DM_LOG_DEBUG("finish call intf->send_msg, ret = %d\n", ret);
    if (ret != 0)
        __dm_pending_req_del(dm_cb, req.get());
    DM_LOG_DEBUG("finish call dm_send_req\n");
    return ret == 0 ? 0 : DM_ERR_SEND;
}

int dm_send_rsp(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                uint64_t req_id) {
    return intf->send_msg(intf, DM_MSG_RSP, addr, addr_len, data, req_id);
}
