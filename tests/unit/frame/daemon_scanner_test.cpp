// The daemon's scanner section: made from the storage and bus interfaces,
// started at start-up, stopped and joined at shutdown.
#include <gtest/gtest.h>

#include <cstdio>

#include "frame/daemon.h"
#include "frame/daemon_state.h"
#include "tests/support/wait_for.h"
#include "tests/unit/scan/scan_fixture.h"

namespace zibd {
namespace {

class DaemonScannerTest : public test::ScanTest {
 protected:
  void SetUp() override {
    ScanTest::SetUp();
    g_daemon.running.store(1);
    sandbox_.write("daemon-types.ini", "mkv:STDVIDEO:true:\n");
    std::FILE* file = std::fopen((sandbox_ / "daemon-types.ini").c_str(), "re");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(daemon_.type_map.load(file), 0);
    std::fclose(file);
  }
  void TearDown() override { g_daemon.running.store(0); }

  Daemon daemon_;
};

TEST_F(DaemonScannerTest, WithoutStorageAndBusTheDaemonRunsWithoutAScanner) {
  daemon_.scan_storage = &storage_;  // the rules and the reports are missing
  daemon_.makeScanner();
  EXPECT_FALSE(daemon_.scan_queue);
  EXPECT_FALSE(daemon_.scanner);
  EXPECT_TRUE(daemon_.startScanner());
  g_daemon.running.store(0);
  daemon_.shutdown();
}

TEST_F(DaemonScannerTest, ScansWhatIsQueuedAndStopsAtShutdown) {
  daemon_.scan_storage = &storage_;
  daemon_.scan_rules = &rules_;
  daemon_.scan_reports = &reports_;
  daemon_.makeScanner();
  ASSERT_TRUE(daemon_.scan_queue && daemon_.scanner_state && daemon_.scanner);
  ASSERT_TRUE(daemon_.startScanner());

  const std::string film = media("p1/film.mkv");
  ScanRequests& requests = *daemon_.scan_queue;
  requests.enqueue(at("p1"), kScanRuleDirectory);
  ASSERT_TRUE(test::waitFor([&] { return !reports_.scanned().empty(); }));
  EXPECT_NE(getTag(film, kTagModified), "absent");

  // The storage model's stop returns at once while the scanner is idle.
  ScannerControl& control = *daemon_.scanner_state;
  control.stopAll();

  g_daemon.running.store(0);
  daemon_.shutdown();  // returns only with the scanner thread joined
  EXPECT_EQ(reports_.profiling().front(), 1);
}

}  // namespace
}  // namespace zibd
