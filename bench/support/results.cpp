#include "support/results.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

namespace bench {

namespace {

using nlohmann::ordered_json;

ordered_json json_of(const Spread& spread) {
    return {{"median", spread.median}, {"lower", spread.lower}, {"upper", spread.upper}};
}

ordered_json json_of(const Row& row) {
    return {{"work", row.work},
            {"system", row.system},
            {"processor_ns", json_of(row.processor)},
            {"wall_ns", json_of(row.wall)},
            {"repetitions", row.repetitions}};
}

ordered_json json_of(const LeftOut& left_out) {
    return {{"work", left_out.work}, {"system", left_out.system}, {"why", left_out.why}};
}

ordered_json json_of(const Verdict& verdict) {
    ordered_json json = {{"what", verdict.target.what},
                         {"measured", verdict.target.measured},
                         {"against", verdict.target.against},
                         {"value", verdict.value},
                         {"unit", verdict.target.against.empty() ? "ns" : "ratio"}};
    if (verdict.target.at_most) {
        json["at_most"] = *verdict.target.at_most;
        json["kept"] = verdict.kept;
    }
    return json;
}

template<class Items>
ordered_json list_of(const Items& items) {
    ordered_json list = ordered_json::array();
    for (const auto& item : items)
        list.push_back(json_of(item));
    return list;
}

void print_row(const Row& row, const Row& first) {
    std::printf("  %-46s %10.1f  %9.1f to %-10.1f %10.1f %9.3f\n", row.system.c_str(),
                row.processor.median, row.processor.lower, row.processor.upper, row.wall.median,
                row.processor.median / first.processor.median);
}

void print_verdict(const Verdict& verdict) {
    const Target& target = verdict.target;
    const bool is_ratio = !target.against.empty();
    std::printf("%s: %.*f%s", target.what.c_str(), is_ratio ? 3 : 0, verdict.value,
                is_ratio ? " times" : " ns");
    if (target.at_most)
        std::printf(" (at most %.*f)", is_ratio ? 2 : 0, *target.at_most);
    std::puts(verdict.kept ? "" : "  TOO MUCH");
}

} // namespace

Spread spread_of(std::vector<double> values) {
    if (values.empty())
        return {};
    std::ranges::sort(values);
    const auto at = [&](double part) {
        return values[static_cast<size_t>(
            std::lround(part * static_cast<double>(values.size() - 1)))];
    };
    return {at(0.5), at(0.25), at(0.75)};
}

const Row* Results::find(const std::string& name) const {
    const auto found = std::ranges::find_if(
        rows, [&](const Row& row) { return row.work + "/" + row.system == name; });
    return found != rows.end() ? &*found : nullptr;
}

void Results::group() {
    std::vector<Row> grouped;
    for (const Row& first : rows) {
        if (std::ranges::find(grouped, first.work, &Row::work) == grouped.end())
            std::ranges::copy_if(rows, std::back_inserter(grouped),
                                 [&](const Row& row) { return row.work == first.work; });
    }
    rows = std::move(grouped);
}

void Results::judge(const std::vector<Target>& targets) {
    for (const Target& target : targets) {
        const Row* measured = find(target.measured);
        const Row* against = find(target.against);
        if (measured == nullptr || (against == nullptr && !target.against.empty()))
            continue;
        const double unit = against != nullptr ? against->processor.median : 1;
        const double value = measured->processor.median / unit;
        verdicts.push_back({target, value, !target.at_most || value <= *target.at_most});
    }
}

bool Results::all_kept() const {
    return std::ranges::all_of(verdicts, &Verdict::kept);
}

void Results::print() const {
    std::printf("%-48s %10s  %23s %10s %9s\n", "one operation, in ns", "processor", "middle half",
                "wall", "x first");
    const Row* first = nullptr;
    for (const Row& row : rows) {
        if (first == nullptr || first->work != row.work) {
            first = &row;
            std::printf("%s\n", row.work.c_str());
        }
        print_row(row, *first);
    }
    for (const LeftOut& row : left_out)
        std::printf("left out: %s with %s: %s\n", row.work.c_str(), row.system.c_str(),
                    row.why.c_str());
    for (const Verdict& verdict : verdicts)
        print_verdict(verdict);
}

bool Results::write_json(const std::string& path) const {
    const ordered_json json = {{"program", program},
                               {"rows", list_of(rows)},
                               {"left_out", list_of(left_out)},
                               {"targets", list_of(verdicts)}};
    std::ofstream file(path);
    file << json.dump(2) << '\n';
    file.close();
    return !file.fail();
}

} // namespace bench
