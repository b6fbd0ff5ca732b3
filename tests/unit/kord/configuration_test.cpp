// Finding the database through the configuration file, following its changes
// and the update signal.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

class KordConfigurationTest : public KordTest {
 protected:
  static int setAndCommit(kord_bulk_t* h, const std::string& path) {
    if (kord_bulk_setpath(h, path.c_str()) != 0) return -1;
    if (kord_bulk_settag(h, ".s.tbp", "1") != 0) return -2;
    return kord_bulk_commit(h);
  }
  static bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
  }
};

TEST_F(KordConfigurationTest, HandleOpenedBeforeAnyConfigurationStartsWorkingOnceConfigured) {
  Handle h = open();  // the scanner opens its handle before storage is chosen
  ASSERT_TRUE(h);
  EXPECT_NE(kord_bulk_setpath(h.get(), at("p1/a.mp4").c_str()), 0);
  EXPECT_EQ(kord::lastError().status, kord::Status::kNoDatabase);
  EXPECT_NE(kord_move(at("p1/a").c_str(), at("p1/b").c_str()), 0);

  configure("p1");
  signalUpdate();
  ASSERT_EQ(setAndCommit(h.get(), at("p1/a.mp4")), 0) << kord::lastError().message;
  // The database file and its ".kord" directory were made on the chosen partition.
  EXPECT_TRUE(exists(database("p1")));
  EXPECT_EQ(tagsOf(at("p1/a.mp4")), ".s.tbp=1");
}

TEST_F(KordConfigurationTest, FollowsTheConfigurationToAnotherDatabase) {
  configure("p1");
  Handle h = open();
  ASSERT_EQ(setAndCommit(h.get(), at("p1/a.mp4")), 0);

  configure("p2", "1700000100");
  signalUpdate();
  ASSERT_EQ(setAndCommit(h.get(), at("p2/b.mp4")), 0) << kord::lastError().message;
  EXPECT_TRUE(exists(database("p2")));
  // The handle-less calls follow as well: the new database has only b.
  EXPECT_EQ(files(), std::vector<std::string>{at("p2/b.mp4")});
  EXPECT_EQ(tagsOf(at("p1/a.mp4")), "unknown");

  configure("p1", "17");  // no signal: the change of the file alone is enough
  EXPECT_EQ(files(), std::vector<std::string>{at("p1/a.mp4")});
  ASSERT_EQ(setAndCommit(h.get(), at("p1/c.mp4")), 0);
  EXPECT_EQ(files(), (std::vector<std::string>{at("p1/a.mp4"), at("p1/c.mp4")}));
}

TEST_F(KordConfigurationTest, UpdateSignalRevealsARewriteThatLooksUnchanged) {
  configure("p1");
  Handle h = open();
  ASSERT_EQ(setAndCommit(h.get(), at("p1/a.mp4")), 0);
  struct stat before;
  ASSERT_EQ(::stat(ini().c_str(), &before), 0);

  // Same inode, same size, same modification time: only the signal tells.
  configure("p2");
  const struct timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, ini().c_str(), times, 0), 0);
  struct stat after;
  ASSERT_EQ(::stat(ini().c_str(), &after), 0);
  ASSERT_EQ(after.st_ino, before.st_ino);
  ASSERT_EQ(after.st_size, before.st_size);
  signalUpdate();

  ASSERT_EQ(setAndCommit(h.get(), at("p2/b.mp4")), 0) << kord::lastError().message;
  EXPECT_TRUE(exists(database("p2")));
  EXPECT_EQ(files(), std::vector<std::string>{at("p2/b.mp4")});
}

TEST_F(KordConfigurationTest, EmptyOrMalformedConfigurationMeansNoDatabase) {
  configure("p1");
  tag(at("p1/a.mp4"), {{".s.tbp", "1"}});
  Handle h = open();
  ASSERT_EQ(kord_bulk_setpath(h.get(), at("p1/a.mp4").c_str()), 0);

  for (const std::string& text :
       {std::string(""), std::string("\n"), std::string("dms-metadata-db-1 no colons\n"),
        "dms-metadata-db-1:relative/root:" + database() + "\n"}) {
    sandbox_.write("kord.ini", text);  // the daemon truncates it when its disk goes away
    signalUpdate();
    EXPECT_NE(kord_bulk_setpath(h.get(), at("p1/a.mp4").c_str()), 0) << text;
    EXPECT_EQ(kord::lastError().status, kord::Status::kNoDatabase) << text;
    EXPECT_NE(kord_bulk_settag(h.get(), ".s.tbp", "1"), 0) << text;
    EXPECT_NE(kord_delete(at("p1/a.mp4").c_str()), 0) << text;
    EXPECT_NE(kord_view_create("v"), 0) << text;
    std::vector<std::string> paths;
    EXPECT_EQ(kord::listFiles("/", &paths), kord::Status::kNoDatabase) << text;
  }
  // Nothing was touched meanwhile.
  configure("p1");
  EXPECT_EQ(tagsOf(at("p1/a.mp4")), ".s.tbp=1");
}

TEST_F(KordConfigurationTest, AMissingConfigurationFileMeansNoDatabase) {
  Handle h = open();
  EXPECT_NE(kord_bulk_setpath(h.get(), at("p1/a.mp4").c_str()), 0);
  EXPECT_NE(kord_bulk_commit(nullptr), 0);
  EXPECT_EQ(kord_bulk_commit(h.get()), 0) << "nothing to commit is no failure";
  int stop = 0;
  EXPECT_NE(kord_cleanup_attached(root().c_str(), &stop, [](const char*) { return 1; }), 0);
  char path[100];
  EXPECT_EQ(kord_view_get_path("v", path, sizeof path), 0);
}

}  // namespace
}  // namespace zibd::test
