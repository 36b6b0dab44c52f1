#include "hal/socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <iterator>
#include <string_view>

namespace {

constexpr std::string_view kOpenFiles = "/proc/self/fd/";

constexpr timeval kLongestConnect = {0, 500'000};
constexpr timeval kLongestReceive = {hal::kReceiveWait.count() / 1000,
                                     hal::kReceiveWait.count() % 1000 * 1000};

bool __limit(const hal::Descriptor& socket, int option, const timeval& longest) {
    return setsockopt(socket.get(), SOL_SOCKET, option, &longest, sizeof(longest)) == 0;
}

const sockaddr* __generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

timespec __time_until(hal::Clock::time_point deadline) {
    const auto left = std::max(deadline - hal::Clock::now(), hal::Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
}

} // namespace

namespace hal {

sockaddr_un address_in(const Directory& directory, const char* name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // Through the descriptor: the directory's own path may be longer than an address can be, and
    // may lead elsewhere than to the directory that was checked.
    char* const limit = std::end(address.sun_path) - 1;
    char* end = std::ranges::copy(kOpenFiles, address.sun_path).out;
    end = std::to_chars(end, limit, directory.descriptor.get()).ptr;
    *end++ = '/';
    std::string_view(name).copy(end, static_cast<size_t>(limit - end));
    return address;
}

Descriptor open_socket(int type) {
    return make_descriptor([type] { return socket(AF_UNIX, type | SOCK_CLOEXEC, 0); });
}

Descriptor bind_socket(int type, const Directory& directory, const char* name, mode_t mode) {
    Descriptor opened = open_socket(type | SOCK_NONBLOCK);
    const sockaddr_un address = address_in(directory, name);
    mode |= S_ISVTX;
    // The kernel makes the file with the socket's own mode, less what the umask takes away: it is
    // never open to more than it should be.
    if (!opened || fchmod(opened.get(), mode) != 0 ||
        bind(opened.get(), __generic(address), sizeof(address)) != 0 ||
        fchmodat(directory.descriptor.get(), name, mode, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    return opened;
}

int connect_socket(const Descriptor& socket, const Directory& directory, const char* name) {
    const sockaddr_un address = address_in(directory, name);
    return connect(socket.get(), __generic(address), sizeof(address));
}

int connect_in_time(const Descriptor& socket, const Directory& directory, const char* name) {
    // Who waits in connect(2) gets its turn; who only asks finds the places taken by others who ask
    // more often.
    return __limit(socket, SO_SNDTIMEO, kLongestConnect) ? connect_socket(socket, directory, name)
                                                         : -1;
}

bool limit_receive(const Descriptor& socket) {
    return __limit(socket, SO_RCVTIMEO, kLongestReceive);
}

std::optional<uid_t> peer_of(const Descriptor& socket) {
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return std::nullopt;
    return peer.uid;
}

short wait_ready(const Descriptor& socket, short events,
                 std::optional<Clock::time_point> deadline) {
    pollfd waiting = {socket.get(), events, 0};
    for (;;) {
        const timespec left = deadline ? __time_until(*deadline) : timespec{};
        if (ppoll(&waiting, 1, deadline ? &left : nullptr, nullptr) >= 0)
            return waiting.revents;
        if (errno != EINTR)
            return POLLERR;
    }
}

} // namespace hal
