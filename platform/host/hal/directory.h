// The place of the sockets, and who may take part there.
//
// Two questions are kept apart. Whose directory it may be: who makes sockets there owns it, and who
// connects takes another's only where DM_HAL_DIR names it. And who may talk over the sockets, which
// is asked of each peer.
#ifndef HAL_DIRECTORY_H
#define HAL_DIRECTORY_H

#include "hal/descriptor.h"

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace hal {

// @return the value of an environment variable; null when it is not set, or empty, or when its
// setter may have fewer rights than this process (secure_getenv(3)).
const char* setting(const char* name);

// A directory that was opened and found right. What is in it is named by the descriptor alone: the
// path may lead elsewhere by now.
struct Directory {
    // @return the path of something in it, for the log.
    std::string path_of(const char* name) const { return path + '/' + name; }

    std::string path;
    Descriptor descriptor;
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;
};

// Opens the directory for sockets of this process's own, and makes it when it is missing. It is a
// directory, not a link to one, the caller's own, and closed to others; when DM_HAL_ALLOW_UIDS is
// set, others may search it, but neither list nor change it.
// @return 0, or HAL_ERR_BAD_DIRECTORY; the log then has the reason.
int32_t open_own_directory(Directory& directory);

// A client's way to the directory of its servers, which stays open from one session to the next.
//
// Each session asks anew where the path leads and who may do what there. Only to open it is spared
// when it is the very directory that is open: no other can pass for that one, for what is open
// keeps its inode number.
class ServersDirectory {
public:
    // Gives the directory for connecting to a server in it (O_PATH). It may also belong to a user
    // in DM_HAL_ALLOW_UIDS when DM_HAL_DIR names it; and others may search it in any case.
    // @return 0; HAL_HDC_NOT_READY when nothing is there yet; HAL_ERR_BAD_DIRECTORY as above.
    int32_t get(std::shared_ptr<const Directory>& directory);

private:
    std::shared_ptr<const Directory> last();

    std::mutex mutex_;
    std::shared_ptr<const Directory> last_;
};

// Holds the directory against others who add and remove files there. Unlocked by hand, for a child
// that another thread has forked meanwhile shares the lock until it starts its program.
class DirectoryLock {
public:
    explicit DirectoryLock(const Directory& directory);
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;
    ~DirectoryLock();

    bool held() const { return held_; }

private:
    int fd_;
    bool held_ = false;
};

// Says whether a user is the caller's own, or is listed in DM_HAL_ALLOW_UIDS.
bool is_allowed(uid_t uid);

} // namespace hal

#endif
