/** The bounds-checked functions: codes, what a refused call leaves behind, and overlap. */
#include "platform_bounds.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace {

using namespace std::string_literals;

constexpr size_t too_big = (SIZE_MAX >> 1) + 1;

/** Eight bytes without a terminating zero. */
struct Buffer {
    char data[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};

    std::string text() const { return {data, sizeof(data)}; }
};

TEST(Bounds, ARefusedMemoryCallFillsTheWholeDestination) {
    Buffer buffer;
    EXPECT_EQ(memset_s(buffer.data, 8, 'x', 3), 0);
    EXPECT_EQ(buffer.text(), "xxxdefgh");
    EXPECT_EQ(memset_s(buffer.data, 7, 'y', 8), ERANGE);
    EXPECT_EQ(memset_s(buffer.data, too_big, 'q', 1), ERANGE);
    EXPECT_EQ(buffer.text(), "yyyyyyyh");
    for (const auto copy : {memcpy_s, memmove_s}) {
        EXPECT_EQ(copy(buffer.data, 8, "12345678", 8), 0);
        EXPECT_EQ(copy(buffer.data, too_big, "x", 1), ERANGE);
        EXPECT_EQ(buffer.text(), "12345678");
        EXPECT_EQ(copy(buffer.data, 6, "12345678", 7), ERANGE);
        EXPECT_EQ(buffer.text(), "\0\0\0\0\0\00078"s);
        EXPECT_EQ(copy(buffer.data, 7, nullptr, 0), EINVAL);
        EXPECT_EQ(buffer.text(), "\0\0\0\0\0\0\0008"s);
    }
}

TEST(Bounds, OnlyMemmoveTakesRegionsThatOverlap) {
    for (size_t to = 0; to <= 4; ++to) {
        for (size_t from = 0; from <= 4; ++from) {
            const bool apart = to == from + 4 || from == to + 4;
            const std::string moved = Buffer().text().substr(from, 4);
            Buffer buffer;
            EXPECT_EQ(memcpy_s(buffer.data + to, 4, buffer.data + from, 4), apart ? 0 : EINVAL);
            EXPECT_EQ(buffer.text().substr(to, 4), apart ? moved : "\0\0\0\0"s);
            buffer = Buffer();
            EXPECT_EQ(memmove_s(buffer.data + to, 4, buffer.data + from, 4), 0);
            EXPECT_EQ(buffer.text().substr(to, 4), moved);
        }
    }
}

TEST(Bounds, ARefusedStringCallLeavesTheEmptyString) {
    Buffer buffer;
    EXPECT_EQ(strcpy_s(buffer.data, 4, "123"), 0);
    EXPECT_EQ(strcpy_s(buffer.data, 4, "1234"), ERANGE);
    EXPECT_EQ(buffer.text(), "\00023\0efgh"s);
    EXPECT_EQ(strncpy_s(buffer.data, 4, "12", 99), 0);
    EXPECT_STREQ(buffer.data, "12");
    EXPECT_EQ(strncpy_s(buffer.data, 4, "12345", 3), 0);
    EXPECT_STREQ(buffer.data, "123");
    EXPECT_EQ(strncpy_s(buffer.data, 4, "12345", 4), ERANGE);
    EXPECT_EQ(sprintf_s(buffer.data, 4, "%d", 123), 3);
    EXPECT_STREQ(buffer.data, "123");
    EXPECT_EQ(sprintf_s(buffer.data, 4, "%d", 1234), -1);
    EXPECT_STREQ(buffer.data, "");
}

} // namespace
