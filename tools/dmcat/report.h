// Prints what becomes of the requests, and decides on the exit status.
#ifndef DMCAT_REPORT_H
#define DMCAT_REPORT_H

#include "link.h"
#include "message.h"
#include "options.h"
#include "progress.h"
#include "statistics.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace dmcat {

using Json = nlohmann::ordered_json; // keys in the order in which they came

class Report {
public:
    explicit Report(const Options& options) : options_(options) {}

    // Each line goes out at once.
    void add_sent();
    void add(const Reply& reply);

    // Prints a series' summary.
    void finish();

    int exit_status() const;

private:
    void add_timeout(const Reply& reply);
    void add_unsent(const Reply& reply);
    void add_answer(const Reply& reply);
    void print_body(const Answer& answer);
    void print_line(const Reply& reply, const Answer& answer);
    void print_json(const Json& object);
    void print_summary();
    void show_progress();
    std::string sendings() const;
    std::uint64_t done() const { return answered_ + timed_out_ + unsent_; }

    const Options& options_;
    std::uint64_t sent_ = 0;
    std::uint64_t answered_ = 0; // of them wrong_ with an error
    std::uint64_t wrong_ = 0;
    std::uint64_t timed_out_ = 0;
    std::uint64_t unsent_ = 0;
    Statistics round_trips_;
    Progress progress_;
};

} // namespace dmcat

#endif
