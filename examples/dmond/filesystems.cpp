#include "readings.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mntent.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace dmond {

namespace {

// Only filesystems that keep their data on this machine and can be written: a request for the
// space of a network filesystem waits for its server, and all other requests wait with it.
constexpr auto kLocalTypes = std::to_array<std::string_view>(
    {"bcachefs", "btrfs", "exfat", "ext2", "ext3", "ext4", "f2fs", "jffs2", "jfs", "nilfs2",
     "ntfs3", "overlay", "reiserfs", "ubifs", "vfat", "xfs", "zfs"});

bool is_local(std::string_view type) {
    return std::find(kLocalTypes.begin(), kLocalTypes.end(), type) != kLocalTypes.end();
}

// The C library reads and closes its mount tables without cancellation points.
struct CloseMounts {
    void operator()(std::FILE* mounts) const { endmntent(mounts); }
};

} // namespace

Json read_filesystems() {
    Json filesystems = Json::array();
    const std::unique_ptr<std::FILE, CloseMounts> mounts(setmntent("/proc/self/mounts", "r"));
    if (!mounts)
        return filesystems;
    std::set<dev_t> seen; // one that is mounted in several places is listed once
    mntent entry{};
    std::array<char, 4096> strings{};
    while (getmntent_r(mounts.get(), &entry, strings.data(), strings.size()) != nullptr) {
        struct stat root {};
        struct statvfs space {};
        if (!is_local(entry.mnt_type) || stat(entry.mnt_dir, &root) != 0 ||
            !seen.insert(root.st_dev).second || statvfs(entry.mnt_dir, &space) != 0)
            continue;
        const std::uint64_t unit = space.f_frsize;
        filesystems.push_back({{"mount", entry.mnt_dir},
                               {"type", entry.mnt_type},
                               {"size", space.f_blocks * unit},
                               {"free", space.f_bfree * unit},
                               {"available", space.f_bavail * unit}});
    }
    return filesystems;
}

} // namespace dmond
