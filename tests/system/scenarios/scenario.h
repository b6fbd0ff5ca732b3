// Runs one system scenario: a bash script that sources the gateway helpers
// (tests/support/gateway-lib.sh) in its own gateway sandbox, so that every
// scenario starts from a fresh /var/uuidmount, /rw, /tmp and /run. The script
// tells its story in lines of output, which the test expects in order.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <initializer_list>
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

// The script ran to its end, no step reported a failure, zibd wrote nothing
// to standard error, and every part is in the output, each after the one
// before it.
inline void expectStory(const Result& r, std::initializer_list<std::string> parts) {
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_THAT(r.out, ::testing::Not(::testing::HasSubstr("FAILED:"))) << r.out;
  EXPECT_THAT(r.out, ::testing::EndsWith(kZibdStderr)) << "zibd wrote to stderr";
  std::size_t at = 0;
  for (const std::string& part : parts) {
    const std::size_t found = r.out.find(part, at);
    ASSERT_TRUE(found != std::string::npos) << "no \"" << part << "\" after character " << at << " of:\n" << r.out;
    at = found + part.size();
  }
}

#define ZIBD_SCENARIO_PREREQUISITES() \
  if (::access(kFakeTimeLibrary, R_OK) != 0) GTEST_SKIP() << "no libfaketime"

}  // namespace zibd::test
