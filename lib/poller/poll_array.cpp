#include "poller/poll_array.h"

#include "list/dm_list_walk.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace dm {

namespace {

constexpr const char* kOperation = "__poller_load_fds";
constexpr uint32_t kSlotStep = 8;

} // namespace

void PollArray::refresh() {
    const bool was_fresh = loaded_ && is_fresh();
    if (was_fresh)
        return;
    seen_ = poller_->fd_changes;
    load();
}

// Gives every entry that is not marked a slot. When the array cannot grow, the count becomes 0 and
// no entry has a slot: the pass polls nothing and dispatches nothing.
void PollArray::load() {
    count_ = list_size(poller_->fd_list);
    loaded_ = (size_ != 0 && size_ >= count_) || grow();
    if (!loaded_) {
        count_ = 0;
        clear_slots();
        return;
    }
    // poll() gets as many slots as the list has nodes, even when marked entries take none; the
    // last slots then keep what an earlier pass left there, which no entry refers to.
    const uint64_t closings = poller_->closings;
    pollfd* slot = fds_.get();
    const pollfd* end = slot + count_;
    ListWalk walk(poller_->fd_list);
    while (LIST_NODE_ST* node = walk.next()) {
        auto* entry = entry_of<POLLER_FD_ENTRY_ST>(node);
        const bool takes_slot = slot != end && !is_marked(entry);
        entry->slot = takes_slot ? slot : nullptr;
        if (takes_slot)
            *slot++ = {entry->fd, entry->events, entry->revents};
    }
    if (std::exchange(closings_, closings) != closings)
        blank_rest(slot);
}

// A descriptor that is about to be closed must not be polled any more, for that keeps its file.
void PollArray::blank_rest(pollfd* rest) {
    const pollfd* loaded = fds_.get();
    for (pollfd* slot = rest; slot != loaded + size_; ++slot) {
        const auto is_same = [slot](const pollfd& other) { return other.fd == slot->fd; };
        if (std::none_of(loaded, static_cast<const pollfd*>(rest), is_same))
            slot->fd = -1;
    }
}

bool PollArray::grow() {
    const uint32_t grown = (count_ + kSlotStep) & ~(kSlotStep - 1);
    auto array = allocate<pollfd>(grown * sizeof(pollfd));
    if (!array) {
        DM_LOG_ERROR_IN(poller_log, kOperation, "malloc fail. errno=%d.", errno);
        return false;
    }
    if (zero(array.get(), grown * sizeof(pollfd)) != 0) {
        DM_LOG_ERROR_IN(poller_log, kOperation, "memset_s fail. errno=%d.", errno);
        return false;
    }
    fds_ = std::move(array);
    size_ = grown;
    return true;
}

// No entry may keep a slot of an array that is released or not polled.
void PollArray::clear_slots() {
    ListWalk walk(poller_->fd_list);
    while (LIST_NODE_ST* node = walk.next())
        entry_of<POLLER_FD_ENTRY_ST>(node)->slot = nullptr;
}

} // namespace dm
