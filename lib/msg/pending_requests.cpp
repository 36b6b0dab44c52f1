#include "msg/pending_requests.h"

#include "base/atomic_field.h"
#include "base/cancellation.h"
#include "base/log.h"
#include "base/memory.h"
#include "dm_loop.h"
#include "list/dm_list_walk.h"
#include "msg/dm_context.h"
#include "msg/dm_msg_private.h"
#include "poller/dm_poller_private.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace dm {

namespace {

// The operations of which functions here are parts, as their lines name them.
constexpr const char* kSend = "dm_send_req";
constexpr const char* kAdd = "__dm_pending_req_add";
constexpr const char* kTimeout = "__dm_timeout_handle";

constexpr const char* kSelfloopName = "selfloop";

// As many frames as a pipe takes (pipe(7)), of the shortest that are read, and one that is kept.
constexpr std::size_t kMostInPipe = 65536 / (sizeof(SELF_MSG_ST) - DM_MAX_DATA_LEN + 1) + 1;

uint64_t identity_of(const PENDING_REQ_ST* req) {
    return reinterpret_cast<uintptr_t>(req);
}

PendingRef share(PENDING_REQ_ST* req) {
    std::atomic_ref(req->refs).fetch_add(1);
    return PendingRef(req);
}

void release_timer_data(void* user_data) {
    PendingRef(*static_cast<PENDING_REQ_ST**>(user_data)).reset();
}

// True for a send that may succeed later: the pipe is full, or there is no memory.
bool is_shortage(int ret) {
    return ret == EAGAIN || ret == ENOMEM || ret == -ENOMEM;
}

int copy_request(PENDING_REQ_ST* req, const DM_ADDR_ST* addr, uint32_t addr_len,
                 const DM_DATA_ST* data) {
    req->addr = *addr;
    req->addr_len = addr_len;
    req->data.data_len = std::min<uint16_t>(data->data_len, DM_MAX_DATA_LEN);
    req->data.data = data->data;
    const int status = __dm_copy_payload(memmove_s, req->buf, &req->data);
    req->data.data = req->buf;
    if (status != 0)
        DM_LOG_ERROR_IN(msg_log, kAdd, "memmove_s error\n");
    return status;
}

} // namespace

// NOLINTBEGIN(clang-analyzer-unix.Malloc): it does not follow the count
void PendingUnref::operator()(PENDING_REQ_ST* req) const {
    if (std::atomic_ref(req->refs).fetch_sub(1) != 1)
        return;
    std::free(req->user_data);
    req->requests->memory_.give_back(req->block);
}
// NOLINTEND(clang-analyzer-unix.Malloc)

int __dm_pending_cmp(const void* item, const void* key) {
    if (item == nullptr || key == nullptr)
        return -1;
    return list_default_compare(item, key);
}

void __dm_pending_free(void* item) {
    if (item != nullptr)
        PendingRequests::leave_list(static_cast<PENDING_REQ_ST*>(item));
}

PendingRequests::Queue::~Queue() {
    while (first_ != nullptr)
        pop();
}

void PendingRequests::Queue::push(PENDING_REQ_ST* req) {
    PENDING_REQ_ST*& end = first_ == nullptr ? first_ : last_->next;
    end = share(req).release();
    last_ = req;
    ++size_;
}

PendingRef PendingRequests::Queue::pop() {
    PendingRef first(first_);
    first_ = std::exchange(first->next, nullptr);
    --size_;
    return first;
}

void PendingRequests::Queue::take(uint64_t req_id, const DM_INTF_ST* keep) {
    PENDING_REQ_ST* before = nullptr;
    PENDING_REQ_ST* req = first_;
    for (; req != nullptr && identity_of(req) != req_id; req = req->next)
        before = req;
    if (req == nullptr || req->intf == keep)
        return;
    const PendingRef taken(req);
    (before != nullptr ? before->next : first_) = std::exchange(req->next, nullptr);
    if (last_ == req)
        last_ = before;
    --size_;
}

// ---- sending ----

