#include "child.h"

namespace {

const std::string kExamples = EXAMPLES;

TEST(Examples, WorkersDoAllJobs) {
    const Outcome outcome = run({kExamples + "worker_pool"});
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_NE(outcome.out.find("12! = 479001600 (task "), std::string::npos) << outcome.out;
}

TEST(Examples, ADeadLockIsReported) {
    const Outcome outcome = run({kExamples + "dead_lock"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find("0x20000204"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.err.find(" DEAD LOCK by conf."), std::string::npos) << outcome.err;
}

TEST(Examples, SettingsAreReplacedAndRemoved) {
    const std::string lines = "printf 'period 5\\nunit kelvin\\nperiod 10\\nunit\\nname fan 1\\n'";
    const Outcome outcome = run({"/bin/sh", "-c", lines + " | " + kExamples + "settings"});
    EXPECT_EQ(outcome.out, "2 settings\nname=fan 1\nperiod=10\n");
}

} // namespace
