#include "dm_list.h"

#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

// Lists of small integers, by pointer; the free callback notes what it got.
std::vector<int> freed;
int values[8] = {0, 1, 2, 3, 4, 5, 6, 7};

void note_freed(void* item) {
    freed.push_back(*static_cast<int*>(item));
}

// By tens, so that 30 and 31 are equal.
int by_tens(const void* item, const void* key) {
    return *static_cast<const int*>(item) / 10 - *static_cast<const int*>(key) / 10;
}

class List : public testing::Test {
protected:
    void SetUp() override {
        freed.clear();
        ASSERT_EQ(list_create(&list_, nullptr, note_freed), 0);
    }
    void TearDown() override { list_destroy(list_); }

    void fill(int count) {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(list_append(list_, &values[i]), 0);
    }

    static std::vector<int> items(LIST_ST* list) {
        std::vector<int> seen;
        list_iterate(
            list,
            [](void* item, void* arg, uint32_t) {
                static_cast<std::vector<int>*>(arg)->push_back(*static_cast<int*>(item));
            },
            &seen, 0);
        return seen;
    }

    LIST_ST* list_ = nullptr;
};

using Ints = std::vector<int>;

TEST_F(List, VisitorThatEndsItsThreadLeavesTheNode) {
    fill(2);
    std::thread([&] {
        list_iterate(
            list_, [](void*, void*, uint32_t) { pthread_exit(nullptr); }, nullptr, 0);
    }).join();
    EXPECT_EQ(list_remove_by_tag(list_, &values[0], nullptr), 0);
    EXPECT_EQ(freed, Ints{0});
}

TEST_F(List, IsUsableWhileItIsDestroyed) {
    static LIST_ST* list;
    static std::vector<Ints> left;
    ASSERT_EQ(list_create(&list, nullptr, [](void*) { left.push_back(items(list)); }), 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(list_append(list, &values[i]), 0);
    list_destroy(list);
    EXPECT_EQ(left, (std::vector<Ints>{{1, 2}, {2}, {}}));
}

TEST_F(List, KeepsPositions) {
    EXPECT_EQ(list_insert_pos(list_, &values[1], 0), 0);
    EXPECT_EQ(list_insert_pos(list_, &values[0], -1), 0);
    EXPECT_EQ(list_insert_pos(list_, &values[5], 2), 0);
    EXPECT_EQ(list_insert_pos(list_, &values[2], 2), 0);
    EXPECT_EQ(list_insert_pos(list_, &values[6], 99), 0);
    EXPECT_EQ(list_prepend(list_, &values[7]), 0);
    EXPECT_EQ(items(list_), (Ints{7, 0, 1, 2, 5, 6}));
    EXPECT_EQ(list_first_item(list_), &values[7]);
    EXPECT_EQ(list_last_item(list_), &values[6]);
    EXPECT_EQ(list_to_item(list_search(list_, &values[5], nullptr)), &values[5]);
}

TEST_F(List, OrdersEqualItemsAsTheyCame) {
    int keys[] = {50, 30, 51, 10};
    for (int& key : keys)
        EXPECT_EQ(list_insert_ascend(list_, &key, by_tens), 0);
    EXPECT_EQ(items(list_), (Ints{10, 30, 50, 51}));

    LIST_ST* descending = nullptr;
    ASSERT_EQ(list_create(&descending, by_tens, nullptr), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(list_insert_descend(descending, &keys[i], nullptr), 0);
    EXPECT_EQ(items(descending), (Ints{50, 51, 30}));
    list_destroy(descending);
    freed.clear();
}

TEST_F(List, RemovedNodeStaysUntilTheIteratorLeaves) {
    fill(3);
    LIST_ITER_ST iter;
    list_iter_init(list_, &iter);
    list_iter_next(&iter);
    LIST_NODE_ST* node = list_iter_next(&iter);
    LIST_ITER_ST second;
    list_iter_init_node(list_, &second, node);

    EXPECT_EQ(list_remove(list_, node), 0);
    EXPECT_EQ(list_remove(list_, node), 0) << "a second removal takes nothing more";
    EXPECT_EQ(list_size(list_), 3U);
    EXPECT_EQ(list_search(list_, &values[1], nullptr), nullptr);
    list_iter_destroy(&second);
    EXPECT_TRUE(freed.empty());
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), &values[2]);
    EXPECT_EQ(freed, (Ints{1}));
    EXPECT_EQ(list_size(list_), 2U);
    EXPECT_EQ(list_iter_next(&iter), nullptr);
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), &values[0]) << "behind the end comes the head";
    list_iter_destroy(&iter);
    EXPECT_EQ(list_remove_by_tag(list_, &values[7], nullptr), 0);
    EXPECT_EQ(list_remove_by_tag(list_, &values[0], nullptr), 0);
    EXPECT_EQ(items(list_), (Ints{2}));
}

