#include <gtest/gtest.h>
#include <stdlib.h>

#include <limits>
#include <memory>

#include "platform/dynstr.h"
#include "platform/rill.h"

namespace {

using Str = std::unique_ptr<dynstr_t, decltype(&dynstr_free)>;
Str str(const std::string& text) { return Str(dynstr_fromstring(rill_dynstr_poolid(), text.c_str()), dynstr_free); }

// Parses text as 'b'ool, 'l'ong or 'u'nsigned long into a variable that starts
// at 7; the variable as text, or "fail(7)" when the parse failed and left it alone.
std::string parse(char kind, const std::string& text) {
  Str s = str(text);
  int b = 7;
  long l = 7;
  unsigned long ul = 7;
  const int rc = kind == 'b' ? dynstr_getbool(s.get(), &b) : kind == 'l' ? dynstr_getlong(s.get(), &l)
                                                                         : dynstr_getulong(s.get(), &ul);
  const std::string value = kind == 'b' ? std::to_string(b) : kind == 'l' ? std::to_string(l) : std::to_string(ul);
  return rc == 0 ? value : "fail(" + value + ")";
}

TEST(RillDynstrTest, BooleansAndNumbersAreWholeTexts) {
  const std::string long_max = std::to_string(std::numeric_limits<long>::max());
  const std::string ulong_max = std::to_string(std::numeric_limits<unsigned long>::max());
  std::vector<std::tuple<char, std::string, std::string>> cases = {
      {'l', "-42", "-42"}, {'l', long_max, long_max}, {'u', "734003200", "734003200"}, {'u', ulong_max, ulong_max},
      {'l', long_max + "0", "fail(7)"}, {'u', ulong_max + "0", "fail(7)"}, {'u', "-1", "fail(7)"},
      {'u', "-0", "fail(7)"}, {'u', "5 ", "fail(7)"}, {'u', "", "fail(7)"}};
  for (const char* yes : {"1", "true", "TRUE", "Yes", "on", "oN"}) cases.push_back({'b', yes, "1"});
  for (const char* no : {"0", "false", "No", "OFF"}) cases.push_back({'b', no, "0"});
  for (const char* bad : {"", "2", "truex", " true", "y", "enabled", "01"}) cases.push_back({'b', bad, "fail(7)"});
  for (const char* bad : {"", "12a", " 12", "0x10", "+5", "1.5"}) cases.push_back({'l', bad, "fail(7)"});
  for (const auto& [kind, text, result] : cases) EXPECT_EQ(parse(kind, text), result) << kind << " '" << text << "'";
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
  std::unique_ptr<char, decltype(&::free)> copy(dynstr_strdup(up.get()), ::free);
  EXPECT_STREQ(copy.get(), "Up");
  EXPECT_EQ(dynstr_strdup(nullptr), nullptr);
  EXPECT_EQ(dynstr_getstring(nullptr), nullptr);
  EXPECT_EQ(dynstr_fromstring(rill_dynstr_poolid(), nullptr), nullptr);
  EXPECT_EQ(llist_getlength(nullptr), 0);
  EXPECT_EQ(rill_cmddata_getat(nullptr, 0), nullptr);
}

}  // namespace
