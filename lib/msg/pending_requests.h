// Requests that wait for their response, with their time-outs.
#ifndef DM_PENDING_REQUESTS_H
#define DM_PENDING_REQUESTS_H

#include "base/address_set.h"
#include "dm_msg_intf.h"
#include "msg/request_memory.h"

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>

namespace dm {

class PendingRequests;

// A request that waits for its response. Its address is the request's identity on the wire.
//
// Each of these holds a reference: the pending list, the armed timer, the sender while it sends,
// the poll thread while it handles a time-out or a response, and its time-out while that waits for
// room in the self-loop's pipe or is in there.
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

    PendingRequests* requests; // stays valid when the interface is gone
    RequestMemory::Block* block;
    uint32_t refs;

    // While it is listed, guarded by the lock of the pending list.
    LIST_NODE_ST* node;
    PENDING_REQ_ST* same_bucket;

    // Guarded by the lock of `requests`.
    bool sending;   // its sender is inside send_msg: how that ends is the request's outcome
    bool timed_out; // its time-out is reported, or will be once the send has succeeded
    bool answered;  // its callback runs or has run
    bool ended;     // answered, failed, or its interface is gone: nothing of it happens any more

    // The poll thread's own.
    bool reported;        // its time-out waits for room in the self-loop, or went there
    PENDING_REQ_ST* next; // of the time-outs that wait for room, then of those in the pipe
};

struct PendingUnref {
    void operator()(PENDING_REQ_ST* req) const;
};

using PendingRef = std::unique_ptr<PENDING_REQ_ST, PendingUnref>;

// The requests of a context.
//
// A request has one outcome: its sender gets 0 and the callback is called once, or the sender gets
// an error and it is never called. Where the interface or the context goes first, or the sender's
// thread is cancelled, it is not called either.
class PendingRequests {
public:
    explicit PendingRequests(DM_CB_ST* dm_cb) : dm_cb_(dm_cb) {}
    PendingRequests(const PendingRequests&) = delete;
    PendingRequests& operator=(const PendingRequests&) = delete;

    // What dm_send_req() does, with its results, for arguments that are there.
    int send(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, DM_DATA_ST* data,
             DM_MSG_HANDLER rsp_cb, const void* user_data, uint32_t user_data_len);

    // On the poll thread: gives a response that came on `intf` to its request. Responses to unknown
    // requests (late, doubled or never asked for) are ignored.
    void answer(DM_INTF_ST* intf, DM_MSG_ST* msg);

    // On the poll thread, with each of its passes: time-outs that found no room in the self-loop
    // take what the reading has made. True when some still wait, and want another look soon.
    bool hand_over();

    // An interface goes: its requests end without a callback.
    void end_those_of(const DM_INTF_ST* intf);
    // Waits until the poll thread has done with the interface's requests. Not on that thread.
    void await_service_of(const DM_INTF_ST* intf);

    // No callback begins any more.
    void stop();

    // The pending list lets a request go, with its lock held.
    static void leave_list(PENDING_REQ_ST* req);

private:
    friend PendingUnref;
    class Sender;
    class Service;

    int make_record(PendingRef& made);
    int add(DM_INTF_ST* intf, DM_ADDR_ST* addr, uint32_t addr_len, const DM_DATA_ST* data,
            DM_MSG_HANDLER rsp_cb, const void* user_data, uint32_t user_data_len, PendingRef& made);
    int publish(PENDING_REQ_ST* req);
    int arm_timer(PENDING_REQ_ST* req, uint32_t period_ms);
    int enlist(PENDING_REQ_ST* req);
    void end(PENDING_REQ_ST* req);
    void unlist(PENDING_REQ_ST* req);
    bool is_over(const PENDING_REQ_ST* req);
    PendingRef find(uint64_t req_id);

    static int on_timer(uint32_t period_ms, int32_t elapsed_ms, void* user_data, uint32_t len);
    bool resend(PENDING_REQ_ST* req, uint32_t period_ms);
    void report(PENDING_REQ_ST* req);
    int send_through_selfloop(PENDING_REQ_ST* req, DM_DATA_ST* response);
    int send_via(DM_INTF_ST* selfloop, const LIST_NODE_ST* node, PENDING_REQ_ST* req,
                 DM_DATA_ST* response);
    void keep_waiting(PENDING_REQ_ST* req, const DM_DATA_ST& response);
    void went_into_pipe(PENDING_REQ_ST* req);

    struct SameBucket {
        static PENDING_REQ_ST*& of(PENDING_REQ_ST* req) { return req->same_bucket; }
    };

    // Requests in the order in which they came, with a reference on each.
    class Queue {
    public:
        Queue() = default;
        Queue(const Queue&) = delete;
        Queue& operator=(const Queue&) = delete;
        ~Queue();

        PENDING_REQ_ST* first() const { return first_; }
        std::size_t size() const { return size_; }
        void push(PENDING_REQ_ST* req);
        PendingRef pop();
        // Takes the request with that identity out, unless `keep` is its interface.
        void take(uint64_t req_id, const DM_INTF_ST* keep);

    private:
        PENDING_REQ_ST* first_ = nullptr;
        PENDING_REQ_ST* last_ = nullptr;
        std::size_t size_ = 0;
    };

    DM_CB_ST* dm_cb_;
    RequestMemory memory_{sizeof(PENDING_REQ_ST)};

    // The listed requests, so that none is looked for along the list, which is what counts. Guarded
    // by the list's lock.
    AddressSet<PENDING_REQ_ST, SameBucket> listed_;

    // Guards what follows up to `stopped_`, and of every request its state.
    std::mutex lock_;
    std::condition_variable service_ended_;
    const PENDING_REQ_ST* serving_ = nullptr; // the request that is timed out or answered just now
    const DM_INTF_ST* via_ = nullptr;         // the self-loop while a time-out is sent through it
    bool stopped_ = false;

    // Time-outs that wait for room in the self-loop's pipe, and those whose frame is in there:
    // their identity stays theirs until it has come out. The poll thread's own.
    Queue waiting_;
    Queue in_pipe_;
};

// The callbacks of the pending list.
int __dm_pending_cmp(const void* item, const void* key);
void __dm_pending_free(void* item);

} // namespace dm

#endif
