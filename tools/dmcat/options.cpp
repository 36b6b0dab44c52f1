#include "options.h"

#include "dm_ipc.h"
#include "dm_smbus.h"
#include "exit_status.h"
#include "output.h"
#include "payload.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

namespace dmcat {

namespace {

constexpr std::uint32_t kMaxCount = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kMaxMs = 3'600'000;
constexpr int kMaxRetry = 1000;

constexpr auto kCommands = std::to_array<std::pair<std::string_view, dmond::Command>>({
    {"ping", dmond::Command::ping},
    {"info", dmond::Command::info},
    {"health", dmond::Command::health},
    {"stats", dmond::Command::stats},
    {"tasks", dmond::Command::tasks},
});

constexpr const char* kFooter =
    R"(With a command the payload is the body of the request. Without one it is the whole message,
and the reply is printed as it came. --listen --echo answers such messages; what it gives
back to a command is no answer of a dmond.

A request that is not answered is sent RETRY more times, TIMEOUT ms apart. A series does not
wait for a reply before it sends the next request, unless the interval is 0, and goes on when
one cannot be sent. SIGINT ends it, and requests under way are not counted then. Round trips
are measured from the first sending; their percentiles are right to 1 %.

On HDC a request that finds no server keeps trying until it times out; by default it is sent
once and waits 20 s. At most 32 are under way at a time, and others wait for their turn. On
IPC a message has at most 32 bytes, so a body has 20, and only commands can be sent.
"dmcat smbus send HEX" writes a block of at most 32 bytes to the device on the SMBus, and
"dmcat smbus recv" reads one.

Examples:
  dmcat udp://127.0.0.1:7400 health
  dmcat udp://127.0.0.1:7400 ping --count 10 --interval 200
  dmcat hdc://0 info
  dmcat ipc://1 health
  dmcat --listen udp://127.0.0.1:7401 --echo

Exit status:
  0  answered, each request of a series
  1  timed out, at least one request, or interrupted before any answer
  2  wrong usage
  3  cannot open, read or write, or cannot send a request
  4  answered, but at least once with an error status, with no message of a dmond, or with
     a body that is not the JSON that the command asks for)";

using example::Endpoint;
using Transport = Endpoint::Transport;

// The values as they stand on the command line.
struct Line {
    std::string url;
    std::string command;
    std::optional<std::string> block;
    std::string listen;
    bool echo = false;
    std::optional<std::string> data;
    std::optional<std::string> hex;
    std::optional<std::string> file;
};

std::optional<dmond::Command> to_command(const std::string& text) {
    if (text.empty())
        return std::nullopt;
    for (const auto& [name, command] : kCommands)
        if (name == text)
            return command;
    throw UsageError("unknown command '" + text +
                     "': ping, info, health, stats and tasks are known");
}

Endpoint to_endpoint(const std::string& url, bool any_port) {
    const auto endpoint = Endpoint::parse(url);
    if (endpoint && (any_port || endpoint->can_be_peer()))
        return *endpoint;
    throw UsageError("'" + url + "' is not udp://ADDR:PORT with an IPv4 address or localhost and " +
                     "a port from " + (any_port ? "0" : "1") + " to 65535, nor hdc://N or ipc://N");
}

std::string to_payload(const Line& line, std::size_t max_len) {
    std::string payload;
    if (line.data)
        payload = *line.data;
    if (line.hex)
        payload = parse_hex(*line.hex, "--hex");
    if (line.file)
        payload = read_payload(*line.file, max_len);
    if (payload.size() > max_len)
        throw UsageError("the payload has more than " + std::to_string(max_len) + " bytes");
    return payload;
}

// The parser and what it fills.
struct Parser {
    Parser();
    void add_modes();
    void add_payload();
    void add_series();
    void check_combination() const;
    void check_smbus() const;
    CLI::Option* add_number(const char* name, auto& value, auto min, auto max, const char* type,
                            const char* text);

