#include "series.h"

#include "client.h"
#include "message.h"
#include "output.h"
#include "report.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace dmcat {

namespace {

// Decides when the next request goes out. A request does not wait for the reply of the one before:
// a slow or lost reply must not hide what happens to those that follow. With an interval of 0 there
// is no other measure of time, and each waits.
class Schedule {
public:
    explicit Schedule(const Options& options)
        : count_(options.count), interval_(options.interval_ms), due_(Clock::now()) {}

    bool all_sent() const { return count_ != 0 && sent_ == count_; }
    bool is_over() const { return all_sent() && done_ == sent_; }

    bool may_send() const {
        if (all_sent())
            return false;
        return waits_for_replies() ? done_ == sent_ : Clock::now() >= due_;
    }

    // When may_send() changes though no reply came; none when it does not.
    std::optional<Clock::time_point> deadline() const {
        if (all_sent() || waits_for_replies())
            return std::nullopt;
        return due_;
    }

    // Takes the next sequence number. After a delay the requests that are late are not made up for.
    std::uint32_t take_next() {
        due_ = std::max(due_ + interval_, Clock::now());
        return ++sent_;
    }

    void add_reply() { ++done_; }

private:
    bool waits_for_replies() const { return interval_.count() == 0; }

    std::uint32_t count_; // 0 for no end
    std::chrono::milliseconds interval_;
    Clock::time_point due_;
    std::uint32_t sent_ = 0;
    std::uint32_t done_ = 0;
};

} // namespace

int run_series(const Options& options) {
    Client client(options);
    Report report(options);
    Schedule schedule(options);
    while (!schedule.is_over() && !client.interrupted()) {
        if (schedule.may_send()) {
            const std::uint32_t sequence = schedule.take_next();
            client.send(sequence, make_request(options.command, sequence, options.payload));
            report.add_sent();
        } else if (const auto reply = client.take_reply(schedule.deadline())) {
            schedule.add_reply();
            report.add(*reply);
        }
    }
    report.finish();
    if (!options.series && !schedule.is_over())
        print_error("interrupted before an answer came");
    return report.exit_status();
}

} // namespace dmcat
