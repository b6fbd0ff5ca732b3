// The scanner end to end: real tag store, real trees, real profiler scripts.
#include "scan/scanner_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "tests/support/fault_injection.h"
#include "tests/support/wait_for.h"
#include "tests/unit/scan/scan_fixture.h"

namespace zibd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

// A profiler that appends "ARG1|ARG2|VIEW NAME|LINKS" to log for each run.
constexpr char kLoggingProfiler[] =
    "for a; do last=$a; done\n"
    "n=$(find \"$last\" -mindepth 1 -maxdepth 1 -type l -printf x | wc -c)\n"
    "echo \"$1|$2|${last##*/}|$n\" >> \"$(dirname \"$0\")/$(basename \"$0\").log\"\n";

int openDescriptors() {
  int n = 0;
  for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

// Sends this process's standard output and error to a file for its scope.
class OutputToFile {
 public:
  explicit OutputToFile(const std::string& path)
      : file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)),
        out_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)),
        err_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(file_.get(), STDOUT_FILENO);
    ::dup2(file_.get(), STDERR_FILENO);
  }
  ~OutputToFile() {
    std::fflush(stdout);
    std::fflush(stderr);
    ::dup2(out_.get(), STDOUT_FILENO);
    ::dup2(err_.get(), STDERR_FILENO);
  }

 private:
  FileDescriptor file_, out_, err_;
};

bool noChildLeft() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

class ScannerTest : public test::ScanTest {
 protected:
  void SetUp() override {
    ScanTest::SetUp();
    ASSERT_TRUE(scanner_.open());
  }
  void TearDown() override {
    running_ = 0;
    if (started_) {
      state_.stopScanner();
      scanner_.join();
    }
  }
  void start() {
    scanner_.start();
    started_ = true;
  }

  // The lines a profiler made by profiler() logged.
  std::vector<std::string> logOf(const std::string& name) {
    std::vector<std::string> lines;
    std::string text = test::readFile(sandbox_ / (name + ".log"));
    for (std::size_t start = 0, end; start < text.size(); start = end + 1) {
      end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      lines.push_back(text.substr(start, end - start));
    }
    return lines;
  }
  std::string view(const std::string& type, int batch, int run) const {
    return "zibprof." + std::to_string(::getpid()) + "." + type + "." + std::to_string(batch) +
           "." + std::to_string(run);
  }

  // Runs one request through step() on this thread; fails (and stops the
  // scanner) when it does not finish in time.
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

  bool started_ = false;
  std::atomic<int> running_{1};
  ScanQueue queue_{storage_, reports_, running_};
  ScannerState state_{queue_};
  ScannerThread scanner_{queue_, state_, types_, rules_, storage_, reports_, running_, update()};
};

TEST_F(ScannerTest, PendingFilesAreProfiledInBatchesOfOneHundredAndMarked) {
  const std::string video = script("vprof", kLoggingProfiler);
  const std::string audio = script("aprof", kLoggingProfiler);
  loadMap("mp3:STDAUDIO:" + audio + ":\nmkv:STDVIDEO:" + video + ":-a:b c\n");
  std::vector<std::string> films;
  for (int i = 0; i < 250; ++i)
    films.push_back(media("p1/d" + std::to_string(i % 7) + "/f" + std::to_string(i) + ".mkv",
                          1700000000 + i));

  scan(at("p1"), kScanRuleDirectory);

  EXPECT_THAT(logOf("vprof"), ElementsAre("-a|b c|" + view("STDVIDEO", 0, 1) + "|99",
                                          "-a|b c|" + view("STDVIDEO", 1, 1) + "|100",
                                          "-a|b c|" + view("STDVIDEO", 2, 1) + "|51"));
  EXPECT_THAT(logOf("aprof"), IsEmpty());  // nothing pending of that type
  for (int i = 0; i < 250; ++i) {
    ASSERT_EQ(getTag(films[i], kTagModified), timeText(1700000000 + i)) << films[i];
    ASSERT_EQ(tagsOf(films[i]).find(".s.tbp"), std::string::npos) << tagsOf(films[i]);
    ASSERT_EQ(tagsOf(films[i]).find(".s.batchidx"), std::string::npos);
  }
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 0);
  EXPECT_THAT(reports_.scanned(), ElementsAre(at("p1")));
  EXPECT_EQ(rules_.resolves, 1);
  EXPECT_FALSE(std::filesystem::exists(sandbox_ / ("views/" + view("STDVIDEO", 0, 1))));

  // Nothing new: the next run profiles nothing; a touched file is profiled
  // alone, in a view named with the next run.
  scan(at("p1"), kScanForcedRescan);
  setMtime(films[3], 1800000000);
  scan(at("p1/d3"), kScanChangedDirectory);
  EXPECT_EQ(logOf("vprof").size(), 4U);
  EXPECT_EQ(logOf("vprof").back(), "-a|b c|" + view("STDVIDEO", 0, 3) + "|1");
  EXPECT_EQ(getTag(films[3], kTagModified), timeText(1800000000));
  // Only the rule and rescan requests report a scanned partition.
  EXPECT_THAT(reports_.scanned(), ElementsAre(at("p1"), at("p1")));
}

