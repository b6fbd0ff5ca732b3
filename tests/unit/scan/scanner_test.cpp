// The scan queue, and the scanner end to end: real tag store, real trees, real profiler scripts.
#include "scan/scanner_thread.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <future>
#include <thread>

#include "tests/support/fault_injection.h"
#include "tests/support/wait_for.h"
#include "tests/unit/scan/scan_fixture.h"

namespace zibd {
namespace {

using ::testing::ElementsAre;

// A profiler that appends "ARG1|ARG2|VIEW NAME|LINKS" to <its path>.log for each run.
constexpr char kLoggingProfiler[] =
    "for a; do last=$a; done\n"
    "n=$(find \"$last\" -mindepth 1 -maxdepth 1 -type l -printf x | wc -c)\n"
    "echo \"$1|$2|${last##*/}|$n\" >> \"$0.log\"\n";

class ScannerTest : public test::ScanTest {
 protected:
  void SetUp() override { ScanTest::SetUp(); ASSERT_TRUE(scanner_.open().ok()); }
  void TearDown() override {
    running_ = 0;
    if (started_) { state_.stopScanner(); scanner_.join(); }
  }
  void enqueue(std::initializer_list<std::pair<const char*, uint32_t>> requests) {
    for (const auto& [path, kind] : requests) queue_.enqueue(at(path), kind);
  }
  // Takes everything that waits, as "kind:path below the root".
  std::vector<std::string> drain() {
    std::vector<std::string> taken;
    for (std::optional<ScanRequest> r; queue_.size() > 0 && (r = queue_.take());)
      taken.push_back(std::to_string(r->kind) + ":" + r->path.substr(root().size() + 1));
    return taken;
  }
  // A take on another thread, once it has reported the queue idle.
  std::future<std::optional<ScanRequest>> blockedTake() {
    const std::size_t reports = reports_.reports().size();
    auto take = std::async(std::launch::async, [this] { return queue_.take(); });
    EXPECT_TRUE(test::waitFor([&] { return reports_.reports().size() == reports + 1; }));
    return take;
  }
  // Its result; a take that does not return fails and is woken.
  std::optional<ScanRequest> result(std::future<std::optional<ScanRequest>>& take) {
    if (take.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "the take did not return";
      running_ = 0;
      queue_.wake();
    }
    return take.get();
  }
  // Maps mkv files to a profiler script of the given body.
  void videoProfiler(const std::string& body) { loadMap("mkv:STDVIDEO:" + script("prof", body) + ":\n"); }
  std::string logOf(const std::string& name) { return test::readFile(sandbox_ / (name + ".log")); }
  // The name of the view of a video batch in a run.
  std::string view(int batch, int run) const {
    return "zibprof." + std::to_string(::getpid()) + ".STDVIDEO." + std::to_string(batch) + "." + std::to_string(run);
  }
  // Runs one request through step() on another thread; a step that hangs fails and is stopped.
  void scan(const std::string& path, uint32_t kind) {
    queue_.enqueue(path, kind);
    ASSERT_EQ(queue_.size(), 1U);
    auto done = std::async(std::launch::async, [this] { scanner_.step(); });
    if (done.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
      ADD_FAILURE() << "the scanner did not finish " << path;
      running_ = 0;
      state_.stopScanner();
    }
    done.get();
  }
  bool pending(const std::string& path) { return getTag(path, kTagToProfile) == "1"; }
  // A scanner of its own, with another profiler time limit and rescan delay.
  std::unique_ptr<ScannerThread> scanner(std::chrono::milliseconds limit, std::chrono::milliseconds delay) {
    auto s = std::make_unique<ScannerThread>(queue_, state_, types_, rules_, storage_, reports_, running_, sandbox_ / "update", limit, delay);
    return s->open().ok() ? std::move(s) : nullptr;
  }

