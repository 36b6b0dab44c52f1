#include "ipmi_v_task.h"
#include "readings.h"

#include <atomic>

namespace dmond {

namespace {

constexpr std::uint64_t kPreemptive = 1;

// A task may end, and its block be another's, at any time: fields are read one by one, as they are
// written.
template<class T>
T load(T& field) {
    return std::atomic_ref(field).load();
}

std::string name_of(VOS_TASK_CB_ST& task) {
    std::string name;
    for (char& c : task.name) {
        const char read = load(c);
        if (read == '\0')
            break;
        name += read;
    }
    return name;
}

} // namespace

Json read_tasks() {
    Json tasks = Json::array();
    for (std::uint32_t number = 1; number <= VOS_TASK_MAX; ++number) {
        if (vos_check_task_idvalid(number) == 0)
            continue;
        VOS_TASK_CB_ST& task = g_p_task_cb[number];
        tasks.push_back({{"number", number},
                         {"name", name_of(task)},
                         {"priority", load(task.prio)},
                         {"policy", (load(task.flags) & kPreemptive) != 0 ? "rr" : "other"},
                         {"stack", load(task.stack_size)}});
    }
    return {{"tasks", std::move(tasks)}};
}

} // namespace dmond
