#include "hash_table.h"

#include "hash_table/works.h"
#include "support/system.h"

#include <unordered_map>

namespace {

int value;

class StandardTable {
public:
    void put(const char* tag) { table_[tag] = &value; }
    void* get(const char* tag) {
        const auto found = table_.find(tag);
        return found != table_.end() ? found->second : nullptr;
    }
    void remove(const char* tag) { table_.erase(tag); }

private:
    std::unordered_map<std::string, void*> table_;
};

class LibraryTable {
public:
    LibraryTable() = default;
    LibraryTable(const LibraryTable&) = delete;
    LibraryTable& operator=(const LibraryTable&) = delete;
    ~LibraryTable() { hash_table_delete(table_); }

    void put(const char* tag) { hash_table_put2(table_, tag, &value, nullptr); }
    void* get(const char* tag) { return hash_table_get(table_, tag); }
    void remove(const char* tag) { hash_table_rm(table_, tag); }

private:
    HASH_TABLE_ST* table_ = hash_table_new();
};

// GLib's table grows with the tags, the library's does not: a look-up that finds nothing walks the
// whole chain. At a hundred tags a put is two allocations on both sides, and little else.
std::optional<double> at_most(tables::Operation operation, size_t size) {
    using tables::Operation;
    if (size <= 1000)
        return operation == Operation::put ? 1.05 : 1;
    return size <= 10000 && operation != Operation::miss ? std::optional(1.8) : std::nullopt;
}

} // namespace

int main(int argc, char** argv) {
    tables::add<StandardTable>("std::unordered_map");
    tables::add<LibraryTable>("library");
    bench::add_peers();
    std::vector<bench::Target> targets;
    for (const tables::Operation operation : tables::kOperations)
        for (const size_t size : tables::kSizes) {
            const std::string work = tables::work(operation, size);
            targets.push_back({work + ": library against GLib", work + "/library", work + "/GLib",
                               at_most(operation, size)});
        }
    return bench::run(argc, argv, targets);
}
