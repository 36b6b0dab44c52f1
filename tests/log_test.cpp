// The logging convention, seen through calls of the library that log.
#include "dm_loop.h"
#include "dm_msg_intf.h"

#include "support/framework.h"
#include "support/platform_hooks.h"

#include <gtest/gtest.h>

namespace {

TEST(Log, LinesNameTheirPlaceRelativeToTheRepository) {
    EXPECT_EQ(dm_init(nullptr), -22);
    const support::Context context;
    EXPECT_EQ(selfloop_init(nullptr, context.get(), nullptr, nullptr, 0), 16);
    using Lines = std::vector<std::string>;
    EXPECT_EQ(support::lines_of('E'),
              (Lines{"[lib/msg/dm_msg_intf.cpp:#][device monitor] [dm_init #] dm_init input dm_cb "
                     "null.",
                     "[lib/msg/dm_loop.cpp:#][device monitor] [selfloop_init #] duplicate "
                     "interface [selfloop]\r\n"}));
    EXPECT_EQ(support::lines_of('W'),
              (Lines{"[lib/msg/dm_loop.cpp:#][device monitor] [selfloop_init #] "
                     "[selfloop_init #] Drv_check:intf == ((void *)0)\n"}));
}

TEST(Log, OneErrorLineOfASubjectInThreeSeconds) {
    dm_init(nullptr);
    dm_init(nullptr);
    dm_intf_deregister(nullptr);
    EXPECT_EQ(support::log_lines().size(), 1U) << "its sites share a limiter";
    support::clock_offset_ms += 3500;
    dm_intf_deregister(nullptr);
    EXPECT_EQ(support::log_lines().size(), 2U);
    support::clock_offset_ms -= 3600000;
    dm_init(nullptr);
    EXPECT_EQ(support::log_lines().size(), 3U) << "a clock set back does not silence it";
}

} // namespace
