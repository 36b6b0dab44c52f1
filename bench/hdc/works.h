// The question: what does an HDC exchange cost: connect, send, be answered, close?
#pragma once

#include "support/require.h"
#include "support/system.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace hdc {

using bench::require;

inline constexpr const char* kExchange = "HDC exchange";

template<class Side>
void add(const std::string& name) {
    bench::add_system(kExchange, name, 100, [] { return std::make_unique<Side>(); });
}

// The directory of all sockets, which goes with the process.
class Directory {
public:
    static const std::string& path() {
        static const Directory only;
        return only.path_;
    }

private:
    Directory() {
        require(mkdtemp(path_.data()) != nullptr, "mkdtemp");
        setenv("DM_HAL_DIR", path_.c_str(), 1);
    }
    ~Directory() { std::filesystem::remove_all(path_); }

    std::string path_ = std::filesystem::temp_directory_path() / "hdc_bench_XXXXXX";
};

// @return a path that no other repetition has had.
inline std::string new_path() {
    static int count = 0;
    return Directory::path() + "/" + std::to_string(++count);
}

} // namespace hdc
