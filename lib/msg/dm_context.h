// The context with what it needs beyond its public fields, for the files of the framework.
#ifndef DM_CONTEXT_H
#define DM_CONTEXT_H

#include "base/log.h"
#include "dm_msg_intf.h"
#include "list/dm_list_walk.h"
#include "msg/pending_requests.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>

extern constinit dm::SubjectLog msg_log;

namespace dm {

// It is released by the last of its two holders: its owner, who gives it up in dm_destroy(), and
// the poller, which gives it up when no callback will run any more. So a handler that runs longer
// than dm_destroy() waits, or that calls it, keeps the lists that it works on.
struct Context : DM_CB_ST {
    const pid_t process = getpid(); // whose poll thread it is; a forked child has none of it
    std::atomic<int> holders{1};
    std::atomic<bool> destroyed{false}; // callbacks that still come do nothing

    std::mutex registry; // makes finding and removing an interface by name one step
    PendingRequests requests{this};

    // The poll thread's own: the interface that receives at the moment, null once its handler
    // removed it, and the interfaces that were removed while a callback of theirs may still stand
    // in them.
    const DM_INTF_ST* receiving = nullptr;
    struct Retired* retired = nullptr;
    uint32_t callbacks = 0; // under way: one, and none between
};

inline Context* context_of(DM_CB_ST* dm_cb) {
    return static_cast<Context*>(dm_cb);
}

// A callback of the framework on the poll thread. An interface that is removed in it is closed at
// once, and its record released with the end of the callback: its slots may still use it.
class CallbackScope {
public:
    explicit CallbackScope(Context* context) : context_(context) { ++context_->callbacks; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
    ~CallbackScope() noexcept(false);

private:
    Context* context_;
};

// Moves the walk to the first interface of that name, which is not released while it stands there.
DM_INTF_ST* find_intf(ListWalk& walk, const char* name);

} // namespace dm

// The request goes to a handler: the dispatch of commands.
void __dm_cmd_handle(DM_INTF_ST* intf, DM_MSG_ST* msg);

// The callbacks of the command list.
int __dm_cmd_cmp(const void* item, const void* key);
void __dm_cmd_free(void* item);

#endif
