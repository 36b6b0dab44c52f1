#include "child.h"
#include "dmond_protocol.h"
#include "udp_socket.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <bit>
#include <iomanip>
#include <random>
#include <sstream>

namespace {

using nlohmann::json;

class Dmond : public testing::Test {
protected:
    json ask(const std::string& command) {
        const Outcome outcome = dmcat_once({url, command});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return json::parse(outcome.out, nullptr, false);
    }

    // An orderly end: a daemon that is killed leaves its message queue in the kernel.
    void TearDown() override {
        daemon.send_signal(SIGTERM);
        EXPECT_EQ(daemon.wait().status, 0);
    }

    Child daemon{{DMOND, "--udp", "127.0.0.1:0"}};
    std::string url = listening_url(daemon, STDOUT_FILENO);
};

TEST_F(Dmond, AnswersItsCommands) {
    EXPECT_EQ(dmcat_once({url, "ping", "--data", "a body"}).out, "a body");

    const json info = ask("info");
    std::array<char, 256> host{};
    gethostname(host.data(), host.size() - 1);
    EXPECT_EQ(info.at("host"), host.data());
    EXPECT_EQ(info.at("version"), VERSION);
    EXPECT_EQ(info.at("processors"), sysconf(_SC_NPROCESSORS_ONLN));

    const json health = ask("health");
    const json& memory = health.at("memory");
    const auto total = static_cast<std::uint64_t>(sysconf(_SC_PHYS_PAGES) * sysconf(_SC_PAGESIZE));
    EXPECT_EQ(memory.at("total"), total);
    EXPECT_GT(memory.at("available"), 0);
    EXPECT_LE(memory.at("available"), memory.at("total"));
    for (const json& filesystem : health.at("filesystems"))
        EXPECT_LE(filesystem.at("available"), filesystem.at("size")) << filesystem;
    const json& network = health.at("network");
    EXPECT_TRUE(std::any_of(network.begin(), network.end(), [](const json& interface) {
        return interface.at("interface") == "lo";
    })) << network;

    const json expected = {{"interfaces", {{"dm_udp", {{"received", 4}, {"answered", 3}}}}}};
    EXPECT_EQ(ask("stats"), expected);
}

// The raw bytes of a request with a body of `body_len` bytes, whatever its header says.
std::string request_hex(std::uint32_t command, std::uint32_t said_len, std::size_t body_len) {
    std::ostringstream hex;
    for (const std::uint32_t word : {command, 77U, said_len})
        for (const std::uint8_t byte : std::bit_cast<std::array<std::uint8_t, 4>>(word))
            hex << std::hex << std::setw(2) << std::setfill('0') << unsigned{byte};
    return hex.str() + std::string(2 * body_len, 'f');
}

// Sends a ping without body in a datagram that claims `data_len` bytes. Gives the status of its
// answer, which it waits for past those that other datagrams got.
std::optional<dmond::Status> ping_status(UdpSocket& socket, std::uint16_t data_len) {
    DM_UDP_MSG_ST datagram{};
    datagram.marker = 1;
    datagram.type = DM_MSG_REQ;
    datagram.data_len = data_len;
    datagram.req_id = ~0ULL;
    dmond::Header header{static_cast<std::uint32_t>(dmond::Command::ping), 0, 0};
    std::memcpy(datagram.data, &header, sizeof header);
    socket.send_bytes(&datagram, sizeof datagram);
    while (socket.receive(datagram)) {
        if (datagram.req_id != ~0ULL)
            continue;
        std::memcpy(&header, datagram.data, sizeof header);
        return dmond::Status{header.code};
    }
    return std::nullopt;
}

TEST_F(Dmond, SamplesOnATaskThatCanBeKilled) {
    const json expected = {{"number", 1},
                           {"name", "sampler"},
                           {"priority", 100},
                           {"policy", "other"},
                           {"stack", 262144}};
    EXPECT_EQ(ask("tasks").at("tasks"), json::array({expected}));
    // The requests go through the loopback interface: a later sample has seen more of it.
    const auto received = [this] {
        const json health = ask("health");
        for (const json& interface : health.at("network"))
            if (interface.at("interface") == "lo")
                return interface.at("rx_bytes").get<std::uint64_t>();
        return std::uint64_t{0};
    };
    Child pings({DMCAT, url, "ping", "--count", "200", "--interval", "5"});
    for (int i = 0; i < 20; ++i)
        daemon.send_signal(SIGHUP);
    const std::uint64_t before = received();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (received() <= before)
        ASSERT_LT(std::chrono::steady_clock::now(), end);
    EXPECT_EQ(pings.wait().status, 0);
    EXPECT_EQ(ask("tasks").at("tasks"), json::array({expected}));
}

TEST_F(Dmond, RefusesWrongMessagesWithAReason) {
    using dmond::Status;
    const struct {
        std::string hex;
        Status status;
        std::uint32_t sequence;
    } kCases[] = {
        {"", Status::short_message, 0},
        {request_hex(1, 0, 0).substr(0, 22), Status::short_message, 0},
        {request_hex(0, 0, 0), Status::unknown_command, 77},
        {request_hex(6, 2, 2), Status::unknown_command, 77},
        {request_hex(1, 3, 2), Status::length_mismatch, 77},
        {request_hex(1, 2, 3), Status::length_mismatch, 77},
        {request_hex(3, 0xffffffff, 0), Status::length_mismatch, 77},
    };
    for (const auto& wrong : kCases) {
        const std::string reply = dmcat_once({url, "--hex", wrong.hex}).out;
        dmond::Header header{};
        ASSERT_GE(reply.size(), sizeof header) << wrong.hex;
        std::memcpy(&header, reply.data(), sizeof header);
        EXPECT_EQ(header.code, static_cast<std::uint32_t>(wrong.status)) << wrong.hex;
        EXPECT_EQ(header.sequence, wrong.sequence) << wrong.hex;
        EXPECT_EQ(header.body_len, reply.size() - sizeof header) << wrong.hex;
        EXPECT_TRUE(json::parse(reply.substr(sizeof header)).at("error").is_string());
    }
    UdpSocket peer;
    peer.connect_to(url);
    EXPECT_EQ(ping_status(peer, DM_MAX_DATA_LEN + 1), Status::too_large);
    EXPECT_EQ(ping_status(peer, 0xffff), Status::too_large);
}

using Random = std::independent_bits_engine<std::mt19937, 32, std::uint32_t>;

// Each is right in some of its fields, so that all checks of the way in are reached.
DM_UDP_MSG_ST random_datagram(Random& random) {
    DM_UDP_MSG_ST datagram{};
    const auto one_of = [&random](auto... values) {
        const std::array<std::uint32_t, sizeof...(values)> all{
            static_cast<std::uint32_t>(values)...};
        return all[random() % all.size()];
    };
    datagram.reserved1 = static_cast<std::uint16_t>(one_of(0, 0, 0, random()));
    datagram.marker = static_cast<std::uint16_t>(one_of(1, 1, 1, random()));
    datagram.data_len = static_cast<std::uint16_t>(one_of(0, 11, 12, 4096, 4097, random()));
    datagram.type = one_of(DM_MSG_REQ, DM_MSG_REQ, DM_MSG_RSP, random());
    datagram.req_id = one_of(0, 1, random());
    const dmond::Header header{one_of(1, 2, 4, random()), random(), one_of(0, 4084, random())};
    std::memcpy(datagram.data, &header, sizeof header);
    return datagram;
}

TEST_F(Dmond, OutlivesAFloodOfWrongDatagrams) {
    UdpSocket flood;
    flood.connect_to(url);
    Random random(7400);
    // So few at once fit into the daemon's receive buffer that it has to look at each of them.
    for (int batch = 0; batch < 10'000; ++batch) {
        for (int i = 0; i < 10; ++i) {
            const DM_UDP_MSG_ST datagram = random_datagram(random);
            const std::array<std::size_t, 4> lengths{0, random() % 42, 42 + random() % 4096, 4138};
            flood.send_bytes(&datagram, lengths[random() % lengths.size()]);
        }
        ASSERT_EQ(ping_status(flood, sizeof(dmond::Header)), dmond::Status::ok) << batch;
    }
    EXPECT_EQ(dmcat_once({url, "ping", "--data", "still there"}).out, "still there");
}

} // namespace
