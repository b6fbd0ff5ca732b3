// The view condition language: parsing and matching on their own, then
// kord::query against a real database.
#include "host/kord/condition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/kord/failure.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using kord::Condition;
using ::testing::ElementsAre;
using Tags = std::vector<std::pair<std::string, std::string>>;

// What the profiler batches ask for.
constexpr const char* kDaemon = "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'";

TEST(KordConditionTest, MatchesExactlyTheTagsItNames) {
  const struct {
    const char* condition;
    Tags tags;
    bool matches;
  } cases[] = {
      {kDaemon, {{".s.batchidx", "0"}, {".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}}, true},
      {kDaemon, {{".s.tbp", ""}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}, {".s.hash", "x"}}, true},
      {kDaemon, {{".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}}, false},
      {kDaemon, {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "1"}}, false},
      {kDaemon, {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO0"}, {".s.batchidx", "0"}}, false},
      {kDaemon, {{".s.tbp", "1"}, {".s.filetype", "0"}, {".s.batchidx", "STDVIDEO"}}, false},
      {"  @a@ = ''   and  @b c@ exists ", {{"a", ""}, {"b c", "1"}}, true},
      {"  @a@ = ''   and  @b c@ exists ", {{"a", "x"}, {"b c", "1"}}, false},
      {"@a@='x y and z'", {{"a", "x y and z"}}, true},
      {"@a@='x y and z'", {{"a", "x y"}}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.condition);
    EXPECT_EQ(Condition::parse(c.condition).matches(c.tags), c.matches);
  }
}

TEST(KordConditionTest, RefusesMalformedConditions) {
  for (const char* bad : {"", "   ", "@a@", "@a@ exists or @b@ exists", "@a@ exists and",
                          "@a@ exists and and @b@ exists", "@a@='x", "@@ exists", "@a exists", "a exists",
                          "@a@ existsx", "@a@=x", "@a@ exists @b@ exists", "@a@='x'and @b@ exists",
                          "@a@='x' trailing", "@a@ exists AND @b@ exists", "@a@!='x'"}) {
    try {
      Condition::parse(bad);
      ADD_FAILURE() << "accepted: " << bad;
    } catch (const kord::Failure& f) {
      EXPECT_EQ(f.status(), kord::Status::kBadArgument) << bad;
      EXPECT_THAT(f.what(), ::testing::HasSubstr("bad condition")) << bad;
    }
  }
}

TEST_F(KordTest, QueryFindsExactlyTheMatchingFilesTakingNamesAndValuesLiterally) {
  configure();
  // Each file but the first two misses the condition by one term.
  tag(at("p1/match.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/also.mp4"), {{".s.tbp", "7"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/no-tbp.mp4"), {{".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/batch1.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "1"}});
  tag(at("p1/audio.mp3"), {{".s.tbp", "1"}, {".s.filetype", "STDAUDIO"}, {".s.batchidx", "0"}});
  // Values swapped between the two value terms: only a wrong binding matches it.
  tag(at("p1/swapped.mp4"), {{".s.tbp", "1"}, {".s.filetype", "0"}, {".s.batchidx", "STDVIDEO"}});
  // Quotes and LIKE patterns in names and values.
  tag(at("p1/quote.mp4"), {{"it's", "x"}, {"%", "_"}});
  tag(at("p1/other.mp4"), {{"its", "x"}, {"a", "b"}});
  std::vector<std::string> paths;
  ASSERT_EQ(kord::query(kDaemon, &paths), kord::Status::kOk) << kord::lastError().message;
  EXPECT_THAT(paths, ElementsAre(at("p1/also.mp4"), at("p1/match.mp4")));
  ASSERT_EQ(kord::query("@.s.batchidx@='0' and @.s.tbp@ exists", &paths), kord::Status::kOk);
  EXPECT_THAT(paths, ElementsAre(at("p1/also.mp4"), at("p1/audio.mp3"), at("p1/match.mp4")));
  ASSERT_EQ(kord::query("@%@='_' and @it's@ exists", &paths), kord::Status::kOk) << kord::lastError().message;
  EXPECT_THAT(paths, ElementsAre(at("p1/quote.mp4")));

  // Malformed, and a NUL byte (possible through the C++ API) that must not cut the SQL text short.
  EXPECT_EQ(kord::query("@.s.tbp@ exists or", &paths), kord::Status::kBadArgument);
  EXPECT_EQ(kord::query(std::string("@a\0b@='4'", 9), &paths), kord::Status::kBadArgument);
  EXPECT_THAT(kord::lastError().message, ::testing::HasSubstr("bad condition at offset 2"));
  EXPECT_EQ(kord::query(std::string("@it's@='x\0y'", 12), &paths), kord::Status::kBadArgument);
}

}  // namespace
}  // namespace zibd::test