TEST_F(ScannerTest, ChangedDirectoryScanTagsOnlyItsOwnFiles) {
  const std::string top = media("p1/top.mkv");
  const std::string below = media("p1/sub/below.mkv");
  script("prof", kLoggingProfiler);
  loadMap("mkv:STDVIDEO:" + (sandbox_ / "prof") + ":\n");
  scan(at("p1"), kScanChangedDirectory);
  EXPECT_NE(getTag(top, kTagModified), "absent");
  EXPECT_EQ(tagsOf(below), "unknown");
  EXPECT_EQ(logOf("prof").size(), 1U);
}

TEST_F(ScannerTest, HostileProfilersNeverDisturbTheScanner) {
  rules_.rules[at("p1")] = kCategoryMovies | kCategoryMusic | kCategoryPictures;
  const std::string crash = script("crash", "kill -SEGV $$\n");
  const std::string chatty = script("chatty", "head -c 4000000 /dev/zero; head -c 4000000 /dev/zero >&2\n");
  loadMap("mkv:STDVIDEO:" + crash + ":\nmp3:STDAUDIO:" + chatty +
          ":\njpg:STDIMAGE:/nonexistent/profiler:\n");
  const std::string film = media("p1/a.mkv");
  const std::string song = media("p1/b.mp3");
  const std::string photo = media("p1/c.jpg");
  int descriptors_before = 0, descriptors_after = 0;
  {
    OutputToFile output(sandbox_ / "output");
    // The first scan opens the tag store's own descriptors; the second, after
    // every file changed, runs the same profilers again.
    scan(at("p1"), kScanRuleDirectory);
    for (const std::string& path : {film, song, photo}) setMtime(path, 1600000000);
    descriptors_before = openDescriptors();
    scan(at("p1"), kScanRuleDirectory);
    descriptors_after = openDescriptors();
  }
  EXPECT_EQ(descriptors_after, descriptors_before);
  EXPECT_GE(std::filesystem::file_size(sandbox_ / "output"), 16000000U)
      << test::readFile(sandbox_ / "output").substr(0, 2000);

  // Each batch is marked all the same, the one whose profiler could not be
  // executed included.
  for (const std::string& path : {film, song, photo}) EXPECT_FALSE(pending(path)) << path;
  EXPECT_NE(getTag(photo, kTagModified), "absent");
  EXPECT_TRUE(noChildLeft());
}

TEST_F(ScannerTest, ProfilerThatCannotBeForkedLeavesTheScannerGoing) {
  script("prof", kLoggingProfiler);
  loadMap("mkv:STDVIDEO:" + (sandbox_ / "prof") + ":\n");
  const std::string film = media("p1/a.mkv");
  {
    test::ScopedFault no_fork(test::Call::kFork, EAGAIN, -1);
    scan(at("p1"), kScanRuleDirectory);
  }
  EXPECT_THAT(logOf("prof"), IsEmpty());
  EXPECT_FALSE(pending(film));  // marked as the failed run leaves it
  EXPECT_THAT(reports_.scanned(), ElementsAre(at("p1")));
}

TEST_F(ScannerTest, SymlinkedMediaFilesAreProfiledOnceUnderTheLinkPath) {
  script("prof", kLoggingProfiler);
  loadMap("mkv:STDVIDEO:" + (sandbox_ / "prof") + ":\n");
  sandbox_.mkdirs("uuidmount/p1/links");
  std::vector<std::string> links;
  for (int i = 0; i < 60; ++i) {
    const std::string target = media("p2/real/" + std::to_string(i) + ".mkv");
    links.push_back(at("p1/links/" + std::to_string(i) + ".mkv"));
    ASSERT_EQ(::symlink(target.c_str(), links.back().c_str()), 0);
  }

  scan(at("p1/links"), kScanRuleDirectory);

  const std::string batch = view("STDVIDEO", 0, 1);
  EXPECT_THAT(logOf("prof"), ElementsAre((sandbox_ / "views/") + batch + "||" + batch + "|60"));
  for (const std::string& link : links) ASSERT_FALSE(pending(link)) << link;
  EXPECT_THAT(files(at("p2")), IsEmpty());  // targets are not tagged
  EXPECT_THAT(reports_.scanned(), ElementsAre(at("p1/links")));
}