// A free callback that removes the neighbour which the iterator is about to step onto.
TEST_F(List, FreeCallbackMayRemoveTheNextNode) {
    static LIST_ST* list;
    ASSERT_EQ(list_create(&list, nullptr,
                          [](void* item) {
                              if (item == &values[0])
                                  list_remove_by_tag(list, &values[1], nullptr);
                          }),
              0);
    for (int i = 0; i < 3; ++i)
        list_append(list, &values[i]);
    LIST_ITER_ST iter;
    list_iter_init(list, &iter);
    list_remove(list, list_iter_next(&iter));
    EXPECT_EQ(list_to_item(list_iter_next(&iter)), &values[2]);
    list_iter_destroy(&iter);
    EXPECT_EQ(list_size(list), 1U);
    list_destroy(list);
}

TEST_F(List, ConcatenatesWithoutCounting) {
    fill(2);
    for (auto* concat : {list_concat_after, list_concat_before}) {
        LIST_ST* source = nullptr;
        ASSERT_EQ(list_create(&source, nullptr, nullptr), 0);
        for (int i = 4; i < 6; ++i)
            list_append(source, &values[i]);
        EXPECT_EQ(concat(list_, source), 0);
        EXPECT_EQ(list_size(list_), 2U);
    }
    EXPECT_EQ(items(list_), (Ints{4, 5, 0, 1, 4, 5}));
    EXPECT_EQ(list_concat_after(list_, list_), EINVAL);
    EXPECT_TRUE(freed.empty());
}

TEST_F(List, FailedInsertLeavesTheList) {
    fill(1);
    {
        support::Fault fault(support::Call::malloc, 1);
        EXPECT_EQ(list_append(list_, &values[1]), ENOMEM);
    }
    {
        support::Fault fault(support::Call::memset_s, 1);
        EXPECT_EQ(list_prepend(list_, &values[1]), support::kInjectedStatus);
    }
    EXPECT_EQ(items(list_), (Ints{0}));
}

// Two threads remove and add while a third walks: under the sanitizers no access may race.
TEST_F(List, SurvivesConcurrentUse) {
    LIST_ST* list = nullptr;
    ASSERT_EQ(list_create(&list, nullptr, std::free), 0);
    const auto churn = [list] {
        for (int i = 0; i < 3000; ++i) {
            list_append(list, std::malloc(1));
            LIST_ITER_ST iter;
            list_iter_init(list, &iter);
            list_remove(list, list_iter_next(&iter));
            list_iter_destroy(&iter);
        }
    };
    std::thread first(churn);
    std::thread second(churn);
    uint64_t seen = 0;
    for (int i = 0; i < 1000; ++i) {
        seen += list_size(list) + static_cast<uint64_t>(list_is_empty(list));
        list_iterate(
            list, [](void*, void* sum, uint32_t) { ++*static_cast<uint64_t*>(sum); }, &seen, 0);
    }
    first.join();
    second.join();
    EXPECT_GT(seen, 0U);
    uint64_t left = 0;
    list_iterate(
        list, [](void*, void* sum, uint32_t) { ++*static_cast<uint64_t*>(sum); }, &left, 0);
    EXPECT_EQ(left, list_size(list));
    list_destroy(list);
}

} // namespace