// The sender's part in a request, from the listing to the outcome. A sender that does not get to
// the outcome, because its thread is cancelled in the send, takes the request with it.
class PendingRequests::Sender {
public:
    Sender(PendingRequests& requests, PENDING_REQ_ST* req) : requests_(requests), req_(req) {
        req_->sending = true;
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;
    ~Sender() noexcept(false) {
        if (!finished_)
            abandon();
    }

    // Gives the sender's result. A request whose answer was faster than the end of a failing send
    // has had its outcome. Not left half done, for it is what the poll thread goes by.
    int finish(int send_result) {
        finished_ = true;
        const std::lock_guard lock(requests_.lock_);
        req_->sending = false;
        if (send_result == 0 && !req_->timed_out)
            return 0;
        const CancellationOff whole;
        const bool has_failed = (send_result != 0 && !req_->answered) || !report_timeout();
        if (has_failed)
            requests_.end(req_);
        return has_failed ? DM_ERR_SEND : 0;
    }

private:
    // Lets the poll thread report a time-out that fell due during the send. False when that cannot
    // be arranged.
    bool report_timeout() {
        if (!req_->timed_out || req_->ended || req_->answered)
            return true;
        if (requests_.arm_timer(req_, 0) != 0)
            return false;
        __poller_wake(requests_.dm_cb_->poller);
        return true;
    }

    // What the callback works on may be gone with the thread: one that runs is awaited.
    void abandon() {
        std::unique_lock lock(requests_.lock_);
        req_->sending = false;
        if (!req_->answered)
            requests_.end(req_);
        else if (!__poller_is_current(requests_.dm_cb_->poller))
            requests_.service_ended_.wait(lock, [&] { return requests_.serving_ != req_; });
    }

    PendingRequests& requests_;
    PENDING_REQ_ST* req_;
    bool finished_ = false;
};

int PendingRequests::send(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
                          DM_MSG_HANDLER rsp_cb, const void* user_data, uint32_t user_data_len) {
    // The sender's own reference: the request may be answered, or time out, before the send is
    // over, and its address must not be another request's then.
    PendingRef req;
    if (add(intf, addr, addr_len, data, rsp_cb, user_data, user_data_len, req) != 0)
        return DM_ERR_PENDING_ADD;
    Sender sender(*this, req.get());
    if (publish(req.get()) != 0)
        return DM_ERR_PENDING_ADD;
    DM_LOG_INFO_IN(kAdd, "finish __dm_pending_req_add\n");
    const int ret = intf->send_msg(intf, DM_MSG_REQ, addr, addr_len, data, identity_of(req.get()));
    DM_LOG_DEBUG_IN(kSend, "finish call intf->send_msg, ret = %d\n", ret);
    DM_LOG_DEBUG_IN(kSend, "finish call dm_send_req\n");
    return sender.finish(ret);
}

// Zeroed, with the sender's reference.
int PendingRequests::make_record(PendingRef& made) {
    RequestMemory::Block* block = nullptr;
    auto* req = static_cast<PENDING_REQ_ST*>(memory_.take(block));
    if (req == nullptr)
        return -ENOMEM;
    if (const int status = zero(req); status != 0) {
        memory_.give_back(block);
        DM_LOG_ERROR_IN(msg_log, kAdd, "memset_s fail: %d\n", status);
        return status;
    }
    req->requests = this;
    req->block = block;
    req->refs = 1;
    made.reset(req);
    return 0;
}

// Makes the record of a request.
int PendingRequests::add(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len,
                         const DM_DATA_ST* data, DM_MSG_HANDLER rsp_cb, const void* user_data,
                         uint32_t user_data_len, PendingRef& made) {
    if (static_cast<int32_t>(user_data_len) <= 0)
        return -ENOMEM;
    PendingRef req;
    if (const int status = make_record(req); status != 0)
        return status;
    req->intf = intf;
    req->rsp_cb = rsp_cb;
    if (const int status = copy_request(req.get(), addr, addr_len, data); status != 0)
        return status;
    if (user_data != nullptr) {
        const int status = __dm_copy_user_data(&req->user_data, user_data, user_data_len, memmove_s,
                                               "memmove_s error\n", DM_LOG_SITE_IN(msg_log, kAdd));
        if (status != 0)
            return status;
        req->user_data_len = user_data_len;
    }
    req->retry_left = load(intf->retry_cnt);
    made = std::move(req);
    return 0;
}

// Arms the timer and lists the request. In one step for the poll thread, which takes the lock
// before it handles a time-out: a response to a request that is not listed would be lost.
int PendingRequests::publish(PENDING_REQ_ST* req) {
    const std::lock_guard lock(lock_);
    int status = req->retry_left >= 0 ? arm_timer(req, load(req->intf->timeout_ms)) : 0;
    if (status == 0)
        status = enlist(req);
    if (status == 0)
        return 0;
    req->ended = true; // NOLINT(clang-analyzer-unix.Malloc): it does not follow the count
    poller_timer_remove(dm_cb_->poller, &req->timer);
    return status;
}

// Appends the request to the pending list, which holds a reference on it.
int PendingRequests::enlist(PENDING_REQ_ST* req) {
    LIST_ST* list = dm_cb_->pending_list;
    Owned<LIST_NODE_ST> node;
    if (const int status = make_node(list, req, node); status != 0)
        return status;
    static_cast<void>(share(req).release()); // the list's
    const ListLock lock(list);
    req->node = node.get();
    listed_.insert(req);
    link_behind(load(list->sentinel.prev), std::move(node));
    return 0;
}

// Arms the request's timer, which holds a reference on it. The lock is held.
int PendingRequests::arm_timer(PENDING_REQ_ST* req, uint32_t period_ms) {
    PendingRef armed = share(req);
    const int status = __poller_timer_add_owning(dm_cb_->poller, period_ms, on_timer, &req,
                                                 static_cast<int32_t>(sizeof(req)),
                                                 release_timer_data, &req->timer);
    if (status == 0)
        static_cast<void>(armed.release()); // the timer's
    return status;
}

// ---- ending ----

// Ends a request, if it has not ended: from here on nothing of it happens any more. The lock is
// held.
//
// The handle of the timer is valid while the lock is held and the request has one: a timer that
// fires clears it, under the lock, before its entry can go.
void PendingRequests::end(PENDING_REQ_ST* req) {
    if (std::exchange(req->ended, true))
        return;
    memory_.end(req->block);
    poller_timer_remove(dm_cb_->poller, &req->timer);
    store<POLLER_TIMER_ENTRY_ST*>(req->timer, nullptr);
    unlist(req);
}

void PendingRequests::unlist(PENDING_REQ_ST* req) {
    LIST_ST* list = dm_cb_->pending_list;
    if (list == nullptr) // the context goes
        return;
    const ListLock lock(list);
    if (req->node != nullptr)
        remove_node(req->node);
}

void PendingRequests::leave_list(PENDING_REQ_ST* req) {
    req->node = nullptr;
    req->requests->listed_.remove(req);
    PendingRef(req).reset();
}

// True when a callback has removed the request's interface or destroyed the context.
bool PendingRequests::is_over(const PENDING_REQ_ST* req) {
    const std::lock_guard lock(lock_);
    return req->ended || stopped_;
}

void PendingRequests::end_those_of(const DM_INTF_ST* intf) {
    ListWalk walk(dm_cb_->pending_list);
    const auto is_its = [intf](const void* item) {
        return static_cast<const PENDING_REQ_ST*>(item)->intf == intf;
    };
    while (LIST_NODE_ST* node = walk.next_where(is_its)) {
        const std::lock_guard lock(lock_);
        end(static_cast<PENDING_REQ_ST*>(list_to_item(node)));
    }
}

void PendingRequests::await_service_of(const DM_INTF_ST* intf) {
    std::unique_lock lock(lock_);
    service_ended_.wait(
        lock, [&] { return (serving_ == nullptr || serving_->intf != intf) && via_ != intf; });
}

void PendingRequests::stop() {
    const std::lock_guard lock(lock_);
    stopped_ = true;
}

// ---- on the poll thread ----

// The poll thread's work on one request. Does not begin for a request that has had its outcome;
// the removal of its interface waits for one that has begun.
class PendingRequests::Service {
public:
    enum class Cause { timeout, waiting_timeout, response };