TEST_F(ScannerTest, FilesVanishedBeforeMarkingDoNotHoldTheScanner) {
  // The profiler deletes every file of its view: none can be marked.
  const std::string prof = script("prof", "rm -f \"" + at("p1") + "\"/*.mkv\n");
  loadMap("mkv:STDVIDEO:" + prof + ":\n");
  std::vector<std::string> films;
  for (int i = 0; i < 70; ++i) films.push_back(media("p1/" + std::to_string(i) + ".mkv"));
  scan(at("p1"), kScanRuleDirectory);
  for (const std::string& film : films) EXPECT_TRUE(pending(film));
}

TEST_F(ScannerTest, HostileFileNamesReachTheProfilerIntact) {
  const std::string prof = script("prof",
                                  "for a; do last=$a; done\n"
                                  "for l in \"$last\"/*; do readlink -z -- \"$l\"; done"
                                  " >> \"$(dirname \"$0\")/names\"\n");
  loadMap("mkv:STDVIDEO:" + prof + ":\n");
  const std::vector<std::string> names = {
      "new\nline.mkv", "tab\there.mkv", "quotes'\"`.mkv", "pipe|and;semi.mkv",
      "$(touch pwned).mkv", "-leading-dash.mkv", "latin1-\xe9\xff\x80.mkv",
      std::string(251, 'L') + ".mkv"};
  std::vector<std::string> paths;
  for (const std::string& name : names) paths.push_back(media("p1/" + name));

  scan(at("p1"), kScanRuleDirectory);

  std::vector<std::string> seen;
  const std::string got = test::readFile(sandbox_ / "names");
  for (std::size_t start = 0, end; (end = got.find('\0', start)) != std::string::npos;
       start = end + 1)
    seen.push_back(got.substr(start, end - start));
  EXPECT_THAT(seen, UnorderedElementsAreArray(paths));
  for (const std::string& path : paths) EXPECT_FALSE(pending(path)) << path;
  EXPECT_FALSE(std::filesystem::exists(sandbox_ / "pwned"));
}

TEST_F(ScannerTest, ManagedPartitionHidesWhatLiesOutsideItsMediaDirectory) {
  storage_.managed = at("p1");
  const std::string inside = media("p1/Media/a.mkv");
  const std::string outside = media("p1/Other/b.mkv");
  const std::string elsewhere = media("p2/c.mkv");
  rules_.rules[at("p2")] = kCategoryMovies;
  scan(at("p1"), kScanRuleDirectory);
  EXPECT_EQ(getTag(inside, kTagInvisible), "0");
  EXPECT_EQ(getTag(outside, kTagInvisible), "1");

  const std::string deeper = media("p1/Other/d.mkv");
  const std::string media_deeper = media("p1/Media/e.mkv");
  scan(at("p1/Other"), kScanRuleDirectory);
  scan(at("p1/Media"), kScanRuleDirectory);
  scan(at("p2"), kScanRuleDirectory);
  EXPECT_EQ(getTag(deeper, kTagInvisible), "1");
  EXPECT_EQ(getTag(media_deeper, kTagInvisible), "0");
  EXPECT_EQ(getTag(elsewhere, kTagInvisible), "0");
}

class ScannerThreadTest : public ScannerTest {};

TEST_F(ScannerThreadTest, StopBelowKillsTheProfilerAndReturnsOnceTheScannerIsIdle) {
  const std::string hang = script("hang", "echo $$ > \"$(dirname \"$0\")/pid\"\nexec sleep 600\n");
  const std::string audio = script("aprof", kLoggingProfiler);
  // Video is visited first (records are in reverse line order).
  loadMap("mp3:STDAUDIO:" + audio + ":\nmkv:STDVIDEO:" + hang + ":\n");
  const std::string film = media("p1/a.mkv");
  const std::string song = media("p1/b.mp3");
  start();
  queue_.enqueue(at("p1"), kScanRuleDirectory);
  ASSERT_TRUE(test::waitFor([&] { return !sandbox_.read("pid").empty(); }, std::chrono::seconds(60)));
  const pid_t profiler = std::stoi(sandbox_.read("pid"));

  state_.stopBelow(at("p1/Media"));  // a scan outside it is left alone
  EXPECT_EQ(::kill(profiler, 0), 0);
  state_.stopBelow(at("p1"));

  EXPECT_FALSE(state_.busy());
  EXPECT_EQ(::kill(profiler, 0), -1);  // killed and reaped
  EXPECT_EQ(errno, ESRCH);
  EXPECT_TRUE(pending(film));
  EXPECT_EQ(getTag(film, kTagBatchIndex), "0");
  EXPECT_EQ(getTag(film, kTagFileType), "STDVIDEO");
  EXPECT_TRUE(pending(song));
  EXPECT_THAT(logOf("aprof"), IsEmpty());
  EXPECT_EQ(typeRecord("STDVIDEO").pending_count, 0);  // the stopped type
  EXPECT_EQ(typeRecord("STDAUDIO").pending_count, 1);  // the one not reached
  EXPECT_THAT(reports_.scanned(), ElementsAre(at("p1")));
}

