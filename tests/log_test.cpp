// The logging convention, seen through calls of the library that log.
#include "dm_msg_intf.h"

#include "support/platform_hooks.h"

#include <gtest/gtest.h>

namespace {

TEST(Log, OneErrorLineOfASubjectInThreeSeconds) {
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(dm_init(nullptr), -22);
    dm_intf_deregister(nullptr);
    EXPECT_EQ(support::lines_of('E'),
              std::vector<std::string>{"[lib/msg/dm_msg_intf.cpp:#][device monitor] [dm_init #] "
                                       "dm_init input dm_cb null."})
        << "its sites share a limiter";
    support::clock_offset_ms += 3500;
    dm_intf_deregister(nullptr);
    EXPECT_EQ(support::log_lines().size(), 2U);
    support::clock_offset_ms -= 3600000;
    dm_init(nullptr);
    EXPECT_EQ(support::log_lines().size(), 3U) << "a clock set back does not silence it";
}

} // namespace
