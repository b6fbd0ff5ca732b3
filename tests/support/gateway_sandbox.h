#pragma once

#include <chrono>
#include <string>

#include "tests/support/subprocess.h"

namespace zibd::test {

// libfaketime, preloaded by system tests to speed zibd's clock.
extern const char kFakeTimeLibrary[];

// Runs `bash -c script` in a new gateway sandbox (scripts/sandbox.sh). Its
// environment holds `extra`, ZIBD_SOURCE_DIR, ZIBD_PROGRAM, RILLD, RILLCTL,
// KORDCTL (when built), FAKETIME_LIB and GATEWAY_LIB (tests/support/gateway-lib.sh).
Result runInGatewaySandbox(const std::string& script, std::chrono::milliseconds timeout, Env extra = {});

}  // namespace zibd::test
