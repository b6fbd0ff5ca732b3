// rillctl against a real rilld, as a user sees it: output and exit statuses
// (0 done, 1 nothing matches or timed out, 2 an error, told on stderr).
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/system/rill/bus_fixture.h"

namespace zibd::test {
namespace {

using RillctlTest = BusTest;

size_t lines(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

// Run in order against one broker: each case sees what the ones before changed.
TEST_F(RillctlTest, CommandsPrintTheirOutcomeAndExitWithItsStatus) {
  startBroker();
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
  };
  for (const Case& c : std::vector<Case>{
           {{"get", "Storage.Disk.2.Partition.1"}, 0,
            "Storage.Disk.2.Partition.1.Manageddisk=0\nStorage.Disk.2.Partition.1.MountPoint=/var/uuidmount/77e0\n"},
           {{"get", "Storage.Disk.1.Partition.1.MountPoint"}, 0,
            "Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/4f2a\n"},
           {{"get", "Storage.*.Partition.Manageddisk"}, 0,
            "Storage.Disk.1.Partition.1.Manageddisk=1\nStorage.Disk.2.Partition.1.Manageddisk=0\n"
            "Storage.Disk.2.Partition.2.Manageddisk=0\n"},
           {{"get", "Storage.Disk.5"}, 1, ""},
           {{"add", "Storage.Disk.3", "CapacityInMBytes=100", "Label=a=b"}, 0, ""},
           {{"set", "Storage.Disk.3.CapacityInMBytes", "200"}, 0, ""},
           {{"set", "Storage.Disk.3.CapacityInMBytes", "200"}, 0, ""},  // unchanged, yet a write
           {{"set", "Storage.Disk.3.Status", "1"}, 0, ""},              // a new parameter
           {{"history", "Storage.Disk.3.CapacityInMBytes"}, 0, "100\n200\n200\n"},
           {{"history", "Storage.Disk.1.CapacityInMBytes"}, 0, ""},  // seeding is not a write
           {{"get", "Storage.Disk.3"}, 0,
            "Storage.Disk.3.CapacityInMBytes=200\nStorage.Disk.3.Label=a=b\nStorage.Disk.3.Status=1\n"},
           {{"del", "Storage.Disk.3"}, 0, ""},
           {{"get", "Storage.Disk.3"}, 1, ""},
           {{"stage"}, 0, "100\n"},
           {{"stage", "42"}, 0, ""},
           {{"stage"}, 0, "42\n"},
           {{"refcount", "Storage.Disk.2"}, 0, "0\n"},
           {{"wait", "VFS.MetaDataService.ProfilingStatus", "Ready", "5"}, 0, ""},
           {{"get", "Storage..Disk"}, 2, ""},
           {{"add", "Storage.Disk.1"}, 2, ""},  // exists
           {{"add", "Storage.Disk.4", "NoEquals"}, 2, ""},
           {{"set", "Storage.Disk.9.DoUnMount", "1"}, 2, ""},
           {{"set", "Storage.Disk.1", "1"}, 2, ""},  // no parameter
           {{"del", "Storage.Disk.9"}, 2, ""},
           {{"refcount", "Storage.Disk.9"}, 2, ""},
           {{"history", "Storage.Disk.9.DoUnMount"}, 2, ""},
           {{"stage", "high"}, 2, ""},
           {{"frobnicate"}, 2, ""},
       }) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    Result r = ctl(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err.empty(), c.status != 2) << r.err;
  }
  EXPECT_EQ(lines(ctl({"get", "Storage"}).out), 9u);
  Result timed_out = ctl({"wait", "VFS.MetaDataService.ProfilingStatus", "Profiling", "0.2"});
  EXPECT_EQ(timed_out.status, 1);
  EXPECT_NE(timed_out.err, "");
}

TEST_F(RillctlTest, WaitEndsWhenTheValueArrives) {
  startBroker();
  Process waiter({binary("rillctl"), "wait", "Storage.Disk.4.Partition.1.Status", "1", "20"}, env());
  ASSERT_EQ(ctl({"add", "Storage.Disk.4.Partition.1", "Status=0"}).status, 0);
  ASSERT_EQ(ctl({"set", "Storage.Disk.4.Partition.1.Status", "1"}).status, 0);
  auto status = waiter.wait();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(exitCode(*status), 0) << waiter.err();
}

TEST_F(RillctlTest, WithoutABrokerEveryCommandFailsWithOneLine) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"get", "Storage"}, {"set", "A.B", "1"}, {"add", "A"}, {"del", "A"}, {"wait", "A.B", "1", "1"},
           {"history", "A.B"}, {"refcount", "A"}, {"stage"}}) {
    Result r = ctl(args);
    EXPECT_EQ(r.status, 2) << args[0];
    EXPECT_EQ(lines(r.err), 1u) << r.err;
    EXPECT_NE(r.err.find("cannot connect"), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace zibd::test
