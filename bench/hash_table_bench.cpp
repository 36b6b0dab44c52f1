// The hash table beside GLib's with owned string keys: all tags of a table are looked up, put into
// a new table, put again and removed. Tags are not looked up and removed in the order of storing.
#include "hash_table.h"

#include "support/measure.h"
#include "support/runner.h"

#include <glib.h>

#include <algorithm>
#include <optional>
#include <random>

namespace {

int value;

class Library {
public:
    Library() = default;
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() { hash_table_delete(table_); }

    void put(const char* tag) { hash_table_put2(table_, tag, &value, nullptr); }
    void* get(const char* tag) { return hash_table_get(table_, tag); }
    void remove(const char* tag) { hash_table_rm(table_, tag); }

private:
    HASH_TABLE_ST* table_ = hash_table_new();
};

class Peer {
public:
    Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { g_hash_table_destroy(table_); }

    void put(const char* tag) { g_hash_table_insert(table_, g_strdup(tag), &value); }
    void* get(const char* tag) { return g_hash_table_lookup(table_, tag); }
    void remove(const char* tag) { g_hash_table_remove(table_, tag); }

private:
    GHashTable* table_ = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
};

std::vector<std::string> make_tags(int64_t count) {
    std::vector<std::string> tags(static_cast<size_t>(count));
    for (size_t i = 0; i < tags.size(); ++i)
        tags[i] = "sensor/" + std::to_string(i % 16) + "/reading" + std::to_string(i);
    return tags;
}

// Times one step with each tag. `prepare` readies the full table before, untimed.
template<class Table, class Prepare, class Step>
void run(benchmark::State& state, Prepare prepare, Step step) {
    const std::vector<std::string> tags = make_tags(state.range(0));
    std::vector<std::string> shuffled = make_tags(state.range(0));
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));
    std::optional<Table> table(std::in_place);
    const auto fill = [&] {
        for (const std::string& tag : tags)
            table->put(tag.c_str());
    };
    fill();
    for ([[maybe_unused]] auto iteration : state) {
        prepare(table, fill);
        bench::time_iteration(state, state.range(0), [&] {
            for (const std::string& tag : shuffled)
                step(*table, tag.c_str());
        });
    }
}

constexpr auto keep = [](auto&, auto&) {};
constexpr auto make_new = [](auto& table, auto&) { table.emplace(); };
constexpr auto refill = [](auto&, auto& fill) { fill(); };

template<class Table>
void get(benchmark::State& state) {
    run<Table>(state, keep,
               [](Table& table, const char* tag) { benchmark::DoNotOptimize(table.get(tag)); });
}

template<class Table>
void put(benchmark::State& state) {
    run<Table>(state, make_new, [](Table& table, const char* tag) { table.put(tag); });
}

template<class Table>
void put_again(benchmark::State& state) {
    run<Table>(state, keep, [](Table& table, const char* tag) { table.put(tag); });
}

template<class Table>
void remove(benchmark::State& state) {
    run<Table>(state, refill, [](Table& table, const char* tag) { table.remove(tag); });
}

#define SIDE(side, operation, name, count) \
    BENCHMARK_TEMPLATE(operation, side)->Name(name)->Arg(count)->UseManualTime()
#define PAIR(operation, count)                                      \
    SIDE(Peer, operation, #operation " of " #count "/GLib", count); \
    SIDE(Library, operation, #operation " of " #count "/library", count)
#define PAIRS(operation)   \
    PAIR(operation, 100);  \
    PAIR(operation, 1000); \
    PAIR(operation, 10000)

PAIRS(get);
PAIRS(put);
PAIRS(put_again);
PAIRS(remove);

} // namespace

int main(int argc, char** argv) {
    std::vector<bench::Target> targets;
    for (const std::string operation : {"get", "put", "put_again", "remove"}) {
        for (int tag_count : {100, 1000, 10000}) {
            const std::string work = operation + " of " + std::to_string(tag_count);
            // Past some thousand tags the chains are long, while the peer's table grows.
            const auto at_most = tag_count <= 1000 ? std::optional<double>(1) : std::nullopt;
            targets.push_back(
                {work + ", against GLib", work + "/library", work + "/GLib", at_most});
        }
    }
    return bench::run(argc, argv, targets);
}
