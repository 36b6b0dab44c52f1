#include "hash_table.h"

#include "base/log.h"
#include "base/memory.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constinit dm::SubjectLog hash_log;

uint32_t __byte(char c) {
    return static_cast<uint32_t>(static_cast<signed char>(c));
}

// Two bytes a step, as each multiplication waits for the one before.
uint32_t __hash(const char* text) {
    uint32_t hash = 0;
    for (; text[0] != '\0' && text[1] != '\0'; text += 2)
        hash = hash * (33 * 33) + (__byte(text[0]) * 33 + __byte(text[1]));
    return text[0] != '\0' ? hash * 33 + __byte(text[0]) : hash;
}

// What the nodes of a table are. A walk over a chain compares hashes, so that it touches no tag but
// the wanted one: the tag would be another cache line at each step.
struct Node : HASH_NODE_ST {
    uint32_t hash;
};

// A tag that is looked for, hashed once an operation.
struct Key {
    const char* tag;
    uint32_t hash;

    explicit Key(const char* text) : tag(text), hash(__hash(text)) {}

    bool is_of(const HASH_NODE_ST* node) const {
        return static_cast<const Node*>(node)->hash == hash && std::strcmp(node->tag, tag) == 0;
    }
};

// From `link` on, the link that leads to a node of that key, or the one that ends the chain.
HASH_NODE_ST** __find_in_chain(HASH_NODE_ST** link, const Key& key) {
    while (*link != nullptr && !key.is_of(*link))
        link = &(*link)->next;
    return link;
}

HASH_NODE_ST** __find(const HASH_TABLE_ST* table, const Key& key) {
    return __find_in_chain(&table->buckets[key.hash % HASH_TABLE_BUCKETS], key);
}

template<class Visit>
void __for_each(const HASH_TABLE_ST* table, Visit visit) {
    for (int bucket = 0; bucket < HASH_TABLE_BUCKETS; ++bucket) {
        for (const HASH_NODE_ST* node = table->buckets[bucket]; node != nullptr; node = node->next)
            visit(*node);
    }
}

// Releases the nodes of a chain from its head. Each is unlinked first, so that a release function
// in which the thread is cancelled leaves a chain that can be released further.
void __release_chain(HASH_NODE_ST*& head) {
    while (head != nullptr) {
        const dm::Owned<HASH_NODE_ST> node(head);
        const dm::Owned<char> tag(node->tag);
        head = node->next;
        if (node->free_value != nullptr)
            node->free_value(node->value);
    }
}

// Appends a node for a key that its chain, which ends at `end`, does not hold.
int hash_table_put2_tag_not_stored(HASH_NODE_ST** end, const Key& key, void* value,
                                   HASH_FREE free_value) {
    const std::size_t tag_size = std::strlen(key.tag) + 1;
    auto tag_copy = dm::allocate<char>(tag_size);
    if (!tag_copy) {
        DM_LOG_ERROR(hash_log, "malloc fail!\n");
        return -1;
    }
    if (const int status = dm::zero(tag_copy.get(), tag_size); status != 0) {
        DM_LOG_ERROR(hash_log, "memset_s fail!\n");
        return status;
    }
    auto node = dm::allocate<Node>();
    if (!node) {
        const int error = dm::errno_or(ENOMEM);
        DM_LOG_ERROR(hash_log, "malloc fail!\n");
        return error;
    }
    if (const int status = dm::zero(node.get()); status != 0) {
        DM_LOG_ERROR(hash_log, "memset_s fail!\n");
        return status;
    }
    if (const int status = strcpy_s(tag_copy.get(), tag_size, key.tag); status != 0) {
        DM_LOG_ERROR(hash_log, "strcpy_s error\n");
        return status;
    }
    node->tag = tag_copy.release();
    node->value = value;
    node->free_value = free_value;
    node->hash = key.hash;
    *end = node.release();
    return 0;
}

} // namespace

uint32_t hash_33(const char* text) {
    return __hash(text);
}

HASH_TABLE_ST* hash_table_new() {
    auto table = dm::allocate<HASH_TABLE_ST>();
    if (!table)
        return nullptr;
    if (dm::zero(table.get()) != 0) {
        DM_LOG_ERROR(hash_log, "memset_s fail!\n");
        return nullptr;
    }
    constexpr std::size_t size = HASH_TABLE_BUCKETS * sizeof(HASH_NODE_ST*);
    auto buckets = dm::allocate<HASH_NODE_ST*>(size);
    if (!buckets)
        return nullptr;
    if (dm::zero(buckets.get(), size) != 0) {
        DM_LOG_ERROR(hash_log, "memset_s error\n");
        return nullptr;
    }
    table->buckets = buckets.release();
    return table.release();
}

void hash_table_delete(HASH_TABLE_ST* table) {
    if (table == nullptr)
        return;
    for (int bucket = 0; bucket < HASH_TABLE_BUCKETS; ++bucket)
        __release_chain(table->buckets[bucket]);
    std::free(table->buckets);
    std::free(table);
}

int hash_table_put2(HASH_TABLE_ST* table, const char* tag, void* value, HASH_FREE free_value) {
    const Key key(tag);
    HASH_NODE_ST** link = __find(table, key);
    HASH_NODE_ST* node = *link;
    if (node == nullptr) {
        const int status = hash_table_put2_tag_not_stored(link, key, value, free_value);
        if (status != 0)
            DM_LOG_ERROR(hash_log, "put tag fail %d\n", status);
        return status;
    }
    // Taken out before it runs, so that it never runs twice, though the thread be cancelled in it.
    if (const HASH_FREE release = std::exchange(node->free_value, nullptr); release != nullptr)
        release(node->value);
    node->value = value;
    node->free_value = free_value;
    return 0;
}

void* hash_table_get(const HASH_TABLE_ST* table, const char* tag) {
    const HASH_NODE_ST* node = *__find(table, Key(tag));
    return node != nullptr ? node->value : nullptr;
}

// The nodes are released after the walk: the tag may lie in the value of one of them.
void hash_table_rm(HASH_TABLE_ST* table, const char* tag) {
    HASH_NODE_ST* removed = nullptr;
    HASH_NODE_ST** removed_end = &removed;
    const Key key(tag);
    HASH_NODE_ST** link = __find(table, key);
    while (HASH_NODE_ST* node = *link) {
        *link = std::exchange(node->next, nullptr);
        *removed_end = node;
        removed_end = &node->next;
        link = __find_in_chain(link, key);
    }
    __release_chain(removed);
}

uint16_t count_hash_table(const HASH_TABLE_ST* table) {
    uint16_t count = 0;
    __for_each(table, [&](const HASH_NODE_ST& /*node*/) { ++count; });
    return count;
}

uint16_t get_hash_table_value(const HASH_TABLE_ST* table, void** values, int32_t capacity) {
    const auto limit = static_cast<uint16_t>(capacity);
    uint16_t count = 0;
    __for_each(table, [&](const HASH_NODE_ST& node) {
        if (count < limit)
            values[count++] = node.value;
    });
    return count;
}

void display_hash_table(const HASH_TABLE_ST* table) {
    __for_each(table, [](const HASH_NODE_ST& /*node*/) {});
}
