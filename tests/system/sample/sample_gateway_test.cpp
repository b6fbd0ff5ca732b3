// Runs the sample gateway the way the README tells newcomers to: the sandbox,
// the broker with the sample model and zibd in the foreground, stopped with
// Ctrl-C (SIGINT).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/subprocess.h"

namespace zibd::test {
namespace {

using ::testing::HasSubstr;

// Inside the sandbox: start the gateway, look at it, stop zibd as Ctrl-C
// would, and report what the gateway script exited with.
constexpr char kProbe[] = R"sh(
"$ZIBD_SOURCE_DIR"/scripts/sample-gateway.sh >/tmp/gateway.log 2>&1 &
gateway=$!
for _ in $(seq 200); do pgrep -x zibd >/dev/null && break; sleep 0.05; done
RILL_SOCKET=/run/rill.sock "$RILLCTL" get 'Storage.*.Partition.MountPoint'
ls /var/uuidmount/4f2a-91c3/Media/Movies
echo "nice=$(ps -o ni= -C zibd | tr -d ' ')"
pkill -INT -x zibd
wait $gateway
echo "gateway exit=$?"
[ -S /run/rill.sock ] && echo "broker left running"
cat /tmp/gateway.log
)sh";

std::string dirName(const std::string& path) { return path.substr(0, path.rfind('/')); }

// The programs this build made, wherever the build directory lies.
Env gatewayEnv() {
  const std::string zibd = binary("zibd"), rilld = binary("rilld"), rillctl = binary("rillctl");
  Env env{{{"ZIBD_SOURCE_DIR", ZIBD_SOURCE_DIR},
           {"ZIBD_PROGRAM", zibd},
           {"RILLD", rilld},
           {"RILLCTL", rillctl},
           {"ZIBD_SANDBOX_KEEP", dirName(zibd) + ":" + dirName(rilld) + ":" + dirName(rillctl)}}};
  return env;
}

TEST(SampleGatewayTest, RunsZibdOnTheSampleDisksUntilInterrupted) {
  const Result r = run({"/bin/bash", std::string(ZIBD_SOURCE_DIR) + "/scripts/sandbox.sh",
                        "/bin/bash", "-c", kProbe},
                       gatewayEnv(), "", std::chrono::seconds(60));
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/4f2a-91c3"));
  EXPECT_THAT(r.out, HasSubstr("holiday-1.mkv"));
  EXPECT_THAT(r.out, HasSubstr("nice=10"));
  EXPECT_THAT(r.out, HasSubstr("gateway exit=0"));
  EXPECT_THAT(r.out, ::testing::Not(HasSubstr("broker left running")));
  EXPECT_THAT(r.out, HasSubstr("zibd runs in the foreground"));
}

}  // namespace
}  // namespace zibd::test
