/**
 * The log service, as its lines come out of a process.
 *
 * The environment is read once in a process, so each case logs in a child. Its stderr is a socket
 * that keeps the borders between writes: one packet is one write(2).
 */
#include "platform_log.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int module = 10;

using Lines = std::vector<std::string>;

/** @return "level text", or "level thread text" of any but the main thread. */
std::string without_origin(const std::string& line) {
    std::array<char, 16> level = {};
    int process = 0, thread = 0, text = 0;
    std::sscanf(line.c_str(), "%*4d-%*2d-%*2dT%*2d:%*2d:%*2d.%*3d+05:30 %15s %d %d%n", level.data(),
                &process, &thread, &text);
    return level.data() + (thread == process ? "" : " " + std::to_string(thread)) +
           line.substr(static_cast<size_t>(text));
}

/** Runs @p work, which says whether all went well, in a child. @return what it wrote to stderr. */
Lines lines_of(const char* level, const std::function<bool()>& work) {
    std::array<int, 2> ends = {};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
    const pid_t child = fork();
    if (child == 0) {
        setenv("DM_LOG_LEVEL", level, 1);
        setenv("DM_LOG_TARGET", "stderr", 1);
        setenv("TZ", "XXX-05:30", 1);
        dup2(ends[1], STDERR_FILENO);
        _exit(work() ? 0 : 1);
    }
    close(ends[1]);
    Lines lines;
    std::array<char, 4096> packet = {};
    for (ssize_t size = 0; (size = read(ends[0], packet.data(), packet.size())) > 0;)
        lines.push_back(without_origin({packet.data(), static_cast<size_t>(size)}));
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return lines;
}

TEST(Log, TheEnvironmentChoosesTheLowestLevel) {
    const std::map<std::string, int> settings = {{"debug", 0}, {"info", 1}, {"warning", 2},
                                                 {"error", 3}, {"none", 4}, {"verbose", 2}};
    const Lines all = {"DEBUG a\n", "INFO b\n", "WARNING c\n", "ERROR d\n"};
    for (const auto& [setting, lowest] : settings) {
        const Lines lines = lines_of(setting.c_str(), [lowest = lowest] {
            bool right = CheckLogLevel(module, 4) == 0;
            for (int level = 0; level < 4; ++level)
                right = right && CheckLogLevel(module, level) == (level >= lowest ? 1 : 0);
            DlogDebugInner(module, "a");
            DlogInfoInner(module, "b");
            DlogWarnInner(module, "c");
            DlogErrorInner(module, "d");
            return right;
        });
        EXPECT_EQ(lines, Lines(all.begin() + lowest, all.end())) << setting;
    }
}

TEST(Log, OneCallIsOneLineWhateverItsTextAndKeepsErrno) {
    Lines lines = lines_of("error", [] {
        errno = EDOM;
        DlogErrorInner(module, "ends\r\n\n");
        DlogErrorInner(module, "%s%c%s", "a\r\nb\tc\x1b", '\0', "d");
        DlogErrorInner(module, "no such character: %lc\n", static_cast<wint_t>(0x7fffffff));
        std::thread([] { DlogErrorInner(module, "%d\n", gettid()); }).join();
        DlogErrorInner(module, "%02000d\n", 0);
        close(STDERR_FILENO);
        DlogErrorInner(module, "not to be had");
        return errno == EDOM;
    });
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_LE(lines.back().size(), 1024U);
    EXPECT_TRUE(lines.back().ends_with("000\n"));
    lines.pop_back();
    std::array<int, 2> threads = {};
    EXPECT_EQ(std::sscanf(lines.back().c_str(), "ERROR %d %d\n", &threads[0], &threads[1]), 2);
    EXPECT_EQ(threads[0], threads[1]) << "it names its thread";
    lines.pop_back();
    EXPECT_EQ(lines,
              Lines({"ERROR ends\n", "ERROR a  b\tc  d\n", "ERROR no such character: %lc\n"}));
}

} // namespace