  bool started_ = false;
  std::atomic<int> running_{1};
  ScanQueue queue_{storage_, reports_, running_};
  ScannerState state_{queue_};
  ScannerThread scanner_{queue_, state_, types_, rules_, storage_, reports_, running_, sandbox_ / "update"};
};

TEST_F(ScannerTest, QueueTakesChangedDirectoriesFirstAndAForcedRescanReplacesTheFirstOrdinaryScanOfItsPath) {
  for (const char* dir : {"b/c", "bc"}) sandbox_.mkdirs("uuidmount/" + std::string(dir));
  // Ordinary requests are not merged.
  enqueue({{"p1", kScanRuleDirectory}, {"p2", kScanStorageRoot}, {"b", kScanChangedDirectory}, {"p1", kScanRuleDirectory}});
  EXPECT_THAT(drain(), ElementsAre("0:b", "1:p1", "3:p2", "1:p1"));
  // An ordinary request after a forced one is queued beside it.
  enqueue({{"p1", kScanRuleDirectory}, {"p1", kScanRuleDirectory}, {"b", kScanRuleDirectory}, {"p1/", kScanForcedRescan},
           {"b", kScanForcedRescan}, {"b", kScanRuleDirectory}});
  EXPECT_THAT(drain(), ElementsAre("2:p1", "2:b", "1:p1", "1:b"));
  // Removal below b keeps bc.
  enqueue({{"b", kScanRuleDirectory}, {"b/c", kScanChangedDirectory}, {"bc", kScanForcedRescan}, {"p1", kScanRuleDirectory}});
  queue_.removeUnder(at("b"));
  EXPECT_THAT(drain(), ElementsAre("2:bc", "1:p1"));
  enqueue({{"p1", kScanRuleDirectory}});
  queue_.removeUnder("");
  EXPECT_EQ(queue_.size(), 0U);
}

TEST_F(ScannerTest, QueueResolvesPathsDropsTheRestAndReportsBusyAndIdle) {
  storage_.ready = false;  // no storage chosen: nothing queued
  enqueue({{"p1", kScanChangedDirectory}, {"p2", kScanRuleDirectory}});
  EXPECT_EQ(queue_.size(), 0U);
  EXPECT_TRUE(reports_.reports().empty());
  storage_.ready = true;
  ASSERT_EQ(::symlink(at("p2").c_str(), at("link").c_str()), 0);
  enqueue({{"link/", kScanRuleDirectory}, {"p2/../p1//", kScanRuleDirectory}, {"missing", kScanRuleDirectory},
           {"p1", kScanNewTree}, {"p2", 5}});
  queue_.enqueue(std::string(5000, 'x'), kScanRuleDirectory);
  EXPECT_THAT(drain(), ElementsAre("4:p1", "1:p2", "1:p1"));
  queue_.enqueue("/", kScanStorageRoot);
  std::optional<ScanRequest> top = queue_.take();
  ASSERT_TRUE(top);
  EXPECT_EQ(top->path, "");  // the root loses its '/' like every other path
  // Busy once, idle when a take finds it empty; a waiting take ends on a wake.
  enqueue({{"p1", kScanRuleDirectory}, {"p2", kScanChangedDirectory}});
  ASSERT_TRUE(queue_.take());
  ASSERT_TRUE(queue_.take());
  EXPECT_THAT(reports_.reports(), ElementsAre("busy"));
  auto waiting = blockedTake();
  enqueue({{"p2", kScanRuleDirectory}});
  std::optional<ScanRequest> got = result(waiting);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->path, at("p2"));
  queue_.clear();
  waiting = blockedTake();
  queue_.wake();
  EXPECT_FALSE(result(waiting));
  EXPECT_THAT(reports_.reports(), ElementsAre("busy", "idle", "busy", "idle"));
}

TEST_F(ScannerTest, PendingFilesAreProfiledInBatchesOfOneHundredAndMarked) {
  const std::string video = script("vprof", kLoggingProfiler);
  loadMap("mp3:STDAUDIO:" + script("aprof", kLoggingProfiler) + ":\nmkv:STDVIDEO:" + video + ":-a:b c\n");
  std::vector<std::string> films;
  for (int i = 0; i < 250; ++i)
    films.push_back(media("p1/d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".mkv", 1700000000 + i));
  scan(at("p1"), kScanRuleDirectory);
  const std::string first_runs =
      "-a|b c|" + view(0, 1) + "|99\n-a|b c|" + view(1, 1) + "|100\n-a|b c|" + view(2, 1) + "|51\n";
  EXPECT_EQ(logOf("vprof"), first_runs);
  EXPECT_EQ(logOf("aprof"), "");  // nothing pending of that type
  for (int i = 0; i < 250; ++i)
    ASSERT_EQ(tagsOf(films[i]).find(".s.tbp"), std::string::npos) << tagsOf(films[i]);
  EXPECT_EQ(getTag(films[249], kTagModified), timeText(1700000249));
  EXPECT_EQ(getTag(films[0], kTagBatchIndex), "absent");
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 0);
  EXPECT_EQ(rules_.resolves, 1);
  EXPECT_FALSE(std::filesystem::exists(sandbox_ / ("views/" + view(0, 1))));
  // A rescan finds nothing new. A changed-directory scan tags only its own files: the touched one is
  // profiled alone, in a view named with the next run; the new one below is left to its own scan.
  scan(at("p1"), kScanForcedRescan);
  setMtime(films[3], 1800000000);
  const std::string below = media("p1/d3/sub/new.mkv");
  scan(at("p1/d3"), kScanChangedDirectory);
  EXPECT_EQ(logOf("vprof"), first_runs + "-a|b c|" + view(0, 3) + "|1\n");
  EXPECT_EQ(getTag(films[3], kTagModified), timeText(1800000000));
  EXPECT_EQ(tagsOf(below), "unknown");
  // A directory that appeared is scanned with its subtree.
  scan(at("p1/d3"), kScanNewTree);
  EXPECT_NE(getTag(below, kTagModified), "absent");
  // Only the rule and rescan requests report a scanned partition.
  EXPECT_THAT(reports_.reports(), ElementsAre("busy", at("p1"), at("p1")));
}

TEST_F(ScannerTest, ProfilersThatCrashAreMissingOrCannotBeForkedNeverHoldTheScanner) {
  rules_.rules[at("p1")] = kCategoryMovies | kCategoryPictures;
  loadMap("mkv:STDVIDEO:" + script("crash", "kill -SEGV $$\n") + ":\njpg:STDIMAGE:/nonexistent/profiler:\n");
  const std::vector<std::string> files = {media("p1/a.mkv"), media("p1/c.jpg")};
  // The first scan opens the tag store's own descriptors; the second, all files changed, reruns the profilers.
  scan(at("p1"), kScanRuleDirectory);
  for (const std::string& path : files) setMtime(path, 1600000000);
  auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto before = descriptors();
  scan(at("p1"), kScanRuleDirectory);
  EXPECT_EQ(descriptors(), before);
  // Each batch is marked all the same, the one whose profiler could not be run included.
  for (const std::string& path : files) EXPECT_EQ(getTag(path, kTagModified), timeText(1600000000)) << path;
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD);  // every child reaped
  setMtime(files[0], 1650000000);
  {
    test::ScopedFault no_fork(test::Call::kFork, EAGAIN, -1);
    scan(at("p1"), kScanRuleDirectory);
  }
  EXPECT_EQ(getTag(files[0], kTagModified), timeText(1650000000));
  EXPECT_THAT(reports_.reports(), ElementsAre("busy", at("p1"), at("p1"), at("p1")));
}

TEST_F(ScannerTest, SymlinkedMediaFilesAreProfiledOnceUnderTheLinkPath) {
  videoProfiler(kLoggingProfiler);
  sandbox_.mkdirs("uuidmount/p1/links");
  std::vector<std::string> links;
  for (int i = 0; i < 3; ++i) {
    links.push_back(at("p1/links/" + std::to_string(i) + ".mkv"));
    ASSERT_EQ(::symlink(media("p2/real/" + std::to_string(i) + ".mkv").c_str(), links.back().c_str()), 0);
  }
  scan(at("p1/links"), kScanRuleDirectory);
  EXPECT_EQ(logOf("prof"), (sandbox_ / "views/") + view(0, 1) + "||" + view(0, 1) + "|3\n");
  for (const std::string& link : links) EXPECT_FALSE(pending(link)) << link;
  EXPECT_THAT(files(at("p2")), ::testing::IsEmpty());  // targets are not tagged
}

TEST_F(ScannerTest, FilesVanishedBeforeMarkingDoNotHoldTheScannerNorTheInitialScan) {
  videoProfiler("rm -f \"" + at("p1") + "\"/*.mkv\n");
  const std::string kept = media("p1/sub/kept.mkv"), gone = media("p1/gone.mkv");
  scan(at("p1"), kScanRuleDirectory);
  EXPECT_TRUE(pending(gone));
  EXPECT_FALSE(pending(kept));  // its batch-mate is marked all the same
  EXPECT_EQ(storage_.initial_scans_done, 0);
  scan(root(), kScanStorageRoot);  // a cleanup that succeeds completes the initial scan
  EXPECT_EQ(storage_.initial_scans_done, 1);
}

TEST_F(ScannerTest, StopBelowKillsTheProfilerAndReturnsOnceTheScannerIsIdle) {
  // Video is visited first (records are in reverse line order).
  loadMap("mp3:STDAUDIO:" + script("aprof", kLoggingProfiler) + ":\nmkv:STDVIDEO:" +
          script("hang", "echo $$ > \"$(dirname \"$0\")/pid\"\nexec sleep 600\n") + ":\n");
  const std::string film = media("p1/a.mkv"), song = media("p1/b.mp3");
  started_ = true;
  ASSERT_TRUE(scanner_.start().ok());
  queue_.enqueue(at("p1"), kScanRuleDirectory);
  ASSERT_TRUE(test::waitFor([&] { return !sandbox_.read("pid").empty(); }, std::chrono::seconds(60)));
  const pid_t profiler = std::atoi(sandbox_.read("pid").c_str());
  state_.stopBelow(at("p1/Media"));  // a scan outside it is left alone
  EXPECT_EQ(::kill(profiler, 0), 0);
  state_.stopBelow(at("p1"));
  EXPECT_FALSE(state_.busy());
  EXPECT_EQ(::kill(profiler, 0), -1);  // killed and reaped
  EXPECT_THAT(reports_.reports(), ::testing::Not(::testing::Contains(at("p1"))));  // to be scanned again
  EXPECT_EQ(getTag(film, kTagBatchIndex), "0");
  EXPECT_TRUE(pending(film));
  EXPECT_TRUE(pending(song));
  EXPECT_EQ(logOf("aprof"), "");
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 0);  // the stopped type
  EXPECT_EQ(typeRecord("STDAUDIO").pending_count, 1);  // the one not reached
}

