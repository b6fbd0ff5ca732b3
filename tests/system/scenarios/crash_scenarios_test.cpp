// Scenarios of zibd stopped at bad moments: SIGTERM while a profiler runs,
// SIGKILL during tagging again and again.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// The profiler of the first boot hangs; SIGTERM kills it, zibd ends at once
// with status 0 and gives its disk reference back, the batch stays pending,
// and the next boot profiles it.
TEST(CrashScenarioTest, SigtermDuringAProfilerRunLeavesTheBatchForTheNextBoot) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
gw_put $m/p1.mp3; gw_put $m/p2.mp3
gw_profiler /tmp/profile /tmp/profiler.log '[ -e /tmp/let-go ] || { echo $$ >/tmp/profiler.pid; exec sleep 1000; }'
gw_gateway aaaa
gw_up
wait_until 60 test -s /tmp/profiler.pid || gw_fail "profiler not started"
profiler=$(cat /tmp/profiler.pid)
echo "running: $(gw_pending_count) pending"
gw_stop_zibd TERM
gw_gone "$profiler" && echo "profiler killed"
echo "pending after: $(gw_tags $m/p1.mp3 | gw_masked)"
wait_until 10 gw_refcounts_are 0 1 && echo "reference given back"

touch /tmp/let-go
gw_start_zibd /tmp/types.ini
wait_until 60 gw_profiled $m/p1.mp3 $m/p2.mp3 && echo "profiled after the restart"
echo "runs: $(gw_runs)"
gw_stop_zibd
)sh");
  expectStory(r, {"running: 2 pending\nzibd exit=0\nprofiler killed\n",
                  "pending after: .s.batchidx=0 .s.filetype=STDAUDIO .s.hash=H .s.invisible=0 .s.tbp=1 \n",
                  "reference given back\nprofiled after the restart\n",
                  "runs: /var/uuidmount/aaaa/Media/p1.mp3 /var/uuidmount/aaaa/Media/p2.mp3;\n", "zibd exit=0\n"});
}

// Three times zibd is killed (SIGKILL) while it tags files; before each boot
// 2,000 new files arrive, so that every walk has as much to tag whatever the
// kills before it left done. After each kill the database is sound (SQLite's
// integrity check, kordctl reads it). A last, clean run tags and profiles all.
TEST(CrashScenarioTest, SigkillDuringTaggingLeavesASoundDatabaseThatACleanRunCompletes) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
gw_gateway aaaa
gw_start_broker /tmp/gateway.model
db=/var/uuidmount/aaaa/.kord/tagdb
known_files() { "$KORDCTL" stats 2>/dev/null | sed -n 's/^files //p'; }
# zibd stopped (SIGSTOP), so that what is seen is what it does, while its
# walk has one of the new directories open to tag the files in it (the tag
# database open too: the walk that adds the watches comes before it). The walk
# takes some tens of milliseconds, so the look forks nothing but readlink,
# and it starts with zibd: the walk can end before its status could be read.
caught() {
  kill -STOP $GW_ZIBD
  local fd link tagging=""
  dir=""
  for fd in /proc/$GW_ZIBD/fd/*; do
    if [ "$fd" -ef "$db" ]; then
      tagging=1
    elif [ -d "$fd" ]; then
      link=$(readlink "$fd") && [[ $link == "$m"/c*/d* ]] && dir=$link
    fi
  done
  [ -n "$tagging" ] && [ -n "$dir" ] && return
  kill -CONT $GW_ZIBD
  return 1
}
: >/tmp/profiler.log
for cycle in 1 2 3; do
  for d in $(seq -w 20); do mkdir -p $m/c$cycle/d$d; for f in $(seq -w 100); do printf "$d$f" >$m/c$cycle/d$d/f$f.mp3; done; done
  gw_start_zibd /tmp/types.ini
  WAIT_STEP=0.002 wait_until 60 caught
  kill -KILL $GW_ZIBD; wait $GW_ZIBD 2>/dev/null; GW_ZIBD=
  echo "cycle $cycle: killed while tagging ${dir#$m/}; $(wc -l </tmp/profiler.log) profiler runs; $(known_files) files known"
  echo "cycle $cycle: $(sqlite3 "$db" 'PRAGMA integrity_check') $("$KORDCTL" stats >/dev/null && echo readable)"
done
gw_start_zibd /tmp/types.ini
all_done() { [ "$(known_files)" = 6000 ] && [ "$(gw_pending_count)" = 0 ]; }
wait_until 120 all_done && echo "clean run: every file known, none pending"
echo "with a time: $("$KORDCTL" query "@.s.mdt@ exists" | grep -c '\.mp3$')"
echo "integrity: $(sqlite3 "$db" 'PRAGMA integrity_check')"
gw_stop_zibd
)sh",
                               std::chrono::seconds(240));
  expectStory(r, {"clean run: every file known, none pending\nwith a time: 6000\nintegrity: ok\n", "zibd exit=0\n"});
  for (int cycle = 1; cycle <= 3; ++cycle) {
    const std::string prefix = "cycle " + std::to_string(cycle) + ": ";
    // Killed in the walk; the profilers, which run once the whole tree is
    // tagged, not started.
    EXPECT_THAT(r.out, ContainsRegex(prefix + "killed while tagging c[1-3]/d[0-9]{2}; 0 profiler runs;"));
    EXPECT_THAT(r.out, HasSubstr(prefix + "ok readable\n"));
  }
}

}  // namespace
}  // namespace zibd::test
