// kordctl as people and profilers run it: outputs, messages, exit codes, views kept right.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/subprocess.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using ::testing::AllOf, ::testing::ElementsAre, ::testing::FieldsAre, ::testing::HasSubstr, ::testing::StartsWith;

class KordctlTest : public KordTest {
 protected:
  static Result kordctl(std::vector<std::string> args) { args.insert(args.begin(), KORDCTL_PATH); return run(args); }
};

TEST_F(KordctlTest, PrintsTagsFilesQueriesAndStatsAsLinesOrNulSeparated) {
  configure();
  tag(at("p1/b.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/a.mp3"), {{".s.tbp", "1"}, {".s.filetype", "STDAUDIO"}, {".s.batchidx", "0"}});
  tag(at("p2/c.mp4"), {{".s.filetype", "STDVIDEO"}, {".s.mdt", "20240101000000"}});
  const std::string odd = at("p2/two\nlines.mp4");  // NUL-separated lists (-0) keep newlines in names and values
  tag(odd, {{".s.note", "a\nb=c"}});
  const std::string nl = "\n", nul(1, '\0');
  for (const auto& [args, out] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"tags", at("p1/b.mp4")}, ".s.batchidx=0\n.s.filetype=STDVIDEO\n.s.tbp=1\n"},
           {{"files", at("p1")}, at("p1/a.mp3") + nl + at("p1/b.mp4") + nl},
           {{"files", at("p2") + "/"}, at("p2/c.mp4") + nl + odd + nl},
           {{"-0", "files", at("p2")}, at("p2/c.mp4") + nul + odd + nul},
           {{"--null", "query", "@.s.note@ exists"}, odd + nul},
           {{"-0", "--db", database(), "tags", odd}, ".s.note=a\nb=c" + nul},
           {{"query", "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'"}, at("p1/b.mp4") + nl},
           {{"query", "@.s.filetype@='STDIMAGE'"}, ""},
           {{"stats"}, "files 4\n.s.tbp 2\n.s.filetype=STDAUDIO 1\n.s.filetype=STDVIDEO 2\n"},
       }) {
    EXPECT_THAT(kordctl(args), FieldsAre(0, out, "")) << ::testing::PrintToString(args);
  }
}

TEST_F(KordctlTest, SetAndDelChangeOneTagForEveryone) {
  configure();
  const std::string note = ".s.note=with spaces = and 'quotes'";
  for (const auto& [args, status, tags] : std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
           {{"set", at("p1/x.mp4"), ".s.tbp", "1"}, 0, ".s.tbp=1"},
           {{"set", at("p1/x.mp4"), ".s.note", "with spaces = and 'quotes'"}, 0, note + " .s.tbp=1"},
           {{"del", at("p1/x.mp4"), ".s.tbp"}, 0, note},
           {{"set", at("p1/x.mp4"), "media.a", "1", "media.b", "two words"}, 0, note + " media.a=1 media.b=two words"},
           {{"set", at("p1/x.mp4"), "media.a", "3", "", "v"}, 2, note + " media.a=1 media.b=two words"},  // all or none
       }) {
    EXPECT_THAT(kordctl(args), FieldsAre(status, "", ::testing::_)) << ::testing::PrintToString(args);
    EXPECT_EQ(tagsOf(at("p1/x.mp4")), tags) << ::testing::PrintToString(args);
  }
}

TEST_F(KordctlTest, FailuresExitWithTheirStatusAndMessage) {
  const std::string usage = "Try 'kordctl --help'.";
  struct Case { std::vector<std::string> args; int status; std::string message; };
  auto check = [](const std::vector<Case>& cases) {
    for (const Case& c : cases)
      EXPECT_THAT(kordctl(c.args), FieldsAre(c.status, "", AllOf(StartsWith("kordctl: "), HasSubstr(c.message))))
          << ::testing::PrintToString(c.args);
  };
  check({{{"stats"}, 2, "no database configured"}, {{"set", at("p1/a.mp4"), "n", "v"}, 2, "no database configured"}});
  configure();
  tag(at("p1/a.mp4"), {{".s.tbp", "1"}});
  check({
      {{"tags", at("p1/unknown.mp4")}, 1, "not in the database"},
      {{"del", at("p1/a.mp4"), ".s.mdt"}, 1, "has no tag .s.mdt"},
      {{"query", "@.s.tbp@ exists or @x@ exists"}, 2, "bad condition"},
      {{"set", "/etc/passwd", "n", "v"}, 2, "not below the database root"},
      {{"set", at("p1/a.mp4"), "", "v"}, 2, "empty tag name"},
      {{"--db", sandbox_ / "missing.db", "files"}, 2, "cannot use database"},
      {{}, 2, usage}, {{"frobnicate"}, 2, usage}, {{"tags"}, 2, usage}, {{"stats", "extra"}, 2, usage},
      {{"set", at("p1/a.mp4"), "n"}, 2, usage}, {{"set", at("p1/a.mp4"), "n", "v", "m"}, 2, usage},
      {{"--bogus", "stats"}, 2, usage}, {{"--db"}, 2, usage},
      {{"query", std::string(5000, '@')}, 2, "bad condition"},  // hostile input is refused, never a crash
  });
  EXPECT_THAT(kordctl({"--help"}), FieldsAre(0, StartsWith("usage: kordctl"), ""));
  ASSERT_EQ(kordctl({"set", at("p1/a.mp4"), "n", std::string(100000, 'v')}).status, 0);
  EXPECT_EQ(tagsOf(at("p1/a.mp4")), ".s.tbp=1 n=" + std::string(100000, 'v'));
}

TEST_F(KordctlTest, ChangesMadeByKordctlKeepViewsRight) {
  configure();
  tag(at("p1/a.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/b.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "1"}});
  const char* view = "zibprof.7.STDVIDEO.0.1";
  ASSERT_EQ(kord_view_create(view), 0);
  ASSERT_EQ(kord_view_set_cond(view, "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'"), 0);
  char dir[100];
  ASSERT_NE(kord_view_get_path(view, dir, sizeof dir), 0);
  ASSERT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4")));
  // A profiler moves b into the batch and takes a out, from its own process.
  ASSERT_EQ(kordctl({"set", at("p1/b.mp4"), ".s.batchidx", "0"}).status, 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/a.mp4"), at("p1/b.mp4")));
  ASSERT_EQ(kordctl({"del", at("p1/a.mp4"), ".s.tbp"}).status, 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/b.mp4")));
}

}  // namespace
}  // namespace zibd::test
