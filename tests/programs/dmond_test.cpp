#include "child.h"
#include "dmond_protocol.h"
#include "udp_socket.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>

namespace {

using nlohmann::json;

class Dmond : public testing::Test {
protected:
    explicit Dmond(const std::string& preload = "")
        : daemon({"/usr/bin/env", "ASAN_OPTIONS=verify_asan_link_order=0", "LD_PRELOAD=" + preload,
                  DMOND, "--udp", "127.0.0.1:0"}) {}

    json ask(const std::string& command) {
        const Outcome outcome = dmcat_once({url, command});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return json::parse(outcome.out, nullptr, false);
    }

    // Asks for the health until it is as wanted.
    json await_health(const std::function<bool(const json&)>& is_wanted) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        json health = ask("health");
        for (; !is_wanted(health); health = ask("health"))
            if (std::chrono::steady_clock::now() > end)
                throw std::runtime_error(health.dump());
        return health;
    }

    void TearDown() override {
        daemon.send_signal(SIGTERM);
        EXPECT_EQ(daemon.wait().status, 0);
    }

    Child daemon;
    std::string url = listening_url(daemon, STDOUT_FILENO);
};

TEST_F(Dmond, AnswersItsCommands) {
    EXPECT_EQ(dmcat_once({url, "ping", "--data", "a body"}).out, "a body");

    const json info = ask("info");
    EXPECT_EQ(info.at("host").get<std::string>() + "\n", run({"/bin/uname", "-n"}).out);
    EXPECT_EQ(info.at("version"), VERSION);

    const json health = ask("health");
    EXPECT_EQ(health.at("memory").at("total"), sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE));
    EXPECT_FALSE(health.contains("missing")) << health;

    const json expected = {{"interfaces", {{"dm_udp", {{"received", 4}, {"answered", 3}}}}}};
    EXPECT_EQ(ask("stats"), expected);
}

TEST_F(Dmond, SamplesOnTasksThatCanBeKilled) {
    const json tasks = ask("tasks").at("tasks");
    ASSERT_EQ(tasks.size(), 6);
    EXPECT_EQ(tasks.at(2).dump(), R"({"name":"filesystems","number":3,"policy":"other",)"
                                  R"("priority":100,"stack":262144})");
    Child pings({DMCAT, url, "ping", "--count", "200", "--interval", "5"});
    for (int i = 0; i < 20; ++i)
        daemon.send_signal(SIGHUP);
    // The requests themselves go through an interface.
    const json before = ask("health");
    await_health([&](const json& health) { return health.at("network") != before.at("network"); });
    EXPECT_EQ(pings.wait().status, 0);
    EXPECT_EQ(ask("tasks").at("tasks"), tasks);
}

struct DmondOfABrokenSystem : Dmond {
    DmondOfABrokenSystem() : Dmond(BROKEN_SYSTEM) {}
};

TEST_F(DmondOfABrokenSystem, SaysWhatIsMissingAndEnds) {
    const json health = await_health([](const json& all) { return all.at("memory").is_object(); });
    EXPECT_TRUE(health.at("filesystems").is_null());
    EXPECT_TRUE(health.at("missing").at("filesystems").is_string());
    EXPECT_EQ(health.at("missing").at("load"), "the load average: Too many open files");
}

// What the kernel tells of the message queues that a process wrote to last (sysvipc(5)).
std::string queues_of(const Child& daemon) {
    return run({"/usr/bin/awk", "$6 == " + std::to_string(daemon.pid()), "/proc/sysvipc/msg"}).out;
}

TEST(DmondTwice, TheSecondWaitsForATransportAndReclaimsQueues) {
    std::string directory = testing::TempDir() + "dmond_XXXXXX";
    ASSERT_EQ(setenv("DM_HAL_DIR", mkdtemp(directory.data()), 1), 0);
    Child first({DMOND, "--hdc", "0"});
    EXPECT_TRUE(first.await_text("hdc://0\n"));
    Child second({DMOND, "--hdc", "0", "--ipc", "1"});
    EXPECT_TRUE(second.await_text("ipc://1\n"));
    EXPECT_NE(queues_of(first), "") << "it lives";
    second.send_signal(SIGTERM);
    const Outcome waited = second.wait();
    EXPECT_EQ(waited.status, 0);
    EXPECT_NE(waited.err.find("dmond: waiting for hdc://0\n"), std::string::npos) << waited.err;
    first.send_signal(SIGKILL);
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(first.pid()), &ended, WEXITED | WNOWAIT); // stays a zombie
    Child third({DMOND, "--hdc", "0"});
    EXPECT_TRUE(third.await_text("hdc://0\n"));
    EXPECT_EQ(queues_of(first), "");
    std::filesystem::remove_all(directory);
}

