// Runs the sample gateway the way the README tells newcomers to: the sandbox,
// the broker with the sample model and zibd in the foreground, stopped with
// Ctrl-C (SIGINT).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/gateway_sandbox.h"

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

TEST(SampleGatewayTest, RunsZibdOnTheSampleDisksUntilInterrupted) {
  const Result r = runInGatewaySandbox(kProbe, std::chrono::seconds(60));
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
