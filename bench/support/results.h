// What a program of bench/ has measured, as a table and as JSON.
#pragma once

#include "support/runner.h"

#include <string>
#include <vector>

namespace bench {

// The middle half of what the repetitions gave.
struct Spread {
    double median = 0;
    double lower = 0;
    double upper = 0;
};

Spread spread_of(std::vector<double> values);

// What one operation costs a system, in nanoseconds.
struct Row {
    std::string work;
    std::string system;
    Spread processor; // of all threads of the process
    Spread wall;
    size_t repetitions = 0;
};

struct LeftOut {
    std::string work;
    std::string system;
    std::string why;
};

struct Verdict {
    Target target;
    double value; // a ratio of processor times, or one in nanoseconds
    bool kept;
};

struct Results {
    std::string program;
    std::vector<Row> rows;
    std::vector<LeftOut> left_out;
    std::vector<Verdict> verdicts;

    // @return the row of a benchmark by its name; null when a filter left it out.
    const Row* find(const std::string& name) const;

    // Puts the rows of a work behind one another, in their order.
    void group();

    // Judges the targets whose rows are there.
    void judge(const std::vector<Target>& targets);

    bool all_kept() const;
    void print() const;
    bool write_json(const std::string& path) const;
};

} // namespace bench
