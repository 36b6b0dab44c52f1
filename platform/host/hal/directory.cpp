#include "hal/directory.h"

#include "hal/sessions.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

std::string __path() {
    if (const char* path = hal::setting("DM_HAL_DIR"))
        return path;
    if (const char* runtime = hal::setting("XDG_RUNTIME_DIR"))
        return std::string(runtime) + "/dm_hal";
    const std::string uid = std::to_string(geteuid());
    const std::string runtime = "/run/user/" + uid;
    if (faccessat(AT_FDCWD, runtime.c_str(), W_OK | X_OK, AT_EACCESS) == 0)
        return runtime + "/dm_hal";
    return "/tmp/dm_hal-" + uid;
}

bool __is_number(std::string_view text, uid_t number) {
    uid_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && value == number;
}

} // namespace

namespace hal {

const char* setting(const char* name) {
    const char* value = std::getenv(name);
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

Descriptor open_directory() {
    std::string path = __path();
    // With a slash behind it, a link would be followed.
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    mkdir(path.c_str(), S_IRWXU);

    Descriptor directory = make_descriptor(
        [&] { return open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    struct stat status = {};
    if (!directory || fstat(directory.get(), &status) != 0)
        return {};
    mode_t open_to_others = status.st_mode & (S_IRWXG | S_IRWXO);
    if (setting("DM_HAL_ALLOW_UIDS") != nullptr)
        open_to_others &= ~static_cast<mode_t>(S_IXGRP | S_IXOTH);
    if (!is_allowed(status.st_uid) || open_to_others != 0)
        return {};
    return directory;
}

} // namespace hal
