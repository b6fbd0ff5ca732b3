// zibd-profile on views made here: the tags of the sample media (expected_tags.txt, the values the
// earlier shell profiler stored), hostile names, files it cannot read, empty and vanishing views.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/subprocess.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class ProfileTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
    sandbox_.mkdirs("view");
  }
  // A copy of a sample file at p1/NAME, linked from the view as the daemon's views name links.
  std::string add(const std::string& sample, const std::string& name) {
    const std::string path = at("p1/" + name);
    fs::copy_file(std::string(ZIBD_SOURCE_DIR) + "/sample/media/" + sample, path);
    link(path);
    return path;
  }
  void link(const std::string& target) {
    const std::string name = sandbox_ / ("view/" + std::to_string(++links_) + "-link");
    ASSERT_EQ(::symlink(target.c_str(), name.c_str()), 0);
  }
  Result profile(std::vector<std::string> options = {}) {
    options.insert(options.begin(), binary("zibd-profile"));
    options.push_back(sandbox_ / "view");
    return run(options, Env{{{"ZIBD_PROFILER_LOG", sandbox_ / "log"}}});
  }
  int links_ = 0;
};

TEST_F(ProfileTest, StoresTheSampleTagsUnderAnyNameAndNothingForFilesItCannotRead) {
  std::map<std::string, std::string> labels;  // path -> label in expected_tags.txt
  for (const char* sample : {"beach.jpg", "birthday.mp4", "drawing.png", "evening-tide.flac", "holiday.mkv",
                             "morning-light.mp3", "road-trip.ogg", "tower.jpg"})
    labels[add(sample, sample)] = sample;
  labels[add("morning-light.mp3", std::string(251, 'n') + ".mp3")] = "name-of-255-bytes";
  labels[add("road-trip.ogg", "caf\xe9 \xff.ogg")] = "name-not-utf8";
  labels[add("tower.jpg", "two\nlines.jpg")] = "name-with-newline";
  labels[add("morning-light.mp3", "song.mp4")] = "mp3-named-mp4";  // the extension's parser does not fit
  labels[add("drawing.png", "drawing.jpg")] = "png-named-jpg";
  sandbox_.write("uuidmount/p1/damaged.avi", std::string(8192, 'x'));
  link(at("p1/damaged.avi"));
  ASSERT_EQ(::mkfifo(at("p1/fifo.mp4").c_str(), 0644), 0);  // opened, it would block a reader for ever
  link(at("p1/fifo.mp4"));
  link(at("p1/vanished.mp4"));
  tag(at("p1/birthday.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}});  // the daemon's, left alone

  EXPECT_THAT(profile(), ::testing::FieldsAre(0, "", "")) << sandbox_.read("log");
  std::string stored;
  for (const std::string& path : files()) {
    std::vector<std::pair<std::string, std::string>> tags;
    ASSERT_EQ(kord::listTags(path, &tags), kord::Status::kOk);
    const std::string label = labels.count(path) ? labels[path] : "unexpected " + path;
    for (const auto& [name, value] : tags) stored += label + " " + name + "=" + value + "\n";
  }
  std::ifstream expected_file(std::string(ZIBD_SOURCE_DIR) + "/tests/system/profile/expected_tags.txt");
  std::stringstream expected;
  expected << expected_file.rdbuf();
  EXPECT_EQ(stored, expected.str());
  EXPECT_THAT(sandbox_.read("log"), HasSubstr("/uuidmount/p1/vanished.mp4 is gone: skipped\n"));
}

TEST_F(ProfileTest, AnEmptyViewStoresNothingAndAnUnreadableViewFails) {
  EXPECT_EQ(profile().status, 0);
  EXPECT_THAT(files(), ::testing::IsEmpty());
  EXPECT_THAT(sandbox_.read("log"), HasSubstr("batch done: 0 profiled\n"));
  fs::remove(sandbox_ / "view");
  const Result missing = profile();
  EXPECT_EQ(missing.status, 2);
  EXPECT_THAT(missing.err, HasSubstr("cannot read the view " + (sandbox_ / "view")));
  EXPECT_EQ(profile({"--bogus"}).status, 2);
}

// The log is a FIFO of one page that nobody reads yet: the profiler blocks on it after a few files,
// the view is removed then, and the batch goes on as it was given once the log is read.
TEST_F(ProfileTest, AViewRemovedMidBatchLeavesTheBatchAsItWasGiven) {
  std::vector<std::string> paths;
  for (int i = 0; i < 60; ++i) paths.push_back(add("morning-light.mp3", std::string(120, 'a' + i % 26) + std::to_string(i) + ".mp3"));
  const std::string log = sandbox_ / "log";
  ASSERT_EQ(::mkfifo(log.c_str(), 0644), 0);
  const int reader = ::open(log.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  ASSERT_EQ(::fcntl(reader, F_SETPIPE_SZ, 4096), 4096);  // 60 lines of 200 bytes do not fit
  Process profiler({binary("zibd-profile"), "--log=" + log, sandbox_ / "view"});
  pollfd ready{reader, POLLIN, 0};
  ASSERT_EQ(::poll(&ready, 1, 20000), 1);
  fs::remove_all(sandbox_ / "view");
  std::string text;
  char chunk[4096];
  for (ssize_t n; (n = ::read(reader, chunk, sizeof chunk)) != 0;) {
    if (n > 0) text.append(chunk, static_cast<size_t>(n));
    else ASSERT_EQ(::poll(&ready, 1, 20000), 1);
  }
  ::close(reader);
  const std::optional<int> status = profiler.wait();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(exitCode(*status), 0);
  EXPECT_THAT(text, HasSubstr("batch done: 60 profiled"));
  for (const std::string& path : paths) EXPECT_EQ(getTag(path, "media.title"), "Morning Light") << path;
}

}  // namespace
}  // namespace zibd::test
