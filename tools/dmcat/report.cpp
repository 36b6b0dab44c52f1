#include "report.h"

#include "exit_status.h"
#include "output.h"
#include "payload.h"
#include "printable.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace dmcat {

namespace {

std::string to_ms(std::chrono::microseconds time) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", static_cast<double>(time.count()) / 1000);
    return text;
}

std::string json_text(const Json& value, int indent) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

// Indented, text that is nested deep grows with the square of its length: a body of 4 KiB to
// megabytes.
constexpr int kMaxIndentedDepth = 32;

bool is_deep(const Json& value, int depth = 0) {
    if (!value.is_structured())
        return false;
    return depth == kMaxIndentedDepth ||
           std::any_of(value.begin(), value.end(),
                       [=](const Json& part) { return is_deep(part, depth + 1); });
}

std::string readable_text(const Json& value) {
    constexpr int kIndent = 2;
    constexpr int kCompact = -1;
    return json_text(value, is_deep(value) ? kCompact : kIndent);
}

bool is_ascii_text(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char c) {
        return (c >= ' ' && c < 127) || c == '\n' || c == '\r' || c == '\t';
    });
}

// A body is JSON when the command says so; discarded if it is not.
Json parse_body(std::string_view body, std::optional<dmond::Command> command) {
    return is_json(command) ? Json::parse(body, nullptr, false) : Json(Json::value_t::discarded);
}

// JSON becomes a part of the object as it is.
void put_body(Json& object, std::string_view body, std::optional<dmond::Command> command) {
    Json json = parse_body(body, command);
    if (!json.is_discarded())
        object["body"] = std::move(json);
    else if (is_ascii_text(body))
        object["data"] = body;
    else
        object["data_hex"] = to_hex(body);
}

} // namespace

void Report::add_sent() {
    ++sent_;
    show_progress();
}

void Report::add(const Reply& reply) {
    progress_.clear();
    if (reply.kind == Reply::Kind::timed_out)
        add_timeout(reply);
    else if (reply.kind == Reply::Kind::not_sent)
        add_unsent(reply);
    else
        add_answer(reply);
    show_progress();
}

void Report::add_timeout(const Reply& reply) {
    ++timed_out_;
    if (options_.json)
        print_json({{"seq", reply.sequence},
                    {"timeout", true},
                    {"sent", options_.retry + 1},
                    {"timeout_ms", options_.timeout_ms}});
    else if (options_.series)
        print("no answer: seq=" + std::to_string(reply.sequence) + " " + sendings() + "\n");
    if (!options_.series)
        print_error("no answer from " + options_.url + ": " + sendings());
}

void Report::add_unsent(const Reply& reply) {
    ++unsent_;
    const std::string reason = options_.endpoint.why_not_sent(reply.status);
    if (options_.json)
        print_json({{"seq", reply.sequence}, {"not_sent", true}, {"error", reason}});
    else if (options_.series)
        print("not sent: seq=" + std::to_string(reply.sequence) + " (" + reason + ")\n");
    if (!options_.series)
        print_error("cannot send to " + options_.url + ": " + reason);
}

void Report::add_answer(const Reply& reply) {
    ++answered_;
    round_trips_.add(reply.round_trip);
    const Answer answer = read_answer(reply, options_.command);
    if (!answer.error.empty())
        ++wrong_;

    if (options_.json) {
        Json object{
            {"seq", reply.sequence}, {"from", reply.from}, {"rtt_us", reply.round_trip.count()}};
        if (answer.status)
            object["status"] = *answer.status;
        if (!answer.error.empty())
            object["error"] = answer.error;
        put_body(object, answer.body, options_.command);
        print_json(object);
    } else if (options_.series) {
        print_line(reply, answer);
    } else if (answer.has_body) {
        print_body(answer);
    }
    if (!options_.series && !answer.error.empty())
        print_error(reply.from + " answered with " + answer.error);
}

// As it came; on a terminal so that it can be read.
void Report::print_body(const Answer& answer) {
    if (!prints_to_terminal())
        return print(answer.body);
    const Json json = parse_body(answer.body, options_.command);
    const std::string text = json.is_discarded() ? std::string(answer.body) : readable_text(json);
    print(printable(text, Lines::kept) + "\n");
}

void Report::print_line(const Reply& reply, const Answer& answer) {
    print(std::to_string(reply.data.size()) + " bytes from " + reply.from +
          ": seq=" + std::to_string(reply.sequence) + " time=" + to_ms(reply.round_trip) + " ms" +
          (answer.error.empty() ? "" : " (" + answer.error + ")") + "\n");
}

void Report::print_json(const Json& object) {
    const std::string text = json_text(object, -1);
    print((prints_to_terminal() ? printable(text, Lines::kept) : text) + "\n");
}

void Report::finish() {
    progress_.clear();
    if (options_.series)
        print_summary();
}

int Report::exit_status() const {
    if (unsent_ != 0)
        return kCannotWork;
    if (timed_out_ != 0 || answered_ == 0)
        return kTimedOut;
    return wrong_ != 0 ? kRefused : kAnswered;
}

void Report::print_summary() {
    const double loss =
        done() == 0 ? 0 : static_cast<double>(done() - answered_) / static_cast<double>(done());
    Json summary{{"requests", done()},
                 {"answers", answered_},
                 {"errors", wrong_},
                 {"not_sent", unsent_},
                 {"loss", loss}};
    char text[128];
    std::snprintf(text, sizeof text, "%.1f%% loss\n", loss * 100);
    std::string lines = "--- " + options_.url + " ---\n" + std::to_string(done()) + " requests, " +
                        std::to_string(answered_) + " answers, " +
                        (wrong_ == 0 ? "" : std::to_string(wrong_) + " of them errors, ") +
                        (unsent_ == 0 ? "" : std::to_string(unsent_) + " not sent, ") + text;
    if (!round_trips_.empty()) {
        const auto [min, median, p99, max] = round_trips_.summary();
        summary["rtt_us"] = {{"min", min.count()},
                             {"median", median.count()},
                             {"p99", p99.count()},
                             {"max", max.count()}};
        lines += "round trip min/median/p99/max " + to_ms(min) + "/" + to_ms(median) + "/" +
                 to_ms(p99) + "/" + to_ms(max) + " ms\n";
    }
    if (options_.json)
        print_json({{"summary", summary}});
    else
        print(lines);
}

void Report::show_progress() {
    if (!options_.series)
        return;
    std::string text = std::to_string(sent_);
    if (options_.count != 0)
        text += " of " + std::to_string(options_.count);
    progress_.show(text + " sent, " + std::to_string(answered_) + " answered, " +
                   std::to_string(timed_out_ + unsent_) + " lost");
}

std::string Report::sendings() const {
    const std::string apart = std::to_string(options_.timeout_ms) + " ms";
    if (options_.retry == 0)
        return "sent once, waited " + apart;
    return "sent " + std::to_string(options_.retry + 1) + " times, " + apart + " apart";
}

} // namespace dmcat
