// The logging convention, seen through calls of the library that log.
#include "dm_loop.h"
#include "dm_msg_intf.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

namespace {

class Log : public testing::Test {
protected:
    void SetUp() override {
        support::skip_log_interval();
        support::clear_log();
    }
};

std::string line_number(const std::string& line) {
    const size_t colon = line.find(':');
    return line.substr(colon + 1, line.find(']') - colon - 1);
}

TEST_F(Log, LineNamesItsPlaceRelativeToTheRepository) {
    EXPECT_EQ(dm_init(nullptr), -22);
    ASSERT_EQ(support::log_lines().size(), 1U);
    EXPECT_EQ(support::log_lines()[0].level, 'E');
    const std::string line = support::log_lines()[0].text;
    const std::string number = line_number(line);
    EXPECT_EQ(line, "[lib/msg/dm_msg_intf.cpp:" + number + "][device monitor] [dm_init " + number +
                        "] dm_init input dm_cb null.");
}

TEST_F(Log, FailedCheckIsAWarning) {
    const support::Context context;
    EXPECT_EQ(selfloop_init(nullptr, context.get(), nullptr, nullptr, 0), 16);
    const auto lines = support::log_lines();
    const auto warning = std::ranges::find(lines, 'W', &support::LogLine::level);
    ASSERT_NE(warning, lines.end());
    const std::string number = line_number(warning->text);
    const std::string place = "[selfloop_init " + number + "] ";
    EXPECT_EQ(warning->text, "[lib/msg/dm_loop.cpp:" + number + "][device monitor] " + place +
                                 place + "Drv_check:intf == ((void *)0)\n");
    EXPECT_EQ(support::logged('E', "duplicate interface [selfloop]\r\n"), 1);
}

TEST_F(Log, OneErrorLineOfAFileInThreeSeconds) {
    dm_init(nullptr);
    dm_init(nullptr);
    dm_intf_deregister(nullptr);
    EXPECT_EQ(support::log_lines().size(), 1U) << "sites of one file share its limiter";
    support::move_wall_clock(3500);
    dm_intf_deregister(nullptr);
    EXPECT_EQ(support::log_lines().size(), 2U);
    support::move_wall_clock(-3600000);
    dm_init(nullptr);
    EXPECT_EQ(support::log_lines().size(), 3U) << "a clock set back does not silence the file";
    support::move_wall_clock(3600000);
}

} // namespace
