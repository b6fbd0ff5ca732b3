// Scenarios of a profiler that hangs, floods its output and leaves a child behind.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

// The batches of hung.mp3 and late.mp3 hang after 2 MB of output and a child. Files copied meanwhile are tagged at
// once and profiled in the same run (the video in a pass of its own) once the limit (10 minutes, 60 s here) has
// killed the hung batch with its child and marked it; SIGTERM kills the next one with its child. zibd prints nothing.
TEST(ProfilerScenarioTest, AHungProfilerFloodingItsOutputHoldsNothingAndLeavesNoChild) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
gw_put $m/a/hung.mp3; mkdir $m/b
printf 'mp3:STDAUDIO:/tmp/profile:\nmkv:STDVIDEO:/tmp/profile:\n' >/tmp/types.ini  # video's batches come first
gw_profiler /tmp/profile /tmp/profiler.log '! ls "${!#}" | grep -q -e -hung -e -late || {
  sleep 100000 & echo $! >/tmp/child.pid; echo $$ >/tmp/profiler.pid
  yes | head -c 1000000; yes | head -c 1000000 >&2; exec sleep 100000; }'
gw_gateway aaaa
gw_up
hung() { wait_until 60 test -s /tmp/profiler.pid || gw_fail "no hung profiler"; profiler=$(cat /tmp/profiler.pid) child=$(cat /tmp/child.pid); }
hung
wait_until 30 gw_watches_are 4 || gw_fail "watches: $(gw_watches)"
gw_put $m/b/new.mp3; gw_put $m/b/new.mkv
tagged() { gw_tag $m/b/new.mp3 .s.tbp && gw_tag $m/b/new.mkv .s.tbp; } >/dev/null
wait_until 30 tagged && ! gw_gone $profiler && echo "tagged while the profiler hangs"
wait_until 80 gw_profiled $m/a/hung.mp3 && echo "hung batch marked after the limit"
wait_until 10 gw_gone $child && gw_gone $profiler && echo "profiler and child killed"
wait_until 30 gw_profiled $m/b/new.mp3 $m/b/new.mkv && echo "new files profiled"
rm /tmp/profiler.pid
gw_put $m/b/late.mp3
hung
gw_stop_zibd TERM
wait_until 10 gw_gone $child && gw_gone $profiler && echo "SIGTERM: profiler and child killed"
echo "zibd stdout: $(wc -c </tmp/zibd.out) bytes"
)sh");
  expectStory(r, {"tagged while the profiler hangs\nhung batch marked after the limit\nprofiler and child killed\n"
                  "new files profiled\nzibd exit=0\nSIGTERM: profiler and child killed\nzibd stdout: 0 bytes\n"});
}

}  // namespace
}  // namespace zibd::test
