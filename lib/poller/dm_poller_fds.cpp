// Watched descriptors: adding and removing them, and their callbacks.
#include "dm_poller.h"

#include "list/dm_list_walk.h"
#include "poller/poll_pass.h"
#include "poller/poller_record.h"

#include <cerrno>
#include <memory>

namespace {

using dm::FdEntry;
using dm::Poller;

// The callback of an entry, unless that was removed.
class Callback {
public:
    Callback(Poller* poller, const LIST_NODE_ST* node, const POLLER_FD_ENTRY_ST* entry)
        : poller_(poller) {
        poller_->running.store(entry, std::memory_order_release);
        poller_->callback.begin();
        allowed_ = !dm::is_marked(entry) &&
                   std::atomic_ref(const_cast<LIST_NODE_ST*>(node)->removed).load() == 0;
    }
    Callback(const Callback&) = delete;
    Callback& operator=(const Callback&) = delete;
    ~Callback() {
        poller_->running.store(nullptr, std::memory_order_release);
        poller_->callback.end();
    }

    bool is_allowed() const { return allowed_; }

private:
    Poller* poller_;
    bool allowed_;
};

// What a removal found: whether there was an entry, and the turn of its callback, if that runs.
struct Removal {
    bool found = false;
    uint64_t callback = 0;
};

// A callback begins before it looks at its entry and its node: from the mark on it either runs
// already, and is seen here, or will not begin. Who sees that it has left an entry also sees what
// its callback did.
uint64_t __callback_of(const Poller* poller, const POLLER_FD_ENTRY_ST* entry) {
    const uint64_t turn = poller->callback.current();
    const bool is_its = poller->running.load(std::memory_order_acquire) == entry;
    return is_its && poller->callback.current() == turn ? turn : 0;
}

enum class Then { keep_open, close };

Removal __remove_entries(Poller* poller, int fd, int events, Then then) {
    POLLER_FD_ENTRY_ST key{};
    key.fd = fd;
    key.events = static_cast<int16_t>(events);
    Removal removal;
    dm::ListWalk walk(poller->fd_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* entry = dm::entry_of<FdEntry>(node);
        if (poller_fd_entry_cmp(entry, &key) != 0)
            continue;
        {
            const dm::ListLock lock(poller->fd_list);
            dm::remove_entry(poller, poller->marked_fds, entry, node);
        }
        if (then == Then::close)
            ++poller->closings;
        ++poller->fd_changes;
        removal.found = true;
        if (const uint64_t turn = __callback_of(poller, entry); turn != 0)
            removal.callback = turn;
    }
    return removal;
}

} // namespace

int poller_init_entry(POLLER_FD_ENTRY_ST** entry, int fd, int16_t events,
                      POLLER_FD_CALLBACK callback) {
    auto made = dm::allocate<FdEntry>();
    if (!made) {
        DM_LOG_ERROR(poller_log, "malloc fail\n");
        return ENOMEM;
    }
    if (const int status = dm::zero(made.get()); status != 0) {
        DM_LOG_ERROR(poller_log, "memset_s fail!\n");
        return status;
    }
    made->fd = fd;
    made->events = events;
    made->callback = callback;
    *entry = made.release();
    return 0;
}

int poller_fd_add(POLLER_ST* poller, int fd, int16_t events, POLLER_FD_CALLBACK callback,
                  const void* user_data, int32_t user_data_len) {
    if (poller == nullptr || user_data_len == 0)
        return EINVAL;
    POLLER_FD_ENTRY_ST* made = nullptr;
    if (const int status = poller_init_entry(&made, fd, events, callback); status != 0) {
        DM_LOG_ERROR(poller_log, "init entry fail ret = %d\n", status);
        return status;
    }
    std::unique_ptr<POLLER_FD_ENTRY_ST, dm::EntryDeleter> entry(made);
    if (user_data != nullptr && user_data_len > 0) {
        const int status = dm::copy_user_data(made, user_data, static_cast<uint32_t>(user_data_len),
                                              DM_LOG_SITE(poller_log), "memset_s fail!\n",
                                              DM_LOG_SITE(poller_log));
        if (status != 0)
            return status;
    }
    const int status = list_append(poller->fd_list, made);
    if (status != 0)
        return status;
    static_cast<void>(entry.release()); // it is the list's now
    ++dm::private_of(poller)->fd_changes;
    return 0;
}

int poller_fd_remove(POLLER_ST* poller, int fd, int events) {
    if (poller == nullptr)
        return EINVAL;
    __remove_entries(dm::private_of(poller), fd, events, Then::keep_open);
    return 0;
}

int __poller_fd_remove_and_wait(POLLER_ST* poller, int fd, int events) {
    if (poller == nullptr)
        return EINVAL;
    Poller* self = dm::private_of(poller);
    const Removal removal = __remove_entries(self, fd, events, Then::close);
    if (!removal.found || __poller_is_current(poller))
        return 0;
    // A wait that begins from here on looks at the changes first, and does without the descriptor.
    const uint64_t wait = self->wait.current();
    if (wait != 0 && __poller_wake(poller))
        self->wait.await_end(wait);
    if (removal.callback != 0)
        self->callback.await_end(removal.callback);
    return 0;
}

bool __poller_callback_goes_on(POLLER_ST* poller) {
    const Poller* self = dm::private_of(poller);
    return dm::is_running(poller) && !self->destroy_requested &&
           !dm::is_marked(self->running.load());
}

void __poller_dispatch_fds(Poller* poller, int ready) {
    const auto is_ready = [](const void* item) {
        const auto* entry = static_cast<const POLLER_FD_ENTRY_ST*>(item);
        return entry->slot != nullptr && entry->slot->revents != 0;
    };
    dm::ListWalk walk(poller->fd_list);
    while (ready > 0) {
        LIST_NODE_ST* node = walk.next_where(is_ready);
        if (node == nullptr)
            return; // the slot of an entry that was removed
        const auto* entry = dm::entry_of<POLLER_FD_ENTRY_ST>(node);
        --ready;
        const Callback callback(poller, node, entry);
        if (callback.is_allowed() && entry->callback != nullptr)
            entry->callback(entry->slot->fd, entry->slot->revents, entry->user_data,
                            entry->user_data_len);
    }
}

int poller_fd_entry_cmp(const void* entry, const void* key) {
    const auto* a = static_cast<const POLLER_FD_ENTRY_ST*>(entry);
    const auto* b = static_cast<const POLLER_FD_ENTRY_ST*>(key);
    return a->fd == b->fd && (a->events & b->events) != 0 ? 0 : 1;
}
