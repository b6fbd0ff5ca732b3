// Runs a test's shell script inside the private gateway sandbox
// (scripts/sandbox.sh) with the programs this build made, wherever the build
// directory lies.
#pragma once

#include <chrono>
#include <string>

#include "tests/support/subprocess.h"

namespace zibd::test {

// libfaketime's multi-threaded library, which system tests preload (with
// NO_FAKE_STAT=1 FAKETIME="+0 x10") to speed zibd's clock.
extern const char kFakeTimeLibrary[];

// Runs `bash -c script` in a new sandbox. The script finds ZIBD_SOURCE_DIR,
// ZIBD_PROGRAM, RILLD, RILLCTL, KORDCTL (when built), FAKETIME_LIB and
// GATEWAY_LIB (tests/support/gateway-lib.sh, shell helpers to source) in its
// environment, besides `extra`; the sandbox keeps the programs' directories
// visible.
Result runInGatewaySandbox(const std::string& script, std::chrono::milliseconds timeout, Env extra = {});

}  // namespace zibd::test
