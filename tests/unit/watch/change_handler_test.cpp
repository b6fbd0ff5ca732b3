#include "watch/change_handler.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "common/fs_error.h"
#include "tests/unit/kord/kord_fixture.h"
#include "tests/unit/watch/fakes.h"

namespace zibd {
namespace {

using Requests = std::vector<std::pair<std::string, uint32_t>>;

class ChangeHandlerTest : public test::KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
    sandbox_.mkdirs("uuidmount/p1/Media/music");
    sandbox_.mkdirs("uuidmount/p1/other");
  }

  int notice(const std::string& path, uint32_t flags, const char* old_path = nullptr) {
    return handler_.fsHandleChange(path.c_str(), old_path, flags);
  }
  // Lets `seconds` pass and runs one flush.
  void flushAfter(std::time_t seconds) {
    clock_.seconds += seconds;
    handler_.fsFlushChanges();
  }

  test::FakeScans scans_;
  test::FakeStorage storage_;
  test::FakeClock clock_;
  ChangeHandler handler_{scans_, storage_, clock_.clock()};
};

TEST_F(ChangeHandlerTest, DirectoryGoesToTheScannerAfterThreeQuietSecondsAndTheLastClose) {
  const std::string dir = at("p1/Media/music");
  for (int i = 0; i < 10; ++i) {
    const std::string file = dir + "/" + std::to_string(i) + ".mp3";
    EXPECT_EQ(notice(file, FS_CHANGE_CREATED | FS_CHANGE_FILE), kFsOk);
    flushAfter(2);
    EXPECT_EQ(notice(file, FS_CHANGE_WRITTEN | FS_CHANGE_FILE), kFsOk);
  }
  ASSERT_EQ(handler_.pendingChanges().size(), 1u);
  flushAfter(2);
  EXPECT_TRUE(scans_.requests().empty());
  flushAfter(1);
  EXPECT_EQ(scans_.requests(), (Requests{{dir, kScanChangedDirectory}}));
  EXPECT_EQ(storage_.events, std::vector<std::string>{dir});
  flushAfter(10);
  EXPECT_EQ(scans_.requests().size(), 1u);
  EXPECT_TRUE(handler_.pendingChanges().empty());
}

TEST_F(ChangeHandlerTest, OpenFileHoldsItsDirectoryUntilSomeFileIsClosed) {
  const std::string dir = at("p1/other");
  notice(dir + "/open.mp3", FS_CHANGE_CREATED | FS_CHANGE_FILE);
  // A subdirectory created elsewhere only needs its quiet seconds.
  notice(at("p1/Media/new"), FS_CHANGE_CREATED | FS_CHANGE_DIR);
  flushAfter(60);
  EXPECT_EQ(scans_.requests(), (Requests{{at("p1/Media"), kScanChangedDirectory}}));
  notice(dir + "/open.mp3", FS_CHANGE_DELETED | FS_CHANGE_FILE);
  flushAfter(60);
  EXPECT_EQ(scans_.requests().size(), 1u);
  ASSERT_EQ(handler_.pendingChanges().size(), 1u);
  EXPECT_TRUE(handler_.pendingChanges()[0].waiting_for_close);
  notice(dir + "/other.mp3", FS_CHANGE_WRITTEN | FS_CHANGE_FILE);
  flushAfter(3);
  EXPECT_EQ(scans_.requests().back(), std::make_pair(dir, uint32_t{kScanChangedDirectory}));
}

TEST_F(ChangeHandlerTest, DeletedDirectoryLeavesTheTagStoreOnceWithItsContents) {
  const std::string dir = at("p1/Media/album");
  for (const char* f : {"a.mp3", "sub/b.mp3"}) tag(dir + "/" + f, {{".s.hash", "1"}});
  tag(at("p1/Media/keep.mp3"), {{".s.hash", "2"}});
  notice(dir + "/a.mp3", FS_CHANGE_DELETED | FS_CHANGE_FILE);
  notice(dir + "/sub/b.mp3", FS_CHANGE_DELETED | FS_CHANGE_FILE);
  notice(dir + "/sub", FS_CHANGE_DELETED | FS_CHANGE_DIR);
  notice(dir, FS_CHANGE_DELETED | FS_CHANGE_DIR);
  EXPECT_EQ(handler_.pendingDeletes(), std::vector<std::string>{dir});
  flushAfter(2);
  EXPECT_EQ(files(dir).size(), 2u);
  flushAfter(1);
  EXPECT_TRUE(files(dir).empty());
  EXPECT_EQ(files(at("p1")), std::vector<std::string>{at("p1/Media/keep.mp3")});
  EXPECT_EQ(storage_.events, std::vector<std::string>{at("p1/Media")});
  EXPECT_TRUE(handler_.pendingDeletes().empty());
}

