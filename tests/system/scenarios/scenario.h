// Runs one system scenario: a bash script that sources the gateway helpers
// (tests/support/gateway-lib.sh) in its own gateway sandbox, so that every
// scenario starts from a fresh /var/uuidmount, /rw, /tmp and /run.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "tests/support/gateway_sandbox.h"

namespace zibd::test {

// Printed last by every scenario, followed by what zibd wrote to standard
// error (it must write nothing).
inline constexpr char kZibdStderr[] = "zibd stderr:\n";

inline Result runScenario(const std::string& body, std::chrono::seconds timeout = std::chrono::seconds(150)) {
  const std::string script = "set -u\n. \"$GATEWAY_LIB\"\ntrap gw_cleanup EXIT\n" + body +
                             "\nprintf '%s' '" + kZibdStderr + "'\ncat /tmp/zibd.err 2>/dev/null\n";
  return runInGatewaySandbox(script, timeout);
}

inline int occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

#define ZIBD_SCENARIO_PREREQUISITES() \
  if (::access(kFakeTimeLibrary, R_OK) != 0) GTEST_SKIP() << "no libfaketime"

// After every scenario: the script ran to its end, no step reported a
// failure, and zibd wrote nothing to standard error.
#define ZIBD_EXPECT_SCENARIO_ENDED(r)                                       \
  do {                                                                      \
    ASSERT_EQ((r).status, 0) << (r).out << (r).err;                         \
    EXPECT_THAT((r).out, ::testing::Not(::testing::HasSubstr("FAILED:"))); \
    EXPECT_THAT((r).out, ::testing::EndsWith(kZibdStderr)) << "zibd wrote to stderr"; \
  } while (0)

}  // namespace zibd::test
