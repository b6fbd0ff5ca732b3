#include "watch/format_time.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <string>

namespace zibd {
namespace {

class FormatTimeTest : public ::testing::Test {
 protected:
  void setZone(const char* tz) {
    ::setenv("TZ", tz, 1);
    ::tzset();
  }
  void TearDown() override { setZone("UTC0"); }

  std::string format(std::time_t seconds) {
    char buf[32];
    std::memset(buf, 'z', sizeof buf);
    const std::size_t n = fsFormatTime(seconds, buf, sizeof buf);
    EXPECT_EQ(n, kFsTimeLength);
    EXPECT_EQ(std::strlen(buf), n);
    return buf;
  }
};

TEST_F(FormatTimeTest, WritesLocalTimeAsFourteenDigits) {
  setZone("UTC");
  EXPECT_EQ(format(0), "19700101000000");
  EXPECT_EQ(format(1700000000), "20231114221320");
  // Beyond 2038: the gateway's time_t is 64 bits wide.
  EXPECT_EQ(format(std::time_t{4102444800}), "21000101000000");
  // Two hours east of UTC.
  setZone("XST-2");
  EXPECT_EQ(format(0), "19700101020000");
}

TEST_F(FormatTimeTest, AlwaysTerminatesTheBuffer) {
  setZone("UTC");
  char buf[kFsTimeLength + 1];
  EXPECT_EQ(fsFormatTime(0, buf, sizeof buf), kFsTimeLength);
  EXPECT_STREQ(buf, "19700101000000");

  char small[kFsTimeLength];
  std::memset(small, 'z', sizeof small);
  EXPECT_EQ(fsFormatTime(0, small, sizeof small), 0u);
  EXPECT_EQ(small[sizeof small - 1], '\0');
}

}  // namespace
}  // namespace zibd
