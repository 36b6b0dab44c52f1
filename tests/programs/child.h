// Programs under test, run as child processes with their output on pipes.
#ifndef TESTS_PROGRAMS_CHILD_H
#define TESTS_PROGRAMS_CHILD_H

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

struct Outcome {
    int status; // exit status, or the negative number of the signal that ended it
    std::string out;
    std::string err;
};

class Child {
public:
    explicit Child(std::vector<std::string> words) {
        std::array<int, 2> out{};
        std::array<int, 2> err{};
        if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        std::vector<char*> argv;
        argv.reserve(words.size() + 1);
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const int failed = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        if (failed != 0)
            throw std::runtime_error("cannot start " + words[0]);
        // A pidfd becomes readable when the process has ended.
        streams_ = {pollfd{out[0], POLLIN, 0}, pollfd{err[0], POLLIN, 0},
                    pollfd{static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)), POLLIN, 0}};
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (!ended_) {
            send_signal(SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        for (const pollfd& stream : streams_)
            close(stream.fd < 0 ? ~stream.fd : stream.fd);
    }

    pid_t pid() const { return pid_; }
    void send_signal(int signal) const { kill(pid_, signal); }

    // Waits until standard output holds the text. False when it ended before.
    bool await_text(const std::string& text) {
        while (out_.find(text) == std::string::npos)
            if (!pump())
                return false;
        return true;
    }

    // The first line on standard output, or on standard error.
    std::string await_line(int stream = STDOUT_FILENO) {
        const std::string& text = stream == STDOUT_FILENO ? out_ : err_;
        while (text.find('\n') == std::string::npos && pump())
            ;
        return text.substr(0, text.find('\n'));
    }

    Outcome wait() {
        while (pump())
            ;
        int status = 0;
        waitpid(pid_, &status, 0);
        ended_ = true;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), out_, err_};
    }

private:
    // Waits for output or the end. False when both streams and the process have ended. A process
    // that is silent for too long is killed.
    bool pump() {
        if (poll(streams_.data(), streams_.size(), 60'000) == 0) {
            ADD_FAILURE() << "no output and no end for a minute";
            send_signal(SIGKILL);
        }
        take(streams_[0], out_);
        take(streams_[1], err_);
        if (streams_[2].revents != 0)
            streams_[2].fd = ~streams_[2].fd;
        return streams_[0].fd >= 0 || streams_[1].fd >= 0 || streams_[2].fd >= 0;
    }

    // poll(2) ignores negative descriptors.
    static void take(pollfd& stream, std::string& text) {
        if (stream.revents == 0)
            return;
        std::array<char, 4096> chunk{};
        const ssize_t len = read(stream.fd, chunk.data(), chunk.size());
        if (len > 0)
            text.append(chunk.data(), static_cast<std::size_t>(len));
        else
            stream.fd = ~stream.fd;
    }

    pid_t pid_ = -1;
    bool ended_ = false;
    std::array<pollfd, 3> streams_{};
    std::string out_;
    std::string err_;
};

inline Outcome run(std::vector<std::string> words) {
    return Child(std::move(words)).wait();
}

inline Outcome dmcat(std::vector<std::string> words) {
    words.insert(words.begin(), DMCAT);
    return run(std::move(words));
}

// With a time-out that no machine is too slow for, and nothing sent twice.
inline Outcome dmcat_once(std::vector<std::string> words) {
    words.insert(words.end(), {"--retry", "0", "--timeout", "60000"});
    return dmcat(std::move(words));
}

// The URL at the end of the line that tells where a program listens.
inline std::string listening_url(Child& child, int stream) {
    const std::string line = child.await_line(stream);
    const std::size_t url = line.find("udp://127.0.0.1:");
    EXPECT_NE(url, std::string::npos) << line;
    return url == std::string::npos ? line : line.substr(url);
}

#endif
