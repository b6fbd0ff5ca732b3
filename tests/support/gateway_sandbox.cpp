#include "tests/support/gateway_sandbox.h"

#include <cstdlib>
#include <stdexcept>

namespace zibd::test {

const char kFakeTimeLibrary[] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketimeMT.so.1";

namespace {

std::string dirName(const std::string& path) { return path.substr(0, path.rfind('/')); }

}  // namespace

Result runInGatewaySandbox(const std::string& script, std::chrono::milliseconds timeout, Env extra) {
  const std::string zibd = binary("zibd"), rilld = binary("rilld"), rillctl = binary("rillctl");
  Env env{{{"ZIBD_SOURCE_DIR", ZIBD_SOURCE_DIR},
           {"ZIBD_PROGRAM", zibd},
           {"RILLD", rilld},
           {"RILLCTL", rillctl},
           {"FAKETIME_LIB", kFakeTimeLibrary},
           {"GATEWAY_LIB", std::string(ZIBD_SOURCE_DIR) + "/tests/support/gateway-lib.sh"},
           {"ZIBD_SANDBOX_KEEP", dirName(zibd) + ":" + dirName(rilld) + ":" + dirName(rillctl)}}};
  // kordctl is absent from a build without SQLite.
  try {
    const std::string kordctl = binary("kordctl");
    env.set["KORDCTL"] = kordctl;
    env.set["ZIBD_SANDBOX_KEEP"] += ":" + dirName(kordctl);
  } catch (const std::runtime_error&) {
  }
  // ASan refuses to start behind the preloaded libfaketime unless told not to check.
  const char* asan = std::getenv("ASAN_OPTIONS");
  env.set["ASAN_OPTIONS"] = std::string(asan ? asan : "") + (asan && *asan ? ":" : "") + "verify_asan_link_order=0";
  env.set.merge(extra.set);
  return run({"/bin/bash", std::string(ZIBD_SOURCE_DIR) + "/scripts/sandbox.sh", "/bin/bash", "-c", script}, env, "",
             timeout);
}

}  // namespace zibd::test
