// Change handling on the clock's boundaries, against a real tag store.
#include "watch/change_handler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/kord/kord_fixture.h"

namespace zibd {
namespace {

using Requests = std::vector<std::pair<std::string, uint32_t>>;
using Paths = std::vector<std::string>;

struct RecordingScans : ScanRequests {
  void enqueue(const std::string& path, uint32_t kind) override { requests.emplace_back(path, kind); }
  Requests requests;
};

struct FakeStorage : StorageQueries {
  bool storageReady() const override { return ready; }
  bool pathIsOnPartition(const std::string&) const override { return true; }
  std::optional<std::string> managedPartitionPath() const override { return managed; }
  void sendChangeEvent(const std::string& path) override { events.push_back(path); }
  void markInitialScanDone() override {}
  bool ready = true;
  std::optional<std::string> managed;
  Paths events;
};

constexpr uint32_t kCreatedFile = FS_CHANGE_CREATED | FS_CHANGE_FILE;
constexpr uint32_t kWrittenFile = FS_CHANGE_WRITTEN | FS_CHANGE_FILE;
constexpr uint32_t kDeletedFile = FS_CHANGE_DELETED | FS_CHANGE_FILE;

class ChangeHandlerTest : public test::KordTest {
 protected:
  void SetUp() override { KordTest::SetUp(); configure(); }
  Status handle(const std::string& relative, uint32_t flags, const std::string& old_relative = "") {
    const std::string old = old_relative.empty() ? "" : at(old_relative);
    return handler_.fsHandleChange(at(relative).c_str(), old.empty() ? nullptr : old.c_str(), flags);
  }
  void notice(const std::string& relative, uint32_t flags, const std::string& old_relative = "") {
    (void)handle(relative, flags, old_relative);
  }
  void flushAfter(std::time_t seconds) { now_ += seconds, handler_.fsFlushChanges(); }

