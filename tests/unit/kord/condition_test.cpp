// The view condition language, on its own and through kord::query against a
// real database.
#include "host/kord/condition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/kord/failure.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

using kord::Condition;
using ::testing::ElementsAre;

// What the profiler batches ask for.
constexpr const char* kDaemonCondition =
    "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='0'";

TEST(KordConditionTest, AcceptsTheDaemonsConditionAndEvaluatesIt) {
  Condition c = Condition::parse(kDaemonCondition);
  ASSERT_EQ(c.terms().size(), 3u);
  EXPECT_TRUE(c.mentions(".s.batchidx"));
  EXPECT_FALSE(c.mentions(".s.mdt"));
  using Tags = std::vector<std::pair<std::string, std::string>>;
  EXPECT_TRUE(c.matches(Tags{{".s.batchidx", "0"}, {".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}}));
  EXPECT_TRUE(c.matches(
      Tags{{".s.tbp", ""}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}, {".s.hash", "x"}}));
  EXPECT_FALSE(c.matches(Tags{{".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}}));
  EXPECT_FALSE(c.matches(Tags{{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "1"}}));
  EXPECT_FALSE(
      c.matches(Tags{{".s.tbp", "1"}, {".s.filetype", "STDVIDEO0"}, {".s.batchidx", "0"}}));
}

TEST(KordConditionTest, AcceptsOptionalSpacesAndEmptyValues) {
  EXPECT_EQ(Condition::parse("  @a@ = ''   and  @b c@ exists ").terms().size(), 2u);
  EXPECT_EQ(Condition::parse("@a@='x y and z'").terms().front().value, "x y and z");
}

TEST(KordConditionTest, RefusesMalformedConditions) {
  for (const char* bad : {"", "   ", "@a@", "@a@ exists or @b@ exists", "@a@ exists and",
                          "@a@ exists and and @b@ exists", "@a@='x", "@@ exists", "@a exists",
                          "a exists", "@a@ existsx", "@a@=x", "@a@ exists @b@ exists",
                          "@a@='x'and @b@ exists", "@a@='x' trailing", "@a@ exists AND @b@ exists",
                          "@a@!='x'", "@a@ exists; drop table tags"}) {
    try {
      Condition::parse(bad);
      ADD_FAILURE() << "accepted: " << bad;
    } catch (const kord::Failure& f) {
      EXPECT_EQ(f.status(), kord::Status::kBadArgument) << bad;
      EXPECT_THAT(f.what(), ::testing::HasSubstr("bad condition")) << bad;
    }
  }
}

class KordQueryTest : public KordTest {};

TEST_F(KordQueryTest, QueryFindsExactlyTheMatchingFiles) {
  configure();
  // Each file misses the condition by one term but the first.
  tag(at("p1/match.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/also.mp4"), {{".s.tbp", "7"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/no-tbp.mp4"), {{".s.filetype", "STDVIDEO"}, {".s.batchidx", "0"}});
  tag(at("p1/batch1.mp4"), {{".s.tbp", "1"}, {".s.filetype", "STDVIDEO"}, {".s.batchidx", "1"}});
  tag(at("p1/audio.mp3"), {{".s.tbp", "1"}, {".s.filetype", "STDAUDIO"}, {".s.batchidx", "0"}});
  // Values swapped between the two value terms: only a wrong binding matches it.
  tag(at("p1/swapped.mp4"), {{".s.tbp", "1"}, {".s.filetype", "0"}, {".s.batchidx", "STDVIDEO"}});
  std::vector<std::string> paths;
  ASSERT_EQ(kord::query(kDaemonCondition, &paths), kord::Status::kOk) << kord::lastError().message;
  EXPECT_THAT(paths, ElementsAre(at("p1/also.mp4"), at("p1/match.mp4")));
  ASSERT_EQ(kord::query("@.s.batchidx@='0' and @.s.tbp@ exists", &paths), kord::Status::kOk);
  EXPECT_THAT(paths, ElementsAre(at("p1/also.mp4"), at("p1/audio.mp3"), at("p1/match.mp4")));
  EXPECT_EQ(kord::query("@.s.tbp@ exists or", &paths), kord::Status::kBadArgument);
}

TEST_F(KordQueryTest, NamesAndValuesWithQuotesOrPatternCharactersAreTakenLiterally) {
  configure();
  tag(at("p1/quote.mp4"), {{"it's", "x"}, {"%", "_"}});
  tag(at("p1/other.mp4"), {{"its", "x"}, {"a", "b"}});
  std::vector<std::string> paths;
  ASSERT_EQ(kord::query("@it's@='x'", &paths), kord::Status::kOk) << kord::lastError().message;
  EXPECT_THAT(paths, ElementsAre(at("p1/quote.mp4")));
  ASSERT_EQ(kord::query("@%@='_' and @it's@ exists", &paths), kord::Status::kOk);
  EXPECT_THAT(paths, ElementsAre(at("p1/quote.mp4")));
  // The same through a view, which also indexes those names.
  ASSERT_EQ(kord_view_create("quotes"), 0);
  ASSERT_EQ(kord_view_set_cond("quotes", "@it's@ exists and @%@='_'"), 0)
      << kord::lastError().message;
  char dir[100];
  ASSERT_NE(kord_view_get_path("quotes", dir, sizeof dir), 0);
  EXPECT_THAT(linkTargets(dir), ElementsAre(at("p1/quote.mp4")));
}

// A NUL byte (possible through the C++ API, not the C one) used to cut the
// SQL text short and fail as an SQLite error; it is a malformed condition.
TEST_F(KordQueryTest, ANulByteMakesABadConditionNotAnSqlError) {
  configure();
  tag(at("p1/a.mp4"), {{"a", "x"}});
  std::vector<std::string> paths;
  EXPECT_EQ(kord::query(std::string("@a\0b@='4'", 9), &paths), kord::Status::kBadArgument);
  EXPECT_THAT(kord::lastError().message, ::testing::HasSubstr("bad condition at offset 2"));
  EXPECT_EQ(kord::query(std::string("@a@='x\0y'", 9), &paths), kord::Status::kBadArgument);
  ASSERT_EQ(kord::query("@a@='x'", &paths), kord::Status::kOk);
  EXPECT_THAT(paths, ElementsAre(at("p1/a.mp4")));
}

}  // namespace
}  // namespace zibd::test
