// One dmond on all transports, and dmcat on each.
#include "child.h"
#include "dm_hdc.h"
#include "dmond_protocol.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <random>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using nlohmann::json;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRequests = 50;
constexpr int kMalformed = 500;
#else
constexpr int kRequests = 1000;
constexpr int kMalformed = 10000;
#endif

class Transports : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        ASSERT_EQ(setenv("DM_HAL_DIR", directory_.c_str(), 1), 0);
        start();
    }
    void TearDown() override {
        daemon_->send_signal(SIGTERM);
        EXPECT_EQ(daemon_->wait().status, 0);
        std::filesystem::remove_all(directory_);
    }

    void start() {
        daemon_.emplace(
            std::vector<std::string>{DMOND, "--udp", "127.0.0.1:0", "--hdc", "0", "--ipc", "1"});
        url_ = listening_url(*daemon_, STDOUT_FILENO);
        // The transports are opened in this order.
        EXPECT_TRUE(daemon_->await_text("ipc://1\n"));
    }

    std::ptrdiff_t entries(const char* what) const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(daemon_->pid()) +
                                                      "/" + what);
        return std::distance(begin(all), end(all));
    }

    int answers_over_hdc() const {
        const json stats = json::parse(dmcat_once({url_, "stats"}).out);
        return stats.at("interfaces").value("/dm_hdc0/answered"_json_pointer, 0);
    }

    std::string directory_ = testing::TempDir() + "transports_XXXXXX";
    std::optional<Child> daemon_;
    std::string url_;
};

TEST_F(Transports, AnswerTheSameCommands) {
    for (const std::string& url : {url_, std::string("hdc://0"), std::string("ipc://1")}) {
        EXPECT_EQ(dmcat_once({url, "ping", "--data", "a body"}).out, "a body") << url;
        const json health = json::parse(dmcat_once({url, "health"}).out, nullptr, false);
        EXPECT_EQ(health.contains("load"), true) << url;
        EXPECT_EQ(health.contains("memory"), url != "ipc://1") << url;
    }
    EXPECT_EQ(dmcat_once({"ipc://1", "info"}).status, 4) << "too large for the channel";
    EXPECT_EQ(dmcat_once({"ipc://1", "ping", "--data", std::string(21, 'x')}).status, 2);
    EXPECT_EQ(dmcat({"ipc://2", "ping", "--timeout", "100"}).status, 1);
    const std::string large(dmond::kMaxBodyLen, 'x');
    EXPECT_EQ(dmcat_once({"hdc://0", "ping", "--data", large}).out, large);
}

TEST_F(Transports, ManyClientsAtOnceAreAllAnsweredOnce) {
    Child second({DMCAT, "--listen", "hdc://0", "--echo"});
    EXPECT_TRUE(second.await_line(STDERR_FILENO).starts_with("dmcat: hdc://0 is not open"));
    second.send_signal(SIGTERM);
    EXPECT_EQ(second.wait().status, 0);
    dmcat_once({"hdc://0", "ping"}); // what comes with the first request, stays
    const std::ptrdiff_t descriptors = entries("fd");
    const std::ptrdiff_t threads = entries("task");
    const json before = json::parse(dmcat_once({url_, "stats"}).out).at("interfaces");
    std::list<Child> clients;
    for (int i = 0; i < 25; ++i)
        clients.emplace_back(std::vector<std::string>{
            DMCAT, i < 20 ? "hdc://0" : url_, "ping", "--data", std::to_string(i), "--interval",
            "0", "--timeout", "100000", "--retry", "0", "--count", std::to_string(kRequests)});
    const std::string count = std::to_string(kRequests);
    for (Child& client : clients) {
        const Outcome outcome = client.wait();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_NE(outcome.out.find(count + " requests, " + count + " answers"), std::string::npos);
    }
    const json after = json::parse(dmcat_once({url_, "stats"}).out).at("interfaces");
    for (const char* what : {"received", "answered"})
        EXPECT_EQ(after["dm_hdc0"][what].get<int>() - before["dm_hdc0"][what].get<int>(),
                  20 * kRequests);
    // The last session's thread may still be ending.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (entries("task") != threads || entries("fd") != descriptors)
        ASSERT_LT(std::chrono::steady_clock::now(), end) << entries("task") << entries("fd");
}

// Connections to a server, also those that it has not accepted yet (proc(5)).
int connections_to(const std::string& socket) {
    int count = 0;
    std::ifstream all("/proc/net/unix");
    for (std::string line; std::getline(all, line);)
        count += line.ends_with("/" + socket) ? 1 : 0;
    return count;
}

TEST_F(Transports, ClientsOutliveAKilledDaemon) {
    Child series({DMCAT, "hdc://0", "ping", "--count", "0", "--interval", "5"});
    series.await_line();
    // Stopped, it answers nobody: all clients are in the middle of an exchange when it is killed.
    daemon_->send_signal(SIGSTOP);
    Child single({DMCAT, "hdc://0", "ping"});
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (connections_to("hdc-0") < 32)
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    daemon_->send_signal(SIGKILL);
    EXPECT_EQ(daemon_->wait().status, -SIGKILL);
    const Outcome outcome = single.wait();
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err, "dmcat: cannot send to hdc://0: the session is closed\n");

    // On HDC, too, a request is sent again in time, and a signal ends it.
    const Outcome nobody = dmcat({"hdc://1", "ping", "--timeout", "100", "--retry", "2"});
    EXPECT_EQ(nobody.status, 1);
    EXPECT_EQ(nobody.err, "dmcat: no answer from hdc://1: sent 3 times, 100 ms apart\n");

    start();
    // The series goes on.
    while (answers_over_hdc() < 50)
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    series.send_signal(SIGINT);
    const Outcome all = series.wait();
    EXPECT_EQ(all.status, 3);
    EXPECT_LT(all.out.find(" (the session is closed)\n"), all.out.rfind(" bytes from hdc://0"));
}

// A peer on the channel that does not speak frames.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("connect");
    }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;
    ~RawPeer() { close(fd_); }

    void send_bytes(const std::string& bytes) const {
        send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

private:
    int fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
};

TEST_F(Transports, MalformedHdcMessagesHarmNobody) {
    // The daemon never closes the sessions of requests that it drops.
    const rlimit few{512, 512};
    ASSERT_EQ(prlimit(daemon_->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    std::mt19937 random(7400);
    for (int i = 0; i < kMalformed; ++i) {
        const std::size_t len = random() % 2 == 0 ? 1 + random() % 60 : 1 + random() % 5000;
        std::string bytes(len, '\0');
        for (char& byte : bytes)
            byte = static_cast<char>(random());
        HDC_MSG_ST frame{};
        frame.req_id = random();
        // Lies about its length in most cases, and by little in many.
        frame.data_len =
            static_cast<std::uint16_t>(random() % 3 == 0 ? random() : len + random() % 4 - 2);
        frame.type = random() % 2;
        if (random() % 4 != 0)
            std::memcpy(bytes.data(), &frame, std::min<std::size_t>(len, DM_HDC_HEADER_LEN));
        RawPeer(directory_ + "/hdc-0").send_bytes(bytes);
    }
    EXPECT_EQ(dmcat_once({"hdc://0", "ping", "--data", "still there"}).out, "still there");
}

} // namespace
