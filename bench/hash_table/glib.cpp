#include "hash_table/works.h"

#include "support/system.h"

#include <glib.h>

namespace {

int value;

class GlibTable {
public:
    GlibTable() = default;
    GlibTable(const GlibTable&) = delete;
    GlibTable& operator=(const GlibTable&) = delete;
    ~GlibTable() { g_hash_table_destroy(table_); }

    void put(const char* tag) { g_hash_table_insert(table_, g_strdup(tag), &value); }
    void* get(const char* tag) { return g_hash_table_lookup(table_, tag); }
    void remove(const char* tag) { g_hash_table_remove(table_, tag); }

private:
    GHashTable* table_ = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
};

const bench::Peer peer("GLib", [] { tables::add<GlibTable>("GLib"); });

} // namespace
