// Scenarios of zibd stopped or left alone at bad moments: SIGTERM while a
// profiler runs, SIGKILL during tagging again and again, and the bus broker
// dying under it. Each runs the real zibd, rilld, kordctl and profiler
// scripts in its own gateway sandbox.
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
mkdir -p $m
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 1 1; } >/tmp/gateway.model
printf 1 >$m/p1.mp3; printf 2 >$m/p2.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log '[ -e /tmp/let-go ] || { echo $$ >/tmp/profiler.pid; exec sleep 1000; }'
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_for 60 test -s /tmp/profiler.pid || gw_fail "profiler not started"
profiler=$(cat /tmp/profiler.pid)
echo "running: $(gw_pending_count) pending"
gw_stop_zibd TERM
gw_gone "$profiler" && echo "profiler killed"
echo "pending after: $(gw_tags $m/p1.mp3)"
echo "refcount=$("$RILLCTL" refcount Storage.Disk.1)"

touch /tmp/let-go
gw_start_zibd /tmp/types.ini
gw_wait_for 60 gw_profiled $m/p1.mp3 $m/p2.mp3 && echo "profiled after the restart"
echo "runs: $(gw_runs)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("running: 2 pending\n"));
  EXPECT_THAT(r.out, HasSubstr("running: 2 pending\nzibd exit=0\nprofiler killed\n"));
  EXPECT_THAT(r.out, ContainsRegex("pending after: \\.s\\.batchidx=0 \\.s\\.filetype=STDAUDIO \\.s\\.hash=[0-9a-f]{16} "
                                   "\\.s\\.invisible=0 \\.s\\.tbp=1 \n"));
  EXPECT_THAT(r.out, HasSubstr("refcount=0\n"));
  EXPECT_THAT(r.out, HasSubstr("profiled after the restart\n"));
  EXPECT_THAT(r.out, HasSubstr("runs: /var/uuidmount/aaaa/Media/p1.mp3 /var/uuidmount/aaaa/Media/p2.mp3;\n"));
  EXPECT_EQ(occurrences(r.out, "zibd exit=0\n"), 2) << r.out;
}

// 1,000 files in ten directories. Five times zibd is killed (SIGKILL) while
// it tags them, each time a directory further on; after each kill the
// database is sound
// (SQLite's integrity check, kordctl reads it). A sixth, clean run tags and
// profiles every file.
TEST(CrashScenarioTest, SigkillDuringTaggingFiveTimesLeavesASoundDatabaseThatACleanRunCompletes) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 1 1; } >/tmp/gateway.model
# Enough files that the walk is still tagging when the test looks.
for d in $(seq -w 40); do mkdir -p $m/d$d; for f in $(seq -w 100); do printf "$d$f" >$m/d$d/f$f.mp3; done; done
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
db=/var/uuidmount/aaaa/.kord/tagdb
known_files() { "$KORDCTL" stats 2>/dev/null | sed -n 's/^files //p'; }
# The directory the scanner's walk has open while it tags the files in it.
walking() {
  local target
  target=$(find /proc/$GW_ZIBD/fd -lname "$m/d*" -printf '%l' -quit 2>/dev/null) && [ -n "$target" ] &&
    echo "${target#$m/}"
}
: >/tmp/profiler.log
for cycle in 1 2 3 4 5; do
  gw_start_zibd /tmp/types.ini
  gw_wait_history VFS.MetaDataService.MetaDataStorageStatus $cycle || gw_fail "cycle $cycle: no storage"
  # Look at zibd stopped (SIGSTOP), so that what is seen is what it does,
  # until its walk is in one of the media directories; kill it there, stopped.
  dir="" tries=0
  while [ $((tries += 1)) -lt 2000 ]; do
    kill -STOP $GW_ZIBD
    dir=$(walking) && break
    kill -CONT $GW_ZIBD
    sleep 0.005
  done
  kill -KILL $GW_ZIBD; wait $GW_ZIBD 2>/dev/null; GW_ZIBD=
  echo "cycle $cycle: killed while tagging $dir; $(wc -l </tmp/profiler.log) profiler runs; $(known_files) files known"
  echo "cycle $cycle: $(sqlite3 "$db" 'PRAGMA integrity_check') $("$KORDCTL" stats >/dev/null && echo readable)"
done
gw_start_zibd /tmp/types.ini
all_done() { [ "$(known_files)" = 4000 ] && [ "$(gw_pending_count)" = 0 ]; }
gw_wait_for 120 all_done && echo "clean run: every file known, none pending"
echo "with a time: $("$KORDCTL" query "@.s.mdt@ exists" | grep -c '\.mp3$')"
echo "integrity: $(sqlite3 "$db" 'PRAGMA integrity_check')"
gw_stop_zibd
)sh",
                               std::chrono::seconds(240));
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  for (int cycle = 1; cycle <= 5; ++cycle) {
    const std::string prefix = "cycle " + std::to_string(cycle) + ": ";
    // Killed in the walk of a directory; the profilers, which run once the
    // whole tree is tagged, not started.
    EXPECT_THAT(r.out, ContainsRegex(prefix + "killed while tagging d[0-9]{2}; 0 profiler runs;"));
    EXPECT_THAT(r.out, HasSubstr(prefix + "ok readable\n"));
  }
  EXPECT_THAT(r.out, HasSubstr("clean run: every file known, none pending\n"));
  EXPECT_THAT(r.out, HasSubstr("with a time: 4000\n"));
  EXPECT_THAT(r.out, HasSubstr("integrity: ok\n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

// The broker dies while a profiler runs. The bus thread ends and gives up
// every partition (its watches go, its scan is stopped and the profiler
// killed); the other threads keep running and talking to a bus thread that is
// gone; what was tagged stays readable; SIGTERM still ends zibd with 0.
TEST(CrashScenarioTest, BrokerDyingLeavesZibdRunningAndStoppable) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
mkdir -p $m
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 1 1; } >/tmp/gateway.model
printf o >$m/old.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
# The profiler of new.mp3's batch hangs (view links are named ID-NAME).
gw_profiler /tmp/profile /tmp/profiler.log '! ls "${!#}" | grep -q -- "-new\.mp3$" || { echo $$ >/tmp/profiler.pid; exec sleep 1000; }'
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_for 60 gw_profiled $m/old.mp3 || gw_fail "first scan"
gw_wait_for 30 gw_watches_are 2 || gw_fail "watches: $(gw_watches)"
threads() { ls /proc/$GW_ZIBD/task | wc -l; }
before=$(threads)
printf n >$m/new.mp3
gw_wait_for 30 test -s /tmp/profiler.pid || gw_fail "profiler not started"
profiler=$(cat /tmp/profiler.pid)

kill -KILL $GW_BROKER; wait $GW_BROKER 2>/dev/null; GW_BROKER=
fewer() { [ "$(threads)" -lt "$before" ]; }
gw_wait_for 30 fewer && echo "bus thread ended"
gw_wait_for 30 gw_watches_are 0 && echo "partition given up: no watches"
gw_wait_for 30 gw_gone "$profiler" && echo "its profiler killed"
gw_tag $m/new.mp3 .s.tbp >/dev/null && echo "batch left pending"
gw_profiled $m/old.mp3 && echo "tags readable"
gw_gone $GW_ZIBD || echo "zibd alive"
gw_stop_zibd TERM
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("bus thread ended\npartition given up: no watches\nits profiler killed\n"));
  EXPECT_THAT(r.out, HasSubstr("batch left pending\ntags readable\nzibd alive\nzibd exit=0\n"));
}

}  // namespace
}  // namespace zibd::test
