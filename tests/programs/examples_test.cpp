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
    const std::string lines =
        "printf 'period 5\\nunit kelvin\\nperiod \\t 10\\r\\nunit\\nname fan 1\\n'; "
        "seq -f 's%g x' 67; printf 'long %0999d\\n' 1";
    const std::string shown = "^(70 settings|name=fan 1|period=10|s[0-9]+=x|long=0{998}1)$";
    const Outcome outcome =
        run({"/bin/sh", "-c",
             "(" + lines + ") | " + kExamples + "settings | grep -cE '" + shown + "'"});
    EXPECT_EQ(outcome.out, "71\n");
}

} // namespace