    Service(PendingRequests& requests, PENDING_REQ_ST* req, Cause cause)
        : requests_(requests), req_(req), cause_(cause) {
        const std::lock_guard lock(requests_.lock_);
        // A timer that fired is gone, and a later one may get its handle.
        if (cause_ == Cause::timeout)
            store<POLLER_TIMER_ENTRY_ST*>(req_->timer, nullptr);
        begun_ = !req_->answered && !req_->ended && !requests_.stopped_;
        if (!begun_)
            return;
        req_->answered = cause_ == Cause::response;
        requests_.serving_ = req_;
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service() noexcept(false) {
        if (!begun_)
            return;
        const std::lock_guard lock(requests_.lock_);
        if (cause_ == Cause::response)
            requests_.end(req_);
        requests_.serving_ = nullptr;
        requests_.service_ended_.notify_all();
    }

    bool begun() const { return begun_; }

private:
    PendingRequests& requests_;
    PENDING_REQ_ST* req_;
    Cause cause_;
    bool begun_ = false;
};

PendingRef PendingRequests::find(uint64_t req_id) {
    const ListLock lock(dm_cb_->pending_list);
    PENDING_REQ_ST* req = listed_.find(req_id);
    return req != nullptr && !is_removed(req->node) ? share(req) : nullptr;
}

void PendingRequests::answer(DM_INTF_ST* intf, DM_MSG_ST* msg) {
    if (msg->req_id == 0)
        return;
    const PendingRef req = find(msg->req_id);
    if ((req == nullptr || req->reported) && __dm_has_name(intf, kSelfloopName))
        in_pipe_.take(msg->req_id, intf);
    if (req == nullptr)
        return;
    const Service service(*this, req.get(), Service::Cause::response);
    if (service.begun() && req->rsp_cb != nullptr)
        req->rsp_cb(intf, msg, req->user_data, static_cast<int32_t>(req->user_data_len));
}

int PendingRequests::on_timer(uint32_t period_ms, int32_t /*elapsed_ms*/, void* user_data,
                              uint32_t /*len*/) {
    PENDING_REQ_ST* req = *static_cast<PENDING_REQ_ST**>(user_data);
    PendingRequests& requests = *req->requests;
    const CallbackScope scope(context_of(requests.dm_cb_));
    const Service service(requests, req, Service::Cause::timeout);
    if (!service.begun())
        return 0;
    if (req->intf->dm_cb == nullptr) {
        DM_LOG_ERROR_IN(msg_log, kTimeout, "__dm_timeout_handle input user_data null!\n");
        return 0;
    }
    if (req->retry_left > 0 && !requests.resend(req, period_ms)) {
        DM_LOG_INFO_IN(kTimeout, "finish call intf->send_msg");
        req->retry_left = 0; // NOLINT(clang-analyzer-unix.Malloc): it does not follow the count
    }
    if (req->retry_left == 0 && !requests.is_over(req))
        requests.report(req);
    return 0;
}

// Sends the request again and arms its timer. False ends the retries.
bool PendingRequests::resend(PENDING_REQ_ST* req, uint32_t period_ms) {
    --req->retry_left;
    const int ret = req->intf->send_msg(req->intf, DM_MSG_REQ, &req->addr, req->addr_len,
                                        &req->data, identity_of(req));
    if (ret != 0)
        return false;
    DM_LOG_INFO_IN(kTimeout, "process timeout, retry call intf->send_msg ret = %d\n", ret);
    const std::lock_guard lock(lock_);
    return req->ended || arm_timer(req, period_ms) == 0;
}

// Hands the time-out over as a response, once: the timer may fire again while that is under way.
// While its sender is still sending, the send's result decides whether there is one to report.
void PendingRequests::report(PENDING_REQ_ST* req) {
    {
        const std::lock_guard lock(lock_);
        req->timed_out = true;
        if (req->sending || req->reported)
            return;
    }
    DM_DATA_ST response = req->data;
    if (req->intf->timeout_hndl != nullptr)
        req->intf->timeout_hndl(&req->data, &response);
    DM_LOG_INFO_IN(kTimeout, "finish call intf->timeout_hndl\n");
    // The handler may have removed the interface.
    if (is_over(req))
        return;
    const int ret = waiting_.first() == nullptr ? send_through_selfloop(req, &response) : EAGAIN;
    if (is_shortage(ret))
        keep_waiting(req, response);
    else if (ret == 0 && response.data_len != 0) // an empty one is not read
        went_into_pipe(req);
}

// Gives the result of the self-loop's send; ENODEV without a self-loop, and the request stays
// pending.
int PendingRequests::send_through_selfloop(PENDING_REQ_ST* req, DM_DATA_ST* response) {
    if (__dm_has_name(req->intf, kSelfloopName))
        return send_via(req->intf, nullptr, req, response);
    ListWalk walk(dm_cb_->intf_list);
    DM_INTF_ST* selfloop = find_intf(walk, kSelfloopName);
    return selfloop != nullptr ? send_via(selfloop, walk.node(), req, response) : ENODEV;
}

int PendingRequests::send_via(DM_INTF_ST* selfloop, const LIST_NODE_ST* node, PENDING_REQ_ST* req,
                              DM_DATA_ST* response) {
    struct Via {
        Via(PendingRequests& requests, const DM_INTF_ST* intf) : requests_(requests) {
            const std::lock_guard lock(requests_.lock_);
            requests_.via_ = intf;
        }
        Via(const Via&) = delete;
        Via& operator=(const Via&) = delete;
        ~Via() {
            const std::lock_guard lock(requests_.lock_);
            requests_.via_ = nullptr;
            requests_.service_ended_.notify_all();
        }
        PendingRequests& requests_;
    };
    // Its removal marks the node before it waits for the send, and the look comes behind the word
    // that there is one.
    const Via via(*this, selfloop);
    if (node != nullptr && is_removed(node))
        return ENODEV;
    const int ret = dm_send_rsp(selfloop, &req->addr, req->addr_len, response, identity_of(req));
    DM_LOG_INFO_IN(kTimeout, "finish call dm_send_rsp\n");
    return ret;
}

// ---- time-outs that wait for room in the self-loop ----

// Keeps the response where the request's data was, which is not sent any more. One that is too long
// finds no room ever.
void PendingRequests::keep_waiting(PENDING_REQ_ST* req, const DM_DATA_ST& response) {
    if (response.data_len > DM_MAX_DATA_LEN || response.data == nullptr)
        return;
    std::memmove(req->buf, response.data, response.data_len);
    req->data.data_len = response.data_len;
    req->reported = true;
    waiting_.push(req);
}

// A frame may be lost on its way, with a receive that fails: what is more than the pipe takes has
// gone. An answer on the self-loop to a request of its own need not be the time-out, so such a
// request stays till then, too.
void PendingRequests::went_into_pipe(PENDING_REQ_ST* req) {
    req->reported = true;
    in_pipe_.push(req);
    if (in_pipe_.size() > kMostInPipe)
        in_pipe_.pop();
}

bool PendingRequests::hand_over() {
    while (PENDING_REQ_ST* req = waiting_.first()) {
        const Service service(*this, req, Service::Cause::waiting_timeout);
        const int ret = service.begun() ? send_through_selfloop(req, &req->data) : EINVAL;
        if (is_shortage(ret) || ret == ENODEV)
            return ret != ENODEV; // a self-loop comes with a pass
        const PendingRef first = waiting_.pop();
        if (ret == 0)
            went_into_pipe(first.get());
    }
    return false;
}

} // namespace dm
