#include "hash_table.h"

#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace {

using support::Call;
using support::kInjectedStatus;
using Values = std::vector<int>;

// Values are small integers, by pointer; the release functions note what they got.
int values[8] = {0, 1, 2, 3, 4, 5, 6, 7};
Values released;

void note(void* value) {
    released.push_back(*static_cast<int*>(value));
}
void note_negated(void* value) {
    released.push_back(-*static_cast<int*>(value));
}

class HashTable : public testing::Test {
protected:
    void SetUp() override { released.clear(); }
    void TearDown() override { hash_table_delete(table_); }

    int put(const std::string& tag, int value, HASH_FREE free_value = note) {
        return hash_table_put2(table_, tag.c_str(), &values[value], free_value);
    }
    void* get(const char* tag) { return hash_table_get(table_, tag); }
    Values list(int capacity = 8) {
        void* listed[8];
        Values result;
        for (int i = 0, count = get_hash_table_value(table_, listed, capacity); i < count; ++i)
            result.push_back(*static_cast<int*>(listed[i]));
        return result;
    }

    HASH_TABLE_ST* table_ = hash_table_new();
};

TEST_F(HashTable, HashesBytesAsSignedNumbers) {
    EXPECT_EQ(hash_33(""), 0U);
    EXPECT_EQ(hash_33("ab"), 3299U);
    EXPECT_EQ(hash_33("temperature"), 1807325390U) << "wraps at 2^32";
    EXPECT_EQ(hash_33("a\x80"), 97U * 33 - 128);
    put("\xff", 1);
    EXPECT_EQ(table_->buckets[1023]->value, &values[1]);
}

TEST_F(HashTable, ReplacingReleasesTheOldValueWithItsOwnFunction) {
    EXPECT_EQ(get("tag"), nullptr);
    EXPECT_EQ(put("tag", 1, note_negated), 0);
    EXPECT_EQ(put("tag", 2), 0);
    EXPECT_EQ(released, (Values{-1}));
    EXPECT_EQ(put("tag", 3, nullptr), 0);
    EXPECT_EQ(get("tag"), &values[3]);
    EXPECT_EQ(count_hash_table(table_), 1U);
    hash_table_rm(table_, "tag");
    EXPECT_EQ(released, (Values{-1, 2})) << "the last value has no release function";
}

// 33 * 'a' + 'b' is 33 * 'b' + 'A': all pairs of these share bucket 646.
const char* const shared[] = {"abab", "bAbA", "abbA", "bAab"};

TEST_F(HashTable, ChainsKeepTheOrderOfStoring) {
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(put(shared[i], i), 0);
    EXPECT_EQ(put("ab", 4), 0); // bucket 227
    EXPECT_EQ(put("a", 5), 0);  // bucket 97
    EXPECT_EQ(put(shared[1], 6), 0) << "replaced in its place";
    EXPECT_EQ(list(), (Values{5, 4, 0, 6, 2, 3}));
    EXPECT_EQ(list(2), (Values{5, 4}));
    EXPECT_EQ(list(65536), (Values{})) << "the capacity is taken in 16 bits";
    EXPECT_EQ(list(-1).size(), 6U);

    // Nobody can store a tag twice, but a removal takes all nodes that have it.
    std::memcpy(table_->buckets[646]->next->next->tag, shared[0], 5);
    released.clear();
    hash_table_rm(table_, "missing");
    hash_table_rm(table_, shared[0]);
    EXPECT_EQ(released, (Values{0, 2}));
    EXPECT_EQ(get(shared[1]), &values[6]);
    EXPECT_EQ(get(shared[3]), &values[3]);
    EXPECT_EQ(put(shared[0], 7), 0);
    display_hash_table(table_);
    hash_table_delete(std::exchange(table_, nullptr));
    EXPECT_EQ(released, (Values{0, 2, 5, 4, 6, 3, 7}));
}

TEST_F(HashTable, TagMayLieInTheReleasedValue) {
    char* tag = strdup(shared[0]);
    char* again = strdup(tag);
    EXPECT_EQ(hash_table_put2(table_, tag, tag, std::free), 0);
    EXPECT_EQ(put(shared[1], 1), 0);
    EXPECT_EQ(hash_table_put2(table_, tag, again, std::free), 0);
    hash_table_rm(table_, again);
    EXPECT_EQ(list(), (Values{1}));
}

TEST_F(HashTable, CountsIn16Bits) {
    for (int i = 0; i < 65536 + 300; ++i)
        ASSERT_EQ(put(std::to_string(i), 0, nullptr), 0);
    EXPECT_EQ(count_hash_table(table_), 300U);
}

// Runs a step whose n-th such call fails. An empty text means that nothing is logged.
template<class Step>
void with_fault(Call call, int nth, std::string_view text, Step step) {
    support::clear_log();
    const support::Fault fault(call, nth);
    step();
    EXPECT_EQ(support::logged('E', text), text.empty() ? 0 : 1) << text;
}

TEST_F(HashTable, FailuresLeaveNothingBehind) {
    const auto create = [] { EXPECT_EQ(hash_table_new(), nullptr); };
    with_fault(Call::malloc, 1, "", create);
    with_fault(Call::memset_s, 1, "memset_s fail!\n", create);
    with_fault(Call::malloc, 2, "", create);
    with_fault(Call::memset_s, 2, "memset_s error\n", create);

    put(shared[0], 0);
    const auto store = [&](int code) {
        return [&, code] {
            EXPECT_EQ(hash_table_put2(table_, shared[1], &values[1], note), code);
            EXPECT_EQ(list(), (Values{0}));
        };
    };
    with_fault(Call::malloc, 1, "malloc fail!\n", store(-1));
    with_fault(Call::memset_s, 1, "memset_s fail!\n", store(kInjectedStatus));
    with_fault(Call::malloc, 2, "malloc fail!\n", store(ENOMEM));
    with_fault(Call::memset_s, 2, "memset_s fail!\n", store(kInjectedStatus));
    with_fault(Call::strcpy_s, 1, "strcpy_s error\n", store(kInjectedStatus));
    EXPECT_EQ(released, (Values{})) << "the value stays the caller's";
}

} // namespace
