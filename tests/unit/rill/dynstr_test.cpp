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

enum Kind { kBool, kLong, kUlong };

// Parses text as kind into a variable that starts at 7; returns the
// variable as text, "fail(7)" when the parse failed and left it alone.
std::string parse(Kind kind, const std::string& text) {
  Str s = str(text);
  int b = 7;
  long l = 7;
  unsigned long ul = 7;
  const int rc = kind == kBool ? dynstr_getbool(s.get(), &b)
                 : kind == kLong ? dynstr_getlong(s.get(), &l)
                                 : dynstr_getulong(s.get(), &ul);
  const std::string value = kind == kBool ? std::to_string(b) : kind == kLong ? std::to_string(l) : std::to_string(ul);
  return rc == 0 ? value : "fail(" + value + ")";
}

TEST(RillDynstrTest, BooleansAndNumbersAreWholeTexts) {
  const std::string long_max = std::to_string(std::numeric_limits<long>::max());
  const std::string ulong_max = std::to_string(std::numeric_limits<unsigned long>::max());
  struct Case {
    Kind kind;
    std::string text, result;
  };
  std::vector<Case> cases = {
      {kLong, "-42", "-42"}, {kLong, long_max, long_max}, {kUlong, "734003200", "734003200"},
      {kUlong, ulong_max, ulong_max}, {kLong, long_max + "0", "fail(7)"}, {kUlong, ulong_max + "0", "fail(7)"},
      {kUlong, "-1", "fail(7)"}, {kUlong, "-0", "fail(7)"}, {kUlong, "5 ", "fail(7)"}, {kUlong, "", "fail(7)"}};
  for (const char* yes : {"1", "true", "TRUE", "Yes", "on", "oN"}) cases.push_back({kBool, yes, "1"});
  for (const char* no : {"0", "false", "No", "OFF"}) cases.push_back({kBool, no, "0"});
  for (const char* bad : {"", "2", "truex", " true", "y", "enabled", "01"}) cases.push_back({kBool, bad, "fail(7)"});
  for (const char* bad : {"", "12a", " 12", "0x10", "+5", "1.5"}) cases.push_back({kLong, bad, "fail(7)"});
  for (const Case& c : cases) EXPECT_EQ(parse(c.kind, c.text), c.result) << c.kind << " '" << c.text << "'";

  int b = 0;
  long l = 0;
  EXPECT_NE(dynstr_getbool(nullptr, &b), 0);
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