// Sends a header in a datagram that claims `data_len` bytes. Gives that of its answer, which it
// waits for past those that other datagrams got.
std::optional<dmond::Header> answer_to(UdpSocket& socket, dmond::Header header,
                                       std::uint16_t data_len) {
    DM_UDP_MSG_ST datagram{};
    datagram.marker = 1;
    datagram.data_len = data_len;
    datagram.req_id = ~0ULL;
    std::memcpy(datagram.data, &header, sizeof header);
    socket.send_bytes(&datagram, sizeof datagram);
    do
        if (!socket.receive(datagram))
            return std::nullopt;
    while (datagram.req_id != ~0ULL);
    std::memcpy(&header, datagram.data, sizeof header);
    return header;
}

TEST_F(Dmond, RefusesWrongMessagesWithAReason) {
    using dmond::Status;
    const struct {
        dmond::Header header;
        std::uint16_t data_len;
        Status status;
        std::uint32_t sequence;
    } kCases[] = {
        {{1, 77, 0}, 11, Status::short_message, 0},
        {{0, 77, 0}, 12, Status::unknown_command, 77},
        {{6, 77, 2}, 14, Status::unknown_command, 77},
        {{1, 77, 3}, 14, Status::length_mismatch, 77},
        {{1, 77, 2}, 15, Status::length_mismatch, 77},
        {{3, 77, 0xffffffff}, 12, Status::length_mismatch, 77},
        {{1, 77, 0}, DM_MAX_DATA_LEN + 1, Status::too_large, 0},
        {{1, 77, 0}, 0xffff, Status::too_large, 0},
    };
    UdpSocket peer;
    peer.connect_to(url);
    for (const auto& wrong : kCases) {
        const auto answer = answer_to(peer, wrong.header, wrong.data_len);
        ASSERT_TRUE(answer) << wrong.data_len;
        EXPECT_EQ(answer->code, static_cast<std::uint32_t>(wrong.status)) << wrong.data_len;
        EXPECT_EQ(answer->sequence, wrong.sequence) << wrong.data_len;
    }
    const std::string reply = dmcat_once({url, "--hex", ""}).out;
    EXPECT_TRUE(json::parse(reply.substr(sizeof(dmond::Header))).at("error").is_string());
}

TEST_F(Dmond, OutlivesAFloodOfWrongDatagrams) {
    UdpSocket flood;
    flood.connect_to(url);
    std::independent_bits_engine<std::mt19937, 32, std::uint32_t> random(7400);
    daemon.send_signal(SIGPIPE); // as when the reader of its log has gone
    // So few at once fit into the daemon's receive buffer that it has to look at each of them.
    for (int batch = 0; batch < 10'000; ++batch) {
        for (int i = 0; i < 10; ++i) {
            DM_UDP_MSG_ST datagram{};
            datagram.reserved1 = random() % 8 == 0 ? 1 : 0;
            datagram.marker = random() % 8 == 0 ? 0 : 1;
            datagram.data_len = static_cast<std::uint16_t>(random() % 2 == 0 ? 12 : random());
            datagram.type = random() % 3;
            const dmond::Header header{random() % 7, random(), random() % 2 * random()};
            std::memcpy(datagram.data, &header, sizeof header);
            flood.send_bytes(&datagram, random() % 2 == 0 ? sizeof datagram : random() % 4138);
        }
        const auto answer = answer_to(flood, {1, 77, 0}, sizeof(dmond::Header));
        ASSERT_TRUE(answer && answer->code == 0) << batch;
    }
}

} // namespace
