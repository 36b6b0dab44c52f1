#include "readings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <mntent.h>
#include <optional>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>

namespace dmond {

namespace {

// Only filesystems that keep their data on this machine and can be written: to ask for the space of
// a network filesystem is to wait for its server, and the whole reading with it.
constexpr auto kLocalTypes = std::to_array<std::string_view>(
    {"bcachefs", "btrfs", "exfat", "ext2", "ext3", "ext4", "f2fs", "jffs2", "jfs", "nilfs2",
     "ntfs3", "overlay", "reiserfs", "ubifs", "vfat", "xfs", "zfs"});

constexpr const char* kMounts = "/proc/self/mounts";

bool is_local(std::string_view type) {
    return std::find(kLocalTypes.begin(), kLocalTypes.end(), type) != kLocalTypes.end();
}

// The C library reads and closes its mount tables without cancellation points.
struct CloseMounts {
    void operator()(std::FILE* mounts) const { endmntent(mounts); }
};

// One that the daemon may not see, or that lies below another, is as good as not there.
bool is_hidden(int error) {
    return error == EACCES || error == ENOENT;
}

// Without its space when there is none.
Json entry_of(const mntent& mount, const std::optional<struct statvfs>& space) {
    const auto bytes = [&space](fsblkcnt_t blocks) { return Json(blocks * space->f_frsize); };
    return {{"mount", mount.mnt_dir},
            {"type", mount.mnt_type},
            {"size", space ? bytes(space->f_blocks) : Json()},
            {"free", space ? bytes(space->f_bfree) : Json()},
            {"available", space ? bytes(space->f_bavail) : Json()}};
}

} // namespace

Json read_filesystems() {
    Json filesystems = Json::array();
    const std::unique_ptr<std::FILE, CloseMounts> mounts(setmntent(kMounts, "r"));
    if (!mounts)
        throw std::system_error(errno, std::generic_category(), kMounts);
    std::set<dev_t> seen; // one that is mounted in several places is listed once
    mntent entry{};
    std::array<char, 4096> strings{};
    while (getmntent_r(mounts.get(), &entry, strings.data(), strings.size()) != nullptr) {
        struct stat root {};
        struct statvfs space {};
        if (!is_local(entry.mnt_type))
            continue;
        const bool found = stat(entry.mnt_dir, &root) == 0;
        if (found && !seen.insert(root.st_dev).second)
            continue;
        if (found && statvfs(entry.mnt_dir, &space) == 0)
            filesystems.push_back(entry_of(entry, space));
        else if (!is_hidden(errno))
            filesystems.push_back(entry_of(entry, std::nullopt));
    }
    return filesystems;
}

} // namespace dmond