  RecordingScans scans_;
  FakeStorage storage_;
  std::time_t now_ = 1700000000;
  ChangeHandler handler_{scans_, storage_, [this] { return now_; }};
};

TEST_F(ChangeHandlerTest, DirectoryGoesToTheScannerAfterThreeQuietSecondsAndTheLastClose) {
  for (int i = 0; i < 10; ++i) {
    const std::string file = "p1/Media/" + std::to_string(i) + ".mp3";
    EXPECT_TRUE(handle(file, kCreatedFile).ok());
    flushAfter(2);
    EXPECT_TRUE(handle(file, kWrittenFile).ok());
  }
  flushAfter(2);
  EXPECT_TRUE(scans_.requests.empty());
  flushAfter(1);
  EXPECT_EQ(scans_.requests, (Requests{{at("p1/Media"), kScanChangedDirectory}}));
  EXPECT_EQ(storage_.events, Paths{at("p1/Media")});
  flushAfter(10);
  EXPECT_EQ(scans_.requests.size(), 1u);
}

TEST_F(ChangeHandlerTest, OpenFileHoldsItsDirectoryUntilSomeFileIsClosed) {
  notice("p1/other/open.mp3", kCreatedFile);
  notice("p1/Media/new", FS_CHANGE_CREATED | FS_CHANGE_DIR);  // needs only its quiet seconds
  flushAfter(60);
  // The new directory itself goes too, to be scanned with its subtree.
  EXPECT_EQ(scans_.requests, (Requests{{at("p1/Media"), kScanChangedDirectory}, {at("p1/Media/new"), kScanNewTree}}));
  notice("p1/other/open.mp3", kDeletedFile);
  flushAfter(60);
  EXPECT_EQ(scans_.requests.size(), 2u);
  notice("p1/other/other.mp3", kWrittenFile);
  flushAfter(3);
  EXPECT_EQ(scans_.requests.back(), std::make_pair(at("p1/other"), uint32_t{kScanChangedDirectory}));
}

TEST_F(ChangeHandlerTest, DeletedDirectoryLeavesTheTagStoreOnceWithItsContents) {
  for (const char* f : {"p1/Media/album/a.mp3", "p1/Media/album/sub/b.mp3", "p1/Media/keep.mp3"})
    tag(at(f), {{".s.hash", "1"}});
  for (const char* f : {"p1/Media/album/a.mp3", "p1/Media/album/sub/b.mp3"}) notice(f, kDeletedFile);
  for (const char* d : {"p1/Media/album/sub", "p1/Media/album"}) notice(d, FS_CHANGE_DELETED | FS_CHANGE_DIR);
  flushAfter(2);
  EXPECT_EQ(files(at("p1/Media/album")).size(), 2u);
  flushAfter(1);
  EXPECT_EQ(files(at("p1")), Paths{at("p1/Media/keep.mp3")});
  EXPECT_EQ(storage_.events, Paths{at("p1/Media")});
}

// What a delete waits for may come back: moved onto the same name, made again, or moved elsewhere with its directory.
TEST_F(ChangeHandlerTest, PendingDeletesGiveWayToWhatTakesTheirPlaceAndFollowMoves) {
  for (const char* f : {"p1/x/f.mp3", "p1/y/f.mp3", "p1/x/g.mp3", "p1/x/D/h.mp3", "p1/x/sub/a.mp3", "p1/x/sub/b.mp3"})
    tag(at(f), {{".s.hash", f}});
  notice("p1/x/f.mp3", kDeletedFile);
  notice("p1/x/f.mp3", FS_CHANGE_MOVED | FS_CHANGE_FILE, "p1/y/f.mp3");
  notice("p1/x/g.mp3", kDeletedFile);
  sandbox_.write("uuidmount/p1/x/g.mp3");
  notice("p1/x/D/h.mp3", kDeletedFile);
  notice("p1/x/E", FS_CHANGE_MOVED | FS_CHANGE_DIR, "p1/x/D");
  notice("p1/x/sub/a.mp3", kDeletedFile);
  notice("p1/x/sub", FS_CHANGE_DELETED | FS_CHANGE_DIR);
  sandbox_.write("uuidmount/p1/x/sub/b.mp3");
  flushAfter(3);
  EXPECT_EQ(handler_.pendingDeletes(), Paths{});
  EXPECT_EQ(getTag(at("p1/x/f.mp3"), ".s.hash"), "p1/y/f.mp3");
  EXPECT_EQ(files(at("p1")), (Paths{at("p1/x/f.mp3"), at("p1/x/g.mp3"), at("p1/x/sub/b.mp3")}));
}

// Refused: a relative path, a move without its source. Dropped: what is pending when the storage goes.
TEST_F(ChangeHandlerTest, BadNoticesAreRefusedAndNothingIsKeptWithoutStorage) {
  EXPECT_EQ(handler_.fsHandleChange("relative.mp3", nullptr, kCreatedFile).code(), EINVAL);
  EXPECT_EQ(handle("p1/x.mp3", FS_CHANGE_MOVED | FS_CHANGE_FILE).code(), EINVAL);
  tag(at("p1/gone.mp3"), {{".s.hash", "1"}});
  notice("p1/gone.mp3", kDeletedFile);
  notice("p1/other/new.mp3", kWrittenFile);
  storage_.ready = false;
  flushAfter(0);
  storage_.ready = true;
  flushAfter(10);
  EXPECT_TRUE(scans_.requests.empty());
  EXPECT_EQ(files(at("p1")), Paths{at("p1/gone.mp3")});
}

TEST_F(ChangeHandlerTest, MovesApplyAtOnceAndCarryPendingDirectories) {
  tag(at("p1/other/a.mp3"), {{".s.hash", "7"}});
  EXPECT_TRUE(handle("p1/Media/a.mp3", FS_CHANGE_MOVED | FS_CHANGE_FILE, "p1/other/a.mp3").ok());
  EXPECT_EQ(getTag(at("p1/Media/a.mp3"), ".s.hash"), "7");
  EXPECT_EQ(storage_.events, (Paths{at("p1/Media"), at("p1/other")}));
  for (const char* f : {"p1/other/d/x.mp3", "p1/other/d/e/y.mp3", "p1/other/dd/z.mp3"}) notice(f, kWrittenFile);
  notice("p1/Media/d", FS_CHANGE_MOVED | FS_CHANGE_DIR, "p1/other/d");
  flushAfter(3);
  std::sort(scans_.requests.begin(), scans_.requests.end());
  EXPECT_EQ(scans_.requests, (Requests{{at("p1/Media/d"), 0}, {at("p1/Media/d/e"), 0}, {at("p1/other/dd"), 0}}));
}

TEST_F(ChangeHandlerTest, MovesAcrossTheManagedMediaTreeAreMarkedInvisible) {
  storage_.managed = at("p1");
  // Out of Media, into it, off the partition: invisible; within Media, or never on it: not.
  const struct { const char *from, *to, *invisible; } cases[] = {
      {"p1/Media/a.mp3", "p1/other/a.mp3", "1"}, {"p1/other/b.mp3", "p1/Media/b.mp3", "1"},
      {"p1/other/c.mp3", "p2/c.mp3", "1"},       {"p1/Media/d.mp3", "p1/Media/music/d.mp3", "absent"},
      {"p1/Media/e.mp3", "p2/e.mp3", "absent"},  {"p2/f.mp3", "p2/g.mp3", "absent"}};
  for (const auto& c : cases) {
    tag(at(c.from), {{".s.hash", "1"}});
    notice(c.to, FS_CHANGE_MOVED | FS_CHANGE_FILE, c.from);
    EXPECT_EQ(getTag(at(c.to), ".s.invisible"), c.invisible) << c.from << " -> " << c.to;
  }
  // A directory: everything known below it.
  tag(at("p1/Media/album/t.mp3"), {{".s.hash", "1"}});
  notice("p1/other/album", FS_CHANGE_MOVED | FS_CHANGE_DIR, "p1/Media/album");
  EXPECT_EQ(getTag(at("p1/other/album/t.mp3"), ".s.invisible"), "1");
}

}  // namespace
}  // namespace zibd
