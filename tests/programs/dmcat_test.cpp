#include "child.h"
#include "dmond_protocol.h"
#include "udp_socket.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

using nlohmann::json;

dmond::Header header_of(const DM_UDP_MSG_ST& datagram) {
    dmond::Header header{};
    std::memcpy(&header, datagram.data, sizeof header);
    return header;
}

// Answers a ping without body as dmond does.
void answer_ping(const UdpSocket& peer, DM_UDP_MSG_ST datagram) {
    const dmond::Header header{0, header_of(datagram).sequence, 0};
    std::memcpy(datagram.data, &header, sizeof header);
    datagram.type = DM_MSG_RSP;
    peer.reply(datagram);
}

TEST(Dmcat, TellsHowOftenItAskedAPeerThatWentSilent) {
    UdpSocket peer;
    Child series({DMCAT, peer.url(), "ping", "--count", "2", "--interval", "0", "--timeout", "400",
                  "--retry", "3"});
    DM_UDP_MSG_ST datagram;
    ASSERT_TRUE(peer.receive(datagram));
    answer_ping(peer, datagram);

    const Outcome outcome = series.wait();
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find("no answer: seq=2 sent 4 times, 400 ms apart\n"), std::string::npos)
        << outcome.out;
    EXPECT_NE(outcome.out.find("2 requests, 1 answers, 50.0% loss\n"), std::string::npos);
    std::vector<std::int64_t> arrivals;
    while (const auto arrival = peer.receive(datagram, MSG_DONTWAIT))
        if (header_of(datagram).sequence == 2)
            arrivals.push_back(*arrival);
    ASSERT_EQ(arrivals.size(), 4U);
    for (std::size_t i = 1; i < arrivals.size(); ++i)
        EXPECT_GT(arrivals[i] - arrivals[i - 1], 200'000);

    const Outcome single = dmcat({peer.url(), "ping", "--timeout", "10", "--retry", "0"});
    EXPECT_EQ(single.status, 1);
    EXPECT_EQ(single.err, "dmcat: no answer from " + peer.url() + ": sent once, waited 10 ms\n");
    EXPECT_TRUE(peer.receive(datagram, MSG_DONTWAIT));
    EXPECT_FALSE(peer.receive(datagram, MSG_DONTWAIT));
}

TEST(Dmcat, EchoesAndSendsAnyPayload) {
    const std::string path = testing::TempDir() + "dmcat_payload_" + std::to_string(getpid());
    const std::string bytes(DM_MAX_DATA_LEN, '\xa5');
    std::ofstream(path) << bytes;

    Child echo({DMCAT, "--listen", "udp://127.0.0.1:0", "--echo", "--count", "4"});
    const std::string url = listening_url(echo, STDERR_FILENO);
    EXPECT_EQ(dmcat_once({url, "--data", "text"}).out, "text");
    EXPECT_EQ(dmcat_once({url, "--hex", "00ff0A"}).out, std::string("\0\xff\n", 3));
    EXPECT_EQ(dmcat_once({url, "--file", path}).out, bytes);
    const Outcome no_dmond = dmcat_once({url, "ping"});
    EXPECT_EQ(no_dmond.status, 4);
    EXPECT_EQ(no_dmond.err, "dmcat: " + url + " answered with status 1\n");
    EXPECT_EQ(echo.wait().status, 0);

    // With a command there is less room.
    EXPECT_EQ(dmcat({url, "ping", "--file", path}).status, 2);
    unlink(path.c_str());
}

TEST(Dmcat, SumsUpASeries) {
    Child echo({DMCAT, "--listen", "udp://127.0.0.1:0", "--echo"});
    const std::string url = listening_url(echo, STDERR_FILENO);
    const Outcome outcome =
        dmcat_once({url, "--data", "x", "--count", "250", "--interval", "1", "--json"});
    EXPECT_EQ(outcome.status, 0);
    std::istringstream lines(outcome.out);
    std::vector<std::int64_t> times;
    json summary;
    for (std::string line; std::getline(lines, line);) {
        const json object = json::parse(line);
        if (object.contains("summary"))
            summary = object["summary"];
        else
            times.push_back(object.at("rtt_us"));
    }
    ASSERT_EQ(times.size(), 250U);
    std::sort(times.begin(), times.end());
    const json expected = {
        {"min", times[0]}, {"median", times[124]}, {"p99", times[247]}, {"max", times[249]}};
    EXPECT_EQ(summary.at("rtt_us"), expected);

    Child endless({DMCAT, url, "--data", "x", "--count", "0", "--interval", "5"});
    endless.await_line();
    endless.send_signal(SIGINT);
    const Outcome interrupted = endless.wait();
    EXPECT_EQ(interrupted.status, 0);
    EXPECT_NE(interrupted.out.find(" 0.0% loss\nround trip "), std::string::npos);
    echo.send_signal(SIGTERM);
    EXPECT_EQ(echo.wait().status, 0);
}

} // namespace
