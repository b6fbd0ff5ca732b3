// rillctl against a real rilld: output and exit statuses.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/system/rill/bus_fixture.h"

namespace zibd::test {
namespace {

using RillctlTest = BusTest;

size_t lineCount(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

TEST_F(RillctlTest, GetPrintsSortedLinesAtOrBelowAPath) {
  startBroker();
  Result r = ctl({"get", "Storage.Disk.2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "Storage.Disk.2.CapacityInMBytes=61057\n"
            "Storage.Disk.2.Partition.1.Manageddisk=0\n"
            "Storage.Disk.2.Partition.1.MountPoint=/var/uuidmount/77e0\n"
            "Storage.Disk.2.Partition.2.Manageddisk=0\n"
            "Storage.Disk.2.Partition.2.MountPoint=/var/uuidmount/c0de\n");
  EXPECT_EQ(ctl({"get", "Storage.Disk.1.Partition.1.MountPoint"}).out,
            "Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/4f2a\n");
  EXPECT_EQ(ctl({"get", "Storage.*.Partition.Manageddisk"}).out,
            "Storage.Disk.1.Partition.1.Manageddisk=1\n"
            "Storage.Disk.2.Partition.1.Manageddisk=0\n"
            "Storage.Disk.2.Partition.2.Manageddisk=0\n");
  EXPECT_EQ(lineCount(ctl({"get", "Storage"}).out), 9u);

  r = ctl({"get", "Storage.Disk.5"});
  EXPECT_EQ(r.status, 1) << "nothing matches";
  EXPECT_EQ(r.out, "");
  r = ctl({"get", "Storage..Disk"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(lineCount(r.err), 1u) << r.err;
}

TEST_F(RillctlTest, AddSetAndDelChangeTheModel) {
  startBroker();
  ASSERT_EQ(ctl({"add", "Storage.Disk.3", "CapacityInMBytes=100", "Label=a=b"}).status, 0);
  ASSERT_EQ(ctl({"set", "Storage.Disk.3.CapacityInMBytes", "200"}).status, 0);
  EXPECT_EQ(ctl({"get", "Storage.Disk.3"}).out, "Storage.Disk.3.CapacityInMBytes=200\nStorage.Disk.3.Label=a=b\n");
  EXPECT_EQ(ctl({"history", "Storage.Disk.3.CapacityInMBytes"}).out, "100\n200\n");
  EXPECT_EQ(ctl({"history", "Storage.Disk.1.CapacityInMBytes"}).out, "") << "seeding is not a write";
  ASSERT_EQ(ctl({"del", "Storage.Disk.3"}).status, 0);
  EXPECT_EQ(ctl({"get", "Storage.Disk.3"}).status, 1);

  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {"add", "Storage.Disk.1"},                // exists
           {"add", "Storage.Disk.4", "NoEquals"},    // not PARAM=VALUE
           {"set", "Storage.Disk.9.DoUnMount", "1"}, // unknown object
           {"set", "Storage.Disk.1", "1"},           // no parameter
           {"del", "Storage.Disk.9"},
           {"refcount", "Storage.Disk.9"},
           {"history", "Storage.Disk.9.DoUnMount"},
           {"stage", "high"},
           {"frobnicate"},
       }) {
    Result r = ctl(bad);
    EXPECT_EQ(r.status, 2) << bad[0] << " " << (bad.size() > 1 ? bad[1] : "");
    EXPECT_NE(r.err, "");
  }
}

TEST_F(RillctlTest, WaitEndsWhenTheValueIsThereOrAtTheTimeOut) {
  startBroker();
  EXPECT_EQ(ctl({"wait", "VFS.MetaDataService.ProfilingStatus", "Ready", "5"}).status, 0) << "already there";

  Process waiter({binary("rillctl"), "wait", "Storage.Disk.4.Partition.1.Status", "1", "20"}, env());
  ASSERT_EQ(ctl({"add", "Storage.Disk.4.Partition.1", "Status=0"}).status, 0);
  ASSERT_EQ(ctl({"set", "Storage.Disk.4.Partition.1.Status", "1"}).status, 0);
  auto status = waiter.wait();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(exitCode(*status), 0) << waiter.err();

  Result r = ctl({"wait", "VFS.MetaDataService.ProfilingStatus", "Profiling", "0.2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err, "");
}

TEST_F(RillctlTest, StageAndRefcountPrintNumbers) {
  startBroker();
  EXPECT_EQ(ctl({"stage"}).out, "100\n");
  EXPECT_EQ(ctl({"stage", "42"}).status, 0);
  EXPECT_EQ(ctl({"stage"}).out, "42\n");
  EXPECT_EQ(ctl({"refcount", "Storage.Disk.2"}).out, "0\n");
}

TEST_F(RillctlTest, WithoutABrokerEveryCommandFailsWithOneLine) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"get", "Storage"}, {"set", "A.B", "1"}, {"add", "A"}, {"del", "A"}, {"wait", "A.B", "1", "1"},
           {"history", "A.B"}, {"refcount", "A"}, {"stage"}}) {
    Result r = ctl(args);
    EXPECT_EQ(r.status, 2) << args[0];
    EXPECT_EQ(lineCount(r.err), 1u) << r.err;
    EXPECT_NE(r.err.find("cannot connect"), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace zibd::test