// A stop that comes between the take of a request and its publication withdraws it: nothing is walked.
TEST_F(ScannerTest, AStopBetweenTheTakeAndThePublicationWithdrawsTheRequest) {
  for (const bool withdrawn : {false, true}) {
    queue_.enqueue(at("p1"), kScanRuleDirectory);
    const std::optional<ScanRequest> taken = queue_.take(false);
    ASSERT_TRUE(taken);
    state_.stopBelow(withdrawn ? at("p1") : at("p2"));  // nothing published: returns at once
    EXPECT_EQ(state_.setScanningPath(taken->path), !withdrawn);
    EXPECT_EQ(state_.aborted(), withdrawn);
    state_.reset();
  }
  queue_.enqueue(root(), kScanStorageRoot);
  const std::optional<ScanRequest> cleanup = queue_.take(false);
  state_.stopAll();
  EXPECT_FALSE(state_.setCleanupPath(cleanup->path));
  state_.reset();
  queue_.enqueue(at("p1"), kScanRuleDirectory);  // queued after the stop: scanned
  EXPECT_TRUE(state_.setScanningPath(queue_.take(false)->path));
  state_.reset();
}

// A profiler over its time limit is killed and its batch marked (its child: the profiler scenarios).
TEST_F(ScannerTest, AProfilerOverItsTimeLimitIsKilledAndItsBatchMarked) {
  videoProfiler("exec sleep 600\n");
  const std::string film = media("p1/a.mkv", 1700000000);
  queue_.enqueue(at("p1"), kScanRuleDirectory);
  scanner(std::chrono::milliseconds(200), kRescanDelay)->step();
  EXPECT_EQ(getTag(film, kTagModified), timeText(1700000000));
}

