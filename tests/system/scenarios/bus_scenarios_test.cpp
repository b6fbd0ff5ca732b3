// The bus broker failing under zibd: killed and started again, stopped (SIGSTOP).
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

// The broker dies while a profiler runs: the partition goes (watches, scan, profiler) and zibd waits idle. A new
// broker with the same model finds zibd connected again, the storage chosen and the reference taken again, and
// indexing going on. Then the broker is stopped: a new file is indexed all the same, and SIGTERM is not held up.
TEST(BusScenarioTest, ABrokerKilledStartedAgainAndStoppedHoldsZibdUpForNoMoreThanItsDeadlines) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
gw_put $m/old.mp3
# new.mp3's batch hangs until /tmp/let-go exists (view links are named ID-NAME).
gw_profiler /tmp/profile /tmp/profiler.log '[ -e /tmp/let-go ] || ! ls "${!#}" | grep -q -- "-new\.mp3$" || { echo $$ >/tmp/profiler.pid; exec sleep 1000; }'
gw_gateway aaaa
gw_up
wait_until 60 gw_profiled $m/old.mp3 && wait_until 30 gw_watches_are 2 || gw_fail "first scan"
gw_put $m/new.mp3
wait_until 30 test -s /tmp/profiler.pid || gw_fail "profiler not started"
kill -KILL $GW_BROKER; wait $GW_BROKER 2>/dev/null; rm "$RILL_SOCKET"
wait_until 30 gw_watches_are 0 && wait_until 30 gw_gone "$(cat /tmp/profiler.pid)" && echo "partition given up"
# Not a wait: the CPU time zibd takes over 3 s of trying to connect.
ticks() { awk '{print $14 + $15}' /proc/$GW_ZIBD/stat; }
t0=$(ticks); sleep 3; echo "cpu ticks over 3 s=$(($(ticks) - t0))"
touch /tmp/let-go
gw_start_broker /tmp/gateway.model
gw_wait_status OK && wait_until 10 gw_refcounts_are 1 1 && echo "storage chosen and reference taken again"
wait_until 30 gw_watches_are 2 && wait_until 60 gw_profiled $m/new.mp3 && echo "watched, pending batch profiled"
gw_put $m/after.mp3
wait_until 60 gw_profiled $m/after.mp3 && echo "a new file profiled"
kill -STOP $GW_BROKER
gw_put $m/frozen.mp3
wait_until 30 gw_profiled $m/frozen.mp3 && echo "profiled while the broker is stopped"
kill -TERM $GW_ZIBD
wait_until 5 gw_gone $GW_ZIBD && echo "ended within 5 s"
gw_stop_zibd
kill -CONT $GW_BROKER
)sh");
  expectStory(r, {"partition given up\n", "storage chosen and reference taken again\nwatched, pending batch profiled\n",
                  "a new file profiled\nprofiled while the broker is stopped\nended within 5 s\nzibd exit=0\n"});
  // A busy loop would show about 300 ticks; the loops' few passes may just reach a tick.
  EXPECT_THAT(r.out, ::testing::ContainsRegex("cpu ticks over 3 s=[0-2]\n"));
}

}  // namespace
}  // namespace zibd::test
