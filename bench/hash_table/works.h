// The question: what does a table of values by string cost?
#pragma once

#include "support/measure.h"
#include "support/runner.h"

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace tables {

enum class Operation {
    get,       // of a tag that is stored
    miss,      // a get of one that is not
    put,       // into a table that grows from nothing
    put_again, // of a tag that is stored
    remove     // from a full table, until it is empty
};

inline constexpr Operation kOperations[] = {Operation::get, Operation::miss, Operation::put,
                                            Operation::put_again, Operation::remove};
inline constexpr size_t kSizes[] = {100, 1000, 10000, 100000};

inline std::string work(Operation operation, size_t size) {
    static constexpr const char* names[] = {"get", "get of what is not stored", "put", "put again",
                                            "remove"};
    return std::string(names[static_cast<size_t>(operation)]) + ", " + std::to_string(size) +
           " tags";
}

inline std::vector<std::string> make_tags(size_t count, const std::string& prefix) {
    std::vector<std::string> tags;
    for (size_t i = 0; i < count; ++i)
        tags.push_back(prefix + std::to_string(i % 16) + "/reading" + std::to_string(i));
    return tags;
}

// Times one operation with each of the tags, in another order than that of storing. The table has
// put(), which copies the tag, get() and remove().
template<class Table>
void run(benchmark::State& state, Operation operation, size_t size) {
    const std::vector<std::string> stored = make_tags(size, "sensor/");
    auto tags = make_tags(size, operation == Operation::miss ? "Sensor/" : "sensor/");
    std::ranges::shuffle(tags, std::mt19937(1));
    const auto time = [&](auto step) {
        bench::time_iteration(state, static_cast<int64_t>(size), [&] {
            for (const std::string& tag : tags)
                step(tag.c_str());
        });
    };
    std::optional<Table> table(std::in_place);
    const auto fill = [&] {
        for (const std::string& tag : stored)
            table->put(tag.c_str());
    };
    fill();
    for ([[maybe_unused]] auto iteration : state) {
        switch (operation) {
        case Operation::get:
        case Operation::miss:
            time([&](const char* tag) { benchmark::DoNotOptimize(table->get(tag)); });
            break;
        case Operation::put:
            table.emplace();
            [[fallthrough]];
        case Operation::put_again:
            time([&](const char* tag) { table->put(tag); });
            break;
        case Operation::remove:
            time([&](const char* tag) { table->remove(tag); });
            fill();
            break;
        }
    }
}

// Registers a system for all works.
template<class Table>
void add(const std::string& name) {
    for (const Operation operation : kOperations)
        for (const size_t size : kSizes)
            bench::add(work(operation, size), name,
                       [=](benchmark::State& state) { run<Table>(state, operation, size); });
}

} // namespace tables