TEST_F(ChangeHandlerTest, BadNoticesAreRefusedAndNothingIsKeptWithoutStorage) {
  EXPECT_EQ(notice("relative.mp3", FS_CHANGE_CREATED | FS_CHANGE_FILE), kFsErrInvalid);
  EXPECT_EQ(notice(at("p1/x.mp3"), FS_CHANGE_MOVED | FS_CHANGE_FILE), kFsErrInvalid);
  EXPECT_TRUE(handler_.pendingChanges().empty());
  EXPECT_TRUE(handler_.pendingDeletes().empty());

  tag(at("p1/gone.mp3"), {{".s.hash", "1"}});
  notice(at("p1/gone.mp3"), FS_CHANGE_DELETED | FS_CHANGE_FILE);
  notice(at("p1/other/new.mp3"), FS_CHANGE_WRITTEN | FS_CHANGE_FILE);
  storage_.ready = false;
  flushAfter(0);
  storage_.ready = true;
  flushAfter(10);
  EXPECT_TRUE(scans_.requests().empty());
  EXPECT_EQ(files(at("p1")), std::vector<std::string>{at("p1/gone.mp3")});
}

TEST_F(ChangeHandlerTest, MovesApplyAtOnceAndCarryPendingDirectories) {
  tag(at("p1/other/a.mp3"), {{".s.hash", "7"}});
  EXPECT_EQ(notice(at("p1/Media/a.mp3"), FS_CHANGE_MOVED | FS_CHANGE_FILE, at("p1/other/a.mp3").c_str()), 0);
  EXPECT_EQ(getTag(at("p1/Media/a.mp3"), ".s.hash"), "7");
  EXPECT_EQ(storage_.events, (std::vector<std::string>{at("p1/Media"), at("p1/other")}));

  notice(at("p1/other/d/x.mp3"), FS_CHANGE_WRITTEN | FS_CHANGE_FILE);
  notice(at("p1/other/d/e/y.mp3"), FS_CHANGE_WRITTEN | FS_CHANGE_FILE);
  notice(at("p1/other/dd/z.mp3"), FS_CHANGE_WRITTEN | FS_CHANGE_FILE);
  notice(at("p1/Media/d"), FS_CHANGE_MOVED | FS_CHANGE_DIR, at("p1/other/d").c_str());
  flushAfter(3);
  Requests requests = scans_.requests();
  std::sort(requests.begin(), requests.end());
  EXPECT_EQ(requests, (Requests{{at("p1/Media/d"), 0}, {at("p1/Media/d/e"), 0}, {at("p1/other/dd"), 0}}));
}

TEST_F(ChangeHandlerTest, MovesAcrossTheManagedMediaTreeAreMarkedInvisible) {
  storage_.managed = at("p1");
  auto moveTagged = [&](const std::string& from, const std::string& to) {
    tag(at(from), {{".s.hash", "1"}});
    notice(at(to), FS_CHANGE_MOVED | FS_CHANGE_FILE, at(from).c_str());
    return getTag(at(to), ".s.invisible");
  };
  EXPECT_EQ(moveTagged("p1/Media/a.mp3", "p1/other/a.mp3"), "1");    // out of Media
  EXPECT_EQ(moveTagged("p1/other/b.mp3", "p1/Media/b.mp3"), "1");    // into Media
  EXPECT_EQ(moveTagged("p1/other/c.mp3", "p2/c.mp3"), "1");          // off the partition
  EXPECT_EQ(moveTagged("p1/Media/d.mp3", "p1/Media/music/d.mp3"), "absent");
  EXPECT_EQ(moveTagged("p1/Media/e.mp3", "p2/e.mp3"), "absent");
  EXPECT_EQ(moveTagged("p2/f.mp3", "p2/g.mp3"), "absent");
  // A directory is tagged with everything known below it.
  tag(at("p1/Media/album/t.mp3"), {{".s.hash", "1"}});
  notice(at("p1/other/album"), FS_CHANGE_MOVED | FS_CHANGE_DIR, at("p1/Media/album").c_str());
  EXPECT_EQ(getTag(at("p1/other/album/t.mp3"), ".s.invisible"), "1");
}

}  // namespace
}  // namespace zibd
