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

// Answers as dmond does.
void answer(const UdpSocket& peer, DM_UDP_MSG_ST datagram, std::string_view body = "") {
    const dmond::Header header{0, header_of(datagram).sequence,
                               static_cast<std::uint32_t>(body.size())};
    std::memcpy(datagram.data, &header, sizeof header);
    std::memcpy(datagram.data + sizeof header, body.data(), body.size());
    datagram.data_len = static_cast<std::uint16_t>(sizeof header + body.size());
    datagram.type = DM_MSG_RSP;
    peer.reply(datagram);
}

TEST(Dmcat, TellsHowOftenItAskedAPeerThatWentSilent) {
    UdpSocket peer;
    Child series({DMCAT, peer.url(), "ping", "--count", "2", "--interval", "0", "--timeout", "400",
                  "--retry", "3"});
    DM_UDP_MSG_ST datagram;
    ASSERT_TRUE(peer.receive(datagram));
    answer(peer, datagram);

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

TEST(Dmcat, SumsUpASeriesToOnePercent) {
    UdpSocket peer;
    Child series({DMCAT, peer.url(), "ping", "--count", "100", "--interval", "1", "--timeout",
                  "60000", "--json"});
    std::vector<DM_UDP_MSG_ST> late(100);
    for (std::size_t i = 0; i < late.size() + 9; ++i) {
        ASSERT_TRUE(i >= late.size() || peer.receive(late[i]));
        if (i >= 9)
            answer(peer, late[i - 9]);
    }
    const Outcome outcome = series.wait();
    EXPECT_EQ(outcome.status, 0);
    std::istringstream lines(outcome.out);
    std::vector<double> times;
    json object;
    for (std::string line; std::getline(lines, line);) {
        object = json::parse(line);
        if (object.contains("rtt_us"))
            times.push_back(object["rtt_us"]);
    }
    const json& summary = object.at("summary").at("rtt_us");
    ASSERT_EQ(times.size(), 100U);
    std::sort(times.begin(), times.end());
    EXPECT_EQ(summary.at("min"), times[0]);
    EXPECT_NEAR(summary.at("median"), times[49], 0.01 * times[49]);
    EXPECT_NEAR(summary.at("p99"), times[98], 0.01 * times[98]);
    EXPECT_EQ(summary.at("max"), times[99]);
}

TEST(Dmcat, ShowsATerminalNothingThatControlsIt) {
    UdpSocket peer;
    const auto info_on_terminal = [&](std::string_view body) {
        // script(1) gives the program a terminal, and its status.
        Child terminal(
            {"/usr/bin/script", "-qec", DMCAT " " + peer.url() + " info --retry 0", "/dev/null"});
        DM_UDP_MSG_ST datagram;
        EXPECT_TRUE(peer.receive(datagram));
        answer(peer, datagram, body);
        return terminal.wait();
    };
    const Outcome text = info_on_terminal("\"Z\u00fcrich \u009b\u202e\x7f\"");
    EXPECT_EQ(text.out, "\"Z\u00fcrich \\u009b\\u202e\\u007f\"\r\n");
    EXPECT_EQ(text.status, 0);
    const Outcome bytes = info_on_terminal("\x1b[2J\r\xc2\xff");
    EXPECT_EQ(bytes.out, "\\u001b[2J\\u000d\\xc2\\xff\r\ndmcat: " + peer.url() +
                             " answered with a body that is not JSON\r\n");
    EXPECT_EQ(bytes.status, 4);
}

TEST(Dmcat, EndsLikeDmondWhileNobodyReadsItsErrors) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    while (write(ends[1], "x", 1) == 1)
        ;
    const std::string full =
        " 2>/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(ends[1]);
    const UdpSocket holder;
    const std::string port = holder.url().substr(std::string("udp://").size());
    EXPECT_EQ(run({"/bin/sh", "-c", "DM_LOG_LEVEL=none " DMOND " --udp " + port + full}).status, 3);
    Child listener({"/bin/sh", "-c", "exec " DMCAT " --echo --listen udp://" + port + full});
    siginfo_t ended{};
    for (int i = 0; i < 100 && ended.si_pid == 0; ++i) {
        usleep(100'000); // nothing tells that it is held up by now
        listener.send_signal(SIGTERM);
        waitid(P_PID, static_cast<id_t>(listener.pid()), &ended, WEXITED | WNOHANG | WNOWAIT);
    }
    EXPECT_NE(ended.si_pid, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(Dmcat, SaysWhatItLacks) {
    const Outcome full = run({"/bin/sh", "-c", DMCAT " --version >/dev/full"});
    EXPECT_EQ(full.status, 3);
    EXPECT_EQ(full.err, "dmcat: cannot write: No space left on device\n");
    EXPECT_EQ(run({"/bin/sh", "-c", DMOND " --version >/dev/full"}).status, 3);
    EXPECT_EQ(dmcat({"smbus", "send"}).status, 2);
#ifndef __SANITIZE_THREAD__ // needs its addresses
    // A thread gets a stack as large as the limit.
    const Outcome threads =
        run({"/usr/bin/prlimit", "--stack=70368744177664", DMCAT, "hdc://0", "ping"});
    EXPECT_EQ(threads.status, 3);
    EXPECT_EQ(threads.err, "dmcat: cannot start a thread: Resource temporarily unavailable\n");
#endif
}

} // namespace