    CLI::App app{"Sends requests to a service and prints the responses, or answers requests."};
    Line line;
    Options options;
    CLI::Option* count = nullptr;
    CLI::Option* interval = nullptr;
    CLI::Option* timeout = nullptr;
    CLI::Option* retry = nullptr;
    std::vector<CLI::Option*> payloads;
    std::vector<CLI::Option*> for_requests; // have no meaning with --listen
};

Parser::Parser() {
    app.set_version_flag("--version", "dmcat " DMCAT_VERSION, "Print the version and exit");
    app.footer(kFooter);
    add_modes();
    add_payload();
    add_series();
}

CLI::Option* Parser::add_number(const char* name, auto& value, auto min, auto max, const char* type,
                                const char* text) {
    return app.add_option(name, value, text)
        ->type_name(type)
        ->check(CLI::Range(min, max).description(""));
}

void Parser::add_modes() {
    for_requests = {
        app.add_option("URL", line.url, "The peer: udp://ADDR:PORT, hdc://N or ipc://N")
            ->type_name(""),
        app.add_option("COMMAND", line.command,
                       "ping (answered with its own body), info, health, stats or tasks")
            ->type_name(""),
        app.add_option("BLOCK", line.block, "With smbus send: the bytes, two digits each")
            ->type_name(""),
    };
    app.add_option("--listen", line.listen,
                   "Answer requests that arrive at URL; port 0 lets\nthe system choose one")
        ->type_name("URL");
    app.add_flag("--echo", line.echo, "Answer each request with its own data");
    count = add_number("--count", options.count, 0U, kMaxCount, "N",
                       "Send a series of N requests, a line each and a\nsummary; with --listen end "
                       "after N requests; 0 for\nno end before a signal");
}

void Parser::add_payload() {
    payloads = {
        app.add_option("--data", line.data, "Payload")->type_name("TEXT"),
        app.add_option("--hex", line.hex, "Payload, two digits a byte")->type_name("DIGITS"),
        app.add_option("--file", line.file, "Payload from a file, - for standard input")
            ->type_name("F"),
    };
    for_requests.insert(for_requests.end(), payloads.begin(), payloads.end());
}

void Parser::add_series() {
    interval = add_number("--interval", options.interval_ms, 0U, kMaxMs, "MS",
                          "Time from one request of a series to the next");
    timeout = add_number("--timeout", options.timeout_ms, 1U, kMaxMs, "MS",
                         "Time until a request is sent again");
    retry = add_number("--retry", options.retry, 0, kMaxRetry, "N",
                       "How often it is sent again; it times out with its\nlast "
                       "sending, or with 0 after one TIMEOUT");
    for (CLI::Option* option : {interval, timeout, retry})
        for_requests.push_back(option->capture_default_str());
    for_requests.push_back(app.add_flag("--json", options.json, "Print one JSON object a reply"));
}

void Parser::check_combination() const {
    if (line.listen.empty() == line.echo)
        throw UsageError("--listen and --echo go together");
    const auto given = [](const CLI::Option* option) { return option->count() != 0; };
    const auto stray = std::find_if(for_requests.begin(), for_requests.end(), given);
    if (line.echo && stray != for_requests.end())
        throw UsageError((*stray)->get_name() + " does not go with --listen");
    if (std::count_if(payloads.begin(), payloads.end(), given) > 1)
        throw UsageError("--data, --hex and --file exclude each other");
    if (given(interval) && !given(count))
        throw UsageError("--interval needs --count");
}

// The block is all that the bus takes.
void Parser::check_smbus() const {
    for (const CLI::Option* option : app.get_options())
        if (option->count() != 0 && !option->get_positional())
            throw UsageError(option->get_name() + " does not go with smbus");
}

void complete_smbus(Options& options, const Line& line) {
    if (line.command == "recv" && !line.block) {
        options.smbus = Options::Smbus::receive;
        return;
    }
    if (line.command != "send" || !line.block)
        throw UsageError("smbus takes: send HEX, or recv");
    options.smbus = Options::Smbus::send;
    options.payload = parse_hex(*line.block, "a block");
    if (options.payload.size() > DM_SMBUS_BLOCK_MAX)
        throw UsageError("a block has at most " + std::to_string(DM_SMBUS_BLOCK_MAX) + " bytes");
}

void complete_client(Options& options, const Line& line) {
    if (line.url.empty())
        throw UsageError("no destination: give udp://ADDR:PORT, hdc://N or ipc://N");
    options.endpoint = to_endpoint(line.url, false);
    options.command = to_command(line.command);
    if (line.block)
        throw UsageError("unexpected '" + *line.block + "'");
    if (!options.command && !line.data && !line.hex && !line.file)
        throw UsageError("nothing to send: give a command or a payload");
    const bool ipc = options.endpoint.transport() == Transport::ipc;
    if (ipc && !options.command)
        throw UsageError("only commands can be sent on ipc://");
    const std::size_t max_len = ipc ? DM_IPC_MAX_LEN : DM_MAX_DATA_LEN;
    options.payload = to_payload(line, options.command ? max_len - sizeof(dmond::Header) : max_len);
}

void complete_listener(Options& options, const Line& line) {
    options.endpoint = to_endpoint(line.listen, true);
    // What is echoed on a channel without types would be echoed for ever.
    if (options.endpoint.transport() == Transport::ipc)
        throw UsageError("ipc:// cannot be listened on");
}

// A sending over HDC keeps trying by itself, as long as it is given time.
void complete_times(Options& options, const Parser& parser) {
    if (options.listen || options.endpoint.transport() != Transport::hdc)
        return;
    if (parser.timeout->count() == 0)
        options.timeout_ms = 20000;
    if (parser.retry->count() == 0)
        options.retry = 0;
}

} // namespace

std::optional<Options> parse_options(int argc, char** argv) {
    Parser parser;
    try {
        parser.app.parse(argc, argv);
    } catch (const CLI::Success& help_or_version) {
        std::ostringstream text;
        parser.app.exit(help_or_version, text, text);
        print(text.str());
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }
    parser.check_combination();
    Options options = parser.options;
    options.listen = parser.line.echo;
    options.series = parser.count->count() != 0;
    if (parser.line.url == "smbus") {
        parser.check_smbus();
        complete_smbus(options, parser.line);
        return options;
    }
    if (options.listen)
        complete_listener(options, parser.line);
    else
        complete_client(options, parser.line);
    complete_times(options, parser);
    options.url = options.endpoint.url();
    return options;
}

} // namespace dmcat
