// The shipped profilers (sample/profilers) run on a view directory made here
// the way the tag store makes them (links named "<id>-<name>" to absolute
// paths), against a tag database of their own, without zibd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"

namespace zibd::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class ProfilerTest : public SandboxTest {
 protected:
  void SetUp() override {
    sandbox_.write("kord.ini", "dms-metadata-db-1:" + sandbox_.path() + ":" + (sandbox_ / "db/tagdb") + "\n");
    sandbox_.mkdirs("media");
    sandbox_.mkdirs("view");
    env_.set = {{"KORD_INI", sandbox_ / "kord.ini"},
                {"KORD_UPDATE", sandbox_ / "update"},
                {"KORD_VIEWS", sandbox_ / "views"},
                {"KORDCTL", binary("kordctl")},
                {"ZIBD_PROFILER_LOG", sandbox_ / "profilers.log"}};
  }

  // Copies sample/media/SOURCE to media/NAME and links it into the view.
  std::string add(const std::string& source, const std::string& name) {
    const std::string path = sandbox_ / ("media/" + name);
    std::string from = ZIBD_SOURCE_DIR "/sample/media/";
    from += source;
    std::ifstream in(from, std::ios::binary);
    std::ofstream(path, std::ios::binary) << in.rdbuf();
    link(path);
    return path;
  }

  // A view entry for path, named as the tag store names it (the tail of the
  // name when it is too long).
  void link(const std::string& path) {
    std::string name = std::to_string(++id_) + "-" + path.substr(path.rfind('/') + 1);
    if (name.size() > 255) name = std::to_string(id_) + "-" + name.substr(name.size() - 250);
    ASSERT_EQ(::symlink(path.c_str(), (sandbox_ / ("view/" + name)).c_str()), 0) << name;
  }

  Result profile(const std::string& kind, std::vector<std::string> args = {}) {
    std::string program = ZIBD_SOURCE_DIR "/sample/profilers/profile-";
    program += kind;
    args.insert(args.begin(), program);
    return run(args, env_, "", std::chrono::minutes(3));
  }
  Result profile(const std::string& kind, const char* view) { return profile(kind, std::vector<std::string>{view}); }

  // The tags of path, "NAME=VALUE," each; "unknown" when it has none.
  std::string tags(const std::string& path) {
    Result r = run({binary("kordctl"), "-0", "tags", path}, env_);
    if (r.status == 1) return "unknown";
    EXPECT_EQ(r.status, 0) << r.err;
    std::string out = r.out;
    for (char& c : out)
      if (c == '\0') c = ',';
    return out;
  }

  Env env_;
  int id_ = 0;
};

TEST_F(ProfilerTest, EveryNameReachesTheToolAndAnUnreadableFileBreaksNothing) {
  const std::vector<std::string> names = {
      "-n\nline\ttab \"dq\" 'sq' |pipe $(echo PWNED >&2) `echo PWNED >&2` *?[a].mp3",
      "caf\xe9 \xff\xfe not utf-8.mp3",
      "-", std::string(251, 'x') + ".mp3",
      "plain.mp3"};
  // A link whose file has gone comes first, an unreadable file in between.
  link(sandbox_ / "media/0 gone.mp3");
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i == 2) {
      sandbox_.write("media/noise.mp3", std::string(3000, '\x5a'));
      link(sandbox_ / "media/noise.mp3");
    }
    paths.push_back(add("morning-light.mp3", names[i]));
  }

  const Result r = profile("audio", (sandbox_ / "view").c_str());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out + r.err, Not(HasSubstr("PWNED")));
  for (const std::string& path : paths) {
    const std::string got = tags(path);
    EXPECT_THAT(got, HasSubstr("media.title=Morning Light,")) << path;
    EXPECT_THAT(got, HasSubstr("media.artist=The Sample Band,")) << path;
    EXPECT_THAT(got, HasSubstr("media.duration=3056,")) << path;
    EXPECT_THAT(got, HasSubstr("media.audiocodec=MPEG Audio,")) << path;
    // Its own tags only, never the daemon's.
    EXPECT_THAT(got, Not(HasSubstr(".s."))) << path;
  }
  EXPECT_EQ(tags(sandbox_ / "media/noise.mp3"), "unknown");
  EXPECT_EQ(tags(sandbox_ / "media/0 gone.mp3"), "unknown");

  // One log line per file, the name shell-quoted so that it stays one line.
  const std::string log = sandbox_.read("profilers.log");
  EXPECT_THAT(log, HasSubstr("/media/caf\\351 \\377\\376 not utf-8.mp3' 9 tags\n")) << log;
  EXPECT_THAT(log, HasSubstr("/media/noise.mp3 no metadata\n")) << log;
  EXPECT_THAT(log, HasSubstr("/media/0\\ gone.mp3 is gone: skipped\n")) << log;
  EXPECT_THAT(log, HasSubstr("batch of audio files done: 6 profiled\n")) << log;
}

TEST_F(ProfilerTest, UsageErrorsStoreNothing) {
  add("morning-light.mp3", "song.mp3");
  const std::string view = sandbox_ / "view";
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {sandbox_ / "missing"}, {"--verbose", view}, {view, view}, {sandbox_ / "kord.ini"}}) {
    const Result r = profile("video", args);
    EXPECT_EQ(r.status, 2) << ::testing::PrintToString(args);
    EXPECT_THAT(r.err, HasSubstr("profile-video")) << ::testing::PrintToString(args);
  }
  EXPECT_EQ(tags(sandbox_ / "media/song.mp3"), "unknown");
}

}  // namespace
}  // namespace zibd::test