TEST_F(ScannerThreadTest, ShutdownDuringAProfilerRunKillsItAndEndsTheThread) {
  const std::string hang = script("hang", "echo $$ > \"$(dirname \"$0\")/pid\"\nexec sleep 600\n");
  loadMap("mkv:STDVIDEO:" + hang + ":\n");
  const std::string film = media("p1/a.mkv");
  start();
  queue_.enqueue(at("p1"), kScanRuleDirectory);
  queue_.enqueue(at("p1"), kScanRuleDirectory);
  ASSERT_TRUE(test::waitFor([&] { return !sandbox_.read("pid").empty(); }, std::chrono::seconds(60)));
  const pid_t profiler = std::stoi(sandbox_.read("pid"));

  running_ = 0;
  state_.stopScanner();
  scanner_.join();
  EXPECT_EQ(::kill(profiler, 0), -1);
  EXPECT_TRUE(pending(film));
  EXPECT_EQ(queue_.size(), 0U);
  EXPECT_TRUE(noChildLeft());
}

TEST_F(ScannerThreadTest, CleanupDropsWhatIsGoneAndSignalsTheUpdate) {
  const std::string kept = media("p1/kept.mkv");
  const std::string wrong = media("p1/song.jpg");  // pictures are not enabled on p1
  for (const std::string& path : {kept, wrong, at("p1/gone.mkv"), at("p2/gone.mkv")})
    ASSERT_NO_FATAL_FAILURE(tag(path, {{kTagHash, "1"}}));
  FileDescriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(::inotify_add_watch(watch.get(), update().c_str(), IN_OPEN), 0);

  scan(at("p1"), kScanStorageRoot);

  EXPECT_THAT(files(root()), ElementsAre(kept, at("p2/gone.mkv")));
  EXPECT_EQ(storage_.initial_scans_done, 1);
  char events[4096];
  EXPECT_GT(::read(watch.get(), events, sizeof events), 0);
}

TEST_F(ScannerThreadTest, CleanupStoppedHalfWayKeepsTheRestAndStillSignalsTheUpdate) {
  const std::string a = at("p1/a.mkv");  // gone
  const std::string b = media("p1/b.mkv");
  const std::string c = at("p1/c.mkv");  // gone
  for (const std::string& path : {a, b, c}) ASSERT_NO_FATAL_FAILURE(tag(path, {{kTagHash, "1"}}));
  std::atomic<bool> holding{false};
  // The check of b holds the cleanup until the stop has been raised.
  rules_.on_query = [&](const std::string&) {
    holding = true;
    test::waitFor([&] { return std::atomic_ref<int>(*state_.cleanupStopFlag()).load() != 0; },
                  std::chrono::seconds(60));
  };
  FileDescriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(::inotify_add_watch(watch.get(), update().c_str(), IN_OPEN), 0);
  start();
  queue_.enqueue(at("p1"), kScanStorageRoot);
  ASSERT_TRUE(test::waitFor([&] { return holding.load(); }, std::chrono::seconds(60)));

  state_.stopBelow(at("p2"));  // a cleanup is stopped wherever it runs
  EXPECT_FALSE(state_.busy());

  EXPECT_THAT(files(root()), ElementsAre(b, c));
  EXPECT_EQ(storage_.initial_scans_done, 0);
  char events[4096];
  EXPECT_GT(::read(watch.get(), events, sizeof events), 0);
}

TEST(ScannerStateTest, StopReturnsWhenTheScannerHasEnded) {
  std::atomic<int> running{0};
  test::FakeStorage storage;
  test::FakeReports reports;
  ScanQueue queue(storage, reports, running);
  ScannerState state(queue);
  state.setScanningPath("/x");
  auto stop = std::async(std::launch::async, [&] { state.stopScanner(); });
  EXPECT_EQ(stop.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  state.scannerEnded();
  stop.get();
  // Once ended, no stop waits.
  state.setScanningPath("/x");
  state.stopAll();
}

}  // namespace
}  // namespace zibd
