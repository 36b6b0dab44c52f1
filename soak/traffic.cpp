#include "traffic.h"

#include "dm_hdc.h"
#include "dm_udp.h"
#include "dmond_protocol.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace soak {

namespace {

constexpr std::int32_t kRetries = 2;
constexpr std::uint32_t kTimeoutMs = 250;
constexpr std::uint32_t kHdcTimeoutMs = 5000;

// What is waited after a refusal.
constexpr std::chrono::milliseconds kMoment{10};

// A ping's body: the request's number, and bytes that follow from it.
struct Ping {
    dmond::Header header;
    std::uint64_t number;
    std::array<std::uint8_t, DM_MAX_DATA_LEN - sizeof(dmond::Header) - sizeof(number)> rest;
} __attribute__((packed));
static_assert(sizeof(Ping) == DM_MAX_DATA_LEN);

constexpr std::size_t kShortest = sizeof(dmond::Header) + sizeof(std::uint64_t);

std::size_t length_of(std::uint64_t number) {
    return kShortest + number * 2654435761U % 1000;
}

std::uint8_t byte_of(std::uint64_t number, std::size_t place) {
    return static_cast<std::uint8_t>(number * 31 + place);
}

void fill(Ping& ping, std::uint64_t number) {
    const std::size_t len = length_of(number);
    ping.header = {static_cast<std::uint32_t>(dmond::Command::ping),
                   static_cast<std::uint32_t>(number),
                   static_cast<std::uint32_t>(len - sizeof ping.header)};
    ping.number = number;
    for (std::size_t i = 0; i < len - kShortest; ++i)
        ping.rest[i] = byte_of(number, i);
}

// What a request's callback works with; the framework copies it byte by byte.
struct Sent {
    Ledger* ledger;
    std::uint64_t number;
};

bool is_of(const DM_MSG_ST& msg, std::uint64_t number) {
    if (msg.data.data_len != length_of(number))
        return false;
    const auto* bytes = static_cast<const std::uint8_t*>(msg.data.data);
    std::uint64_t told = 0;
    std::memcpy(&told, bytes + sizeof(dmond::Header), sizeof told);
    for (std::size_t i = 0; i < msg.data.data_len - kShortest; ++i)
        if (bytes[kShortest + i] != byte_of(number, i))
            return false;
    return told == number;
}

// A time-out brings the request's own data back, over the self-loop: its code is still the
// command's, and no answer's.
int on_response(DM_INTF_ST* intf, DM_MSG_ST* msg, void* user_data, int32_t /*user_data_len*/) {
    Sent sent{};
    std::memcpy(&sent, user_data, sizeof sent);
    if (!is_of(*msg, sent.number))
        sent.ledger->count_mixed();
    std::uint32_t code = 0;
    std::memcpy(&code, msg->data.data, sizeof code);
    const bool has_timed_out = code == static_cast<std::uint32_t>(dmond::Command::ping) &&
                               intf->addr.kind == DM_KIND_SELFLOOP;
    sent.ledger->close(sent.number, has_timed_out ? Outcome::timed_out : Outcome::answered);
    return 0;
}

// Gives the request's number, or Ledger::kNone when the books are full.
std::uint64_t ask(Ledger& ledger, DM_INTF_ST* intf, DM_ADDR_ST peer) {
    thread_local Ping ping;
    Sent sent{&ledger, ledger.open()};
    if (sent.number == Ledger::kNone) {
        pause_for(kMoment);
        return sent.number;
    }
    fill(ping, sent.number);
    DM_DATA_ST data{static_cast<std::uint16_t>(length_of(sent.number)), &ping};
    const std::uint32_t addr_len = peer.kind == DM_KIND_UDP ? DM_UDP_ADDR_LEN : DM_HDC_ADDR_LEN;
    if (dm_send_req(intf, &peer, addr_len, &data, on_response, &sent, sizeof sent) != 0)
        ledger.close(sent.number, Outcome::refused);
    return sent.number;
}

// On the self-loop: as dmond answers a ping.
int answer(DM_INTF_ST* intf, DM_MSG_ST* msg, void* /*user_data*/, int32_t /*user_data_len*/) {
    if (msg->data.data_len > DM_MAX_DATA_LEN || msg->data.data_len < sizeof(dmond::Header))
        return 0;
    std::memset(msg->data.data, 0, sizeof(std::uint32_t));
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

// None when the system refuses.
Context make_context() {
    DM_CB_ST* dm_cb = nullptr;
    if (dm_init(&dm_cb) != 0)
        return nullptr;
    return Context(dm_cb);
}

Context make_needed_context() {
    Context context = make_context();
    if (context == nullptr)
        throw std::runtime_error("cannot make a context");
    return context;
}

example::Endpoint endpoint_of(const std::string& url) {
    const auto endpoint = example::Endpoint::parse(url);
    if (!endpoint)
        throw std::runtime_error("no such URL: " + url);
    return *endpoint;
}

} // namespace

Line::Line(const std::string& url, std::chrono::milliseconds pause)
    : context_(make_needed_context()),
      intf_(&endpoint_of(url).open(*context_, example::Endpoint::Role::client, nullptr)),
      peer_(endpoint_of(url).address()), pause_(pause) {
    const bool is_udp = peer_.kind == DM_KIND_UDP;
    intf_->set_retry(intf_, is_udp ? kRetries : 0, is_udp ? kTimeoutMs : kHdcTimeoutMs);
}

void Line::begin(Round& round, int threads) {
    for (int i = 0; i < threads; ++i)
        round.add([this](Random& /*random*/) {
            ask(ledger_, intf_, peer_);
            pause_for(pause_);
        });
}

SelfLoop::SelfLoop() : context_(make_needed_context()) {
    if (dm_cmd_register(context_.get(), answer, nullptr, nullptr, 1) != 0)
        throw std::runtime_error("cannot register a command handler");
}

// A little more at a time than the pipe takes.
void SelfLoop::begin(Round& round, int threads) {
    for (int i = 0; i < threads; ++i)
        round.add([this](Random& random) {
            DM_INTF_ST* intf = dm_get_intf(context_.get(), "selfloop", DM_INTF_NAME_LEN);
            for (std::uint64_t left = any_of(random, 1, 200); left > 0; --left)
                ask(ledger_, intf, intf->addr);
            pause_for(std::chrono::milliseconds(20));
        });
}

Churn::Churn(const std::string& url) : peer_(endpoint_of(url)) {}

void Churn::begin(Round& round) {
    round.add([this](Random& random) { come_and_go(random); });
}

// The last interface goes with its context.
void Churn::come_and_go(Random& random) {
    Context context = make_context();
    if (context == nullptr) {
        ++refused_;
        return pause_for(kMoment);
    }
    ++contexts_;
    for (std::uint64_t left = any_of(random, 0, 8); left > 0; --left)
        use_interface(*context, random);
    std::vector<std::uint64_t> numbers;
    if (DM_INTF_ST* intf = open(*context); intf != nullptr)
        numbers = ask_some(*intf, random);
    context.reset();
    close_those_open(numbers);
}

void Churn::use_interface(DM_CB_ST& dm_cb, Random& random) {
    DM_INTF_ST* intf = open(dm_cb);
    if (intf == nullptr)
        return pause_for(kMoment);
    const std::vector<std::uint64_t> numbers = ask_some(*intf, random);
    dm_intf_deregister(intf);
    close_those_open(numbers);
}

std::vector<std::uint64_t> Churn::ask_some(DM_INTF_ST& intf, Random& random) {
    std::vector<std::uint64_t> numbers;
    for (std::uint64_t left = any_of(random, 1, 10); left > 0; --left)
        numbers.push_back(ask(ledger_, &intf, peer_.address()));
    pause_for(std::chrono::milliseconds(any_of(random, 0, 60)));
    return numbers;
}

void Churn::close_those_open(const std::vector<std::uint64_t>& numbers) {
    for (const std::uint64_t number : numbers)
        ledger_.close_if_open(number);
}

DM_INTF_ST* Churn::open(DM_CB_ST& dm_cb) {
    try {
        DM_INTF_ST& intf = peer_.open(dm_cb, example::Endpoint::Role::client, nullptr);
        ++interfaces_;
        return &intf;
    } catch (const std::runtime_error&) {
        ++refused_;
        return nullptr;
    }
}

Json Churn::report() const {
    return {{"contexts", contexts_.load()},
            {"interfaces", interfaces_.load()},
            {"refused", refused_.load()}};
}

} // namespace soak
