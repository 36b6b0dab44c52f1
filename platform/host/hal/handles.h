// The numbers by which callers know servers and clients; sessions have a table of their own.
#ifndef HAL_HANDLES_H
#define HAL_HANDLES_H

#include "hal/immortal.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace hal {

// One count for all kinds and sessions, so that no number is ever given twice, or stands for two
// kinds.
inline std::atomic<uint64_t> last_handle = 0;

// The open objects of a kind. A call shares the object while it works on it: closing the handle
// takes it out of the table, and the last call that is under way releases it.
template<class T>
class Handles {
public:
    // @return the table of a kind.
    static Handles& table() { return immortal<Handles>(); }

    uint64_t add(std::shared_ptr<T> object) {
        const uint64_t handle = ++last_handle;
        const std::scoped_lock lock(mutex_);
        objects_.emplace(handle, std::move(object));
        return handle;
    }

    // @return the object, or null for a handle that is not open.
    std::shared_ptr<T> find(uint64_t handle) {
        const std::scoped_lock lock(mutex_);
        const auto found = objects_.find(handle);
        return found != objects_.end() ? found->second : nullptr;
    }

    // Closes a handle. @return its object, or null.
    std::shared_ptr<T> take(uint64_t handle) {
        const std::scoped_lock lock(mutex_);
        const auto node = objects_.extract(handle);
        return node ? node.mapped() : nullptr;
    }

private:
    std::mutex mutex_;
    std::map<uint64_t, std::shared_ptr<T>> objects_;
};

} // namespace hal

#endif
