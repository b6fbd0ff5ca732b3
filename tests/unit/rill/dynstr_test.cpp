#include <gtest/gtest.h>
#include <stdlib.h>

#include <limits>
#include <memory>
#include <string>

#include "platform/dynstr.h"
#include "platform/rill.h"

namespace {

struct DynstrDeleter {
  void operator()(dynstr_t* s) const { dynstr_free(s); }
};
using Str = std::unique_ptr<dynstr_t, DynstrDeleter>;

Str str(const std::string& text) { return Str(dynstr_fromstring(rill_dynstr_poolid(), text.c_str())); }

TEST(RillDynstrTest, BooleansAcceptTheEightWordsInAnyCase) {
  for (const char* yes : {"1", "true", "TRUE", "Yes", "on", "oN"}) {
    int value = -1;
    EXPECT_EQ(dynstr_getbool(str(yes).get(), &value), 0) << yes;
    EXPECT_EQ(value, 1) << yes;
  }
  for (const char* no : {"0", "false", "No", "OFF"}) {
    int value = -1;
    EXPECT_EQ(dynstr_getbool(str(no).get(), &value), 0) << no;
    EXPECT_EQ(value, 0) << no;
  }
  for (const char* bad : {"", "2", "truex", " true", "y", "enabled", "01"}) {
    int value = 42;
    EXPECT_NE(dynstr_getbool(str(bad).get(), &value), 0) << bad;
    EXPECT_EQ(value, 42) << "untouched on failure: " << bad;
  }
  int value = 0;
  EXPECT_NE(dynstr_getbool(nullptr, &value), 0);
}

TEST(RillDynstrTest, NumbersAreWholeDecimalTexts) {
  long l = 7;
  EXPECT_EQ(dynstr_getlong(str("-42").get(), &l), 0);
  EXPECT_EQ(l, -42);
  EXPECT_EQ(dynstr_getlong(str(std::to_string(std::numeric_limits<long>::max())).get(), &l), 0);
  EXPECT_EQ(l, std::numeric_limits<long>::max());
  unsigned long ul = 7;
  EXPECT_EQ(dynstr_getulong(str("734003200").get(), &ul), 0);
  EXPECT_EQ(ul, 734003200ul);
  EXPECT_EQ(dynstr_getulong(str(std::to_string(std::numeric_limits<unsigned long>::max())).get(), &ul), 0);

  const std::string long_overflow = std::to_string(std::numeric_limits<long>::max()) + "0";
  const std::string ulong_overflow = std::to_string(std::numeric_limits<unsigned long>::max()) + "0";
  for (const std::string& bad : {std::string(""), std::string("12a"), std::string(" 12"), std::string("0x10"),
                                 std::string("+5"), std::string("1.5"), long_overflow}) {
    l = 7;
    EXPECT_NE(dynstr_getlong(str(bad).get(), &l), 0) << bad;
    EXPECT_EQ(l, 7) << bad;
  }
  for (const std::string& bad : {std::string(""), std::string("-1"), std::string("-0"), std::string("5 "),
                                 ulong_overflow}) {
    ul = 7;
    EXPECT_NE(dynstr_getulong(str(bad).get(), &ul), 0) << bad;
    EXPECT_EQ(ul, 7ul) << bad;
  }
  EXPECT_NE(dynstr_getlong(nullptr, &l), 0);
}

TEST(RillDynstrTest, CopiesComparisonsAndNulls) {
  Str up = str("Up");
  EXPECT_STREQ(dynstr_getstring(up.get()), "Up");
  EXPECT_EQ(dynstr_strcmp2(up.get(), "Up"), 0);
  EXPECT_LT(dynstr_strcmp2(up.get(), "Zz"), 0);
  EXPECT_LT(dynstr_strcmp2(nullptr, ""), 0) << "a NULL string sorts below every text";
  char* copy = dynstr_strdup(up.get());
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "Up");
  ::free(copy);
  EXPECT_EQ(dynstr_strdup(nullptr), nullptr);
  EXPECT_EQ(dynstr_getstring(nullptr), nullptr);
  EXPECT_EQ(dynstr_fromstring(rill_dynstr_poolid(), nullptr), nullptr);
  EXPECT_EQ(llist_getlength(nullptr), 0);
  EXPECT_EQ(rill_cmddata_getat(nullptr, 0), nullptr);
}

}  // namespace
