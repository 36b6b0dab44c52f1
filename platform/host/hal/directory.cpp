#include "hal/directory.h"

#include "hal/complaint.h"
#include "hal/sessions.h"
#include "platform_hal_codes.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr mode_t kOthersAll = S_IRWXG | S_IRWXO;
constexpr mode_t kOthersSearch = S_IXGRP | S_IXOTH;

// The system's place for what does not outlive a start, where one may write there: root below /run,
// others in their part of it. It is not cleaned, and no other user can come first.
std::string __runtime_directory(const std::string& uid) {
    const std::string path = uid == "0" ? "/run" : "/run/user/" + uid;
    return faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0 ? path : "";
}

std::string __path() {
    if (const char* path = hal::setting("DM_HAL_DIR"))
        return path;
    if (const char* runtime = hal::setting("XDG_RUNTIME_DIR"))
        return std::string(runtime) + "/dm_hal";
    const std::string uid = std::to_string(geteuid());
    const std::string runtime = __runtime_directory(uid);
    return runtime.empty() ? "/tmp/dm_hal-" + uid : runtime + "/dm_hal";
}

// With a slash behind it, a link would be followed.
std::string __without_slashes(std::string path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

bool __is_number(std::string_view text, uid_t number) {
    uid_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && value == number;
}

bool __may_own(uid_t uid, bool is_server) {
    if (uid == geteuid())
        return true;
    return !is_server && hal::setting("DM_HAL_DIR") != nullptr && hal::is_allowed(uid);
}

// @return what speaks against a directory; empty when nothing does.
std::string __fault(const struct stat& status, bool is_server) {
    if (!__may_own(status.st_uid, is_server))
        return "it belongs to user " + std::to_string(status.st_uid) + ", this is user " +
               std::to_string(geteuid());
    // Who only connects is not harmed by others who do so, too.
    const bool is_shared = !is_server || hal::setting("DM_HAL_ALLOW_UIDS") != nullptr;
    if ((status.st_mode & kOthersAll & ~(is_shared ? kOthersSearch : 0U)) == 0)
        return "";
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "its mode %04o gives rights to others",
                  status.st_mode & 07777U);
    return text.data();
}

// @return why it cannot be had; empty when it can.
std::string __open(hal::Directory& directory, int flags, bool is_server) {
    directory.descriptor = hal::make_descriptor(
        [&] { return open(directory.path.c_str(), flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    struct stat status = {};
    if (!directory.descriptor || fstat(directory.descriptor.get(), &status) != 0)
        return strerrordesc_np(errno);
    directory.device = status.st_dev;
    directory.inode = status.st_ino;
    directory.owner = status.st_uid;
    return __fault(status, is_server);
}

bool __is(const hal::Directory& directory, const struct stat& status) {
    return directory.device == status.st_dev && directory.inode == status.st_ino &&
           directory.owner == status.st_uid;
}

int32_t __verdict(const hal::Directory& directory, const std::string& fault) {
    return fault.empty() ? 0 : hal::complain(directory.path, HAL_ERR_BAD_DIRECTORY, fault);
}

bool __is_missing(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

std::string __parent(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

namespace hal {

const char* setting(const char* name) {
    const char* value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

bool is_allowed(uid_t uid) {
    if (uid == geteuid())
        return true;
    const char* listed = setting("DM_HAL_ALLOW_UIDS");
    std::string_view rest = listed != nullptr ? listed : "";
    while (!rest.empty()) {
        const std::string_view item = rest.substr(0, rest.find(','));
        if (__is_number(item, uid))
            return true;
        rest.remove_prefix(item.size() == rest.size() ? item.size() : item.size() + 1);
    }
    return false;
}

int32_t open_own_directory(Directory& directory) {
    directory.path = __without_slashes(__path());
    if (mkdir(directory.path.c_str(), S_IRWXU) != 0 && errno != EEXIST)
        return __verdict(directory, strerrordesc_np(errno));
    return __verdict(directory, __open(directory, O_RDONLY, true));
}

int32_t ServersDirectory::get(std::shared_ptr<const Directory>& directory) {
    std::string path = __without_slashes(__path());
    struct stat status = {};
    const bool is_there = lstat(path.c_str(), &status) == 0;
    if (!is_there && errno == ENOENT && !__is_missing(__parent(path)))
        return HAL_HDC_NOT_READY; // its server makes it
    directory = last();
    if (is_there && directory && directory->path == path && __is(*directory, status))
        return __verdict(*directory, __fault(status, false));
    auto opened = std::make_shared<Directory>();
    opened->path = std::move(path);
    if (const int32_t code = __verdict(*opened, __open(*opened, O_PATH, false)); code != 0)
        return code;
    directory = std::move(opened);
    const std::scoped_lock lock(mutex_);
    last_ = directory;
    return 0;
}

std::shared_ptr<const Directory> ServersDirectory::last() {
    const std::scoped_lock lock(mutex_);
    return last_;
}

DirectoryLock::DirectoryLock(const Directory& directory) : fd_(directory.descriptor.get()) {
    do {
        held_ = flock(fd_, LOCK_EX) == 0;
    } while (!held_ && errno == EINTR);
}

DirectoryLock::~DirectoryLock() {
    flock(fd_, LOCK_UN);
}

} // namespace hal
