// System V queues outlive their process. A daemon's bear its name as their owner (ipmi_v_queue.h),
// and the kernel has noted the process that wrote to them last (msgctl(2)), which is the daemon.

#include "dead_queues.h"

#include "system_file.h"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/msg.h>
#include <unistd.h>

namespace dmond {

namespace {

// A daemon writes to its queue at least once an hour, which is the longest --interval.
constexpr std::time_t kSilence = 7200;

bool is_ours(const ipc_perm& owner) {
    std::uint32_t tag[2];
    static_assert(sizeof tag == sizeof kProcessName);
    std::memcpy(tag, kProcessName, sizeof tag);
    return owner.uid == tag[0] && owner.gid == tag[1] && owner.cuid == geteuid();
}

// A process that has ended keeps its number and its name until its parent has waited for it. Its
// state follows the name in brackets, which may have brackets itself (proc(5)).
bool has_ended(const std::string& directory) {
    const std::string stat = first_line(directory + "/stat");
    const std::size_t name_end = stat.rfind(") ");
    return name_end != std::string::npos && stat.find_first_of("ZX", name_end) == name_end + 2;
}

// A number may have been given to another process since: this one, another user's, which cannot be
// signalled, or one of another name.
bool is_dead(pid_t daemon) {
    if (daemon == getpid() || kill(daemon, 0) != 0)
        return true;
    const std::string directory = "/proc/" + std::to_string(daemon);
    const std::string name = first_line(directory + "/comm");
    return (!name.empty() && name != kProcessName) || has_ended(directory);
}

// A queue without a writer that is known here was just made, or belongs to another PID namespace
// (pid_namespaces(7)); the latter has the time of a writing.
bool is_left(const msqid_ds& queue) {
    if (queue.msg_lspid != 0)
        return is_dead(queue.msg_lspid);
    return queue.msg_stime == 0 && std::time(nullptr) - queue.msg_ctime > kSilence;
}

} // namespace

void remove_dead_queues() {
    msginfo info{};
    const int last = msgctl(0, MSG_INFO, reinterpret_cast<msqid_ds*>(&info));
    for (int index = 0; index <= last; ++index) {
        msqid_ds queue{};
        const int id = msgctl(index, MSG_STAT, &queue);
        if (id != -1 && is_ours(queue.msg_perm) && is_left(queue))
            msgctl(id, IPC_RMID, nullptr);
    }
}

} // namespace dmond