// Tags that cannot be stored (commits or a view failing: a full disk) owe their partition a scan, queued at the
// next change on it (not elsewhere) or after the delay.
TEST_F(ScannerTest, LostTagsOweTheirPartitionAScanAtItsNextChangeOrAfterTheDelay) {
  videoProfiler(kLoggingProfiler);
  storage_.mount = at("p1");
  const std::string film = media("p1/d/a.mkv"), elsewhere = media("p2/x.txt"), changed = media("p1/e/x.txt");
  {
    test::ScopedFault full(test::Call::kKordBulkCommit, ENOSPC, -1);
    scan(at("p1/d"), kScanChangedDirectory);
  }
  EXPECT_EQ(tagsOf(film), "unknown");
  EXPECT_THAT(scanner_.owedScans(), ElementsAre(at("p1")));
  scan(at("p2"), kScanChangedDirectory);  // queues nothing: the next scan finds the queue empty
  scan(at("p1/e"), kScanChangedDirectory);
  ASSERT_EQ(queue_.size(), 1U);
  scanner_.step();
  EXPECT_TRUE(scanner_.owedScans().empty());
  setMtime(film, 1600000000);
  auto quick = scanner(kProfilerTimeLimit, std::chrono::milliseconds(100));
  test::failCalls(test::Call::kKordViewCreate, EIO);  // once
  queue_.enqueue(at("p1/d"), kScanChangedDirectory);
  quick->step();
  EXPECT_TRUE(pending(film));
  quick->step();  // nothing queued: the owed scan when its delay is over
  EXPECT_EQ(getTag(film, kTagModified), timeText(1600000000));
}

// A stop waits until the scanner thread has ended; once it has, no stop waits.
TEST(ScannerStateTest, StopWaitsUntilTheScannerHasEnded) {
  struct World {
    std::atomic<int> running{0}, stops{0};
    test::FakeStorage storage;
    test::FakeReports reports;
    ScanQueue queue{storage, reports, running};
    ScannerState state{queue};
  };
  auto* w = new World;  // left to a stop that never returns
  (void)w->state.setScanningPath("/x");
  std::thread([w] { w->state.stopScanner(); ++w->stops; }).detach();
  EXPECT_FALSE(test::waitFor([&] { return w->stops == 1; }, std::chrono::milliseconds(100)));
  w->state.scannerEnded();
  ASSERT_TRUE(test::waitFor([&] { return w->stops == 1; }));
  (void)w->state.setScanningPath("/x");
  std::thread([w] { w->state.stopAll(); ++w->stops; }).detach();
  ASSERT_TRUE(test::waitFor([&] { return w->stops == 2; }));
  delete w;
}

}  // namespace
}  // namespace zibd
