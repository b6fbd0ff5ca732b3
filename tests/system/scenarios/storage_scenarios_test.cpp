// Scenarios of the gateway's disks: the first choice of the metadata storage
// and the scans of every partition, a disk arriving and one given back, the
// metadata disk unplugged, the remembered choice after a restart, and a
// forced rescan. Each runs the real zibd, rilld, kordctl and profiler scripts
// in its own gateway sandbox.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// Four partitions: aaaa on a small disk, bbbb and cccc (only 100 MB free) on
// the largest writable disk, dddd on a larger read-only one. Each has a Media
// directory with a rule and a file; aaaa also a directory no rule covers.
TEST(StorageScenarioTest, FirstChoiceTakesTheLargestSuitableDiskAndEveryPartitionIsScanned) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
{ gw_model; gw_disk 1 aaaa 1000; gw_disk 2 bbbb 2000 307200; gw_disk 3 dddd 5000 1048576 1
  printf '%s\n' Storage.Disk.2.Partition.2.MountPoint=/var/uuidmount/cccc Storage.Disk.2.Partition.2.Status=1 \
    Storage.Disk.2.Partition.2.FreeSpaceInKBytes=102400 Storage.Disk.2.Partition.2.ReadOnly=0
  n=1; for u in aaaa bbbb cccc dddd; do gw_rule $n $u Media 1 1 1; n=$((n + 1)); done
} >/tmp/gateway.model
for u in aaaa bbbb cccc dddd; do mkdir -p /var/uuidmount/$u/Media; printf $u >/var/uuidmount/$u/Media/$u.mp3; done
mkdir /var/uuidmount/aaaa/other; printf o >/var/uuidmount/aaaa/other/o.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_status OK && echo "chosen"
echo "ini=$(cat /tmp/.kord/kord.ini)"
gw_location /var/uuidmount/bbbb
all() { gw_profiled /var/uuidmount/{aaaa,bbbb,cccc,dddd}/Media/*.mp3; }
gw_wait_for 60 all && echo "every partition profiled"
echo "databases: $(cd /var/uuidmount && ls -d */.kord/tagdb | tr '\n' ' ')"
gw_unknown /var/uuidmount/aaaa/other/o.mp3 && echo "no rule, no tags"
echo "runs: $(awk '{ print $NF }' /tmp/profiler.log | sort | tr '\n' ' ')"
echo "refcounts: $(for d in 1 2 3; do "$RILLCTL" refcount Storage.Disk.$d; done | tr '\n' ' ')"
gw_wait_for 30 gw_watches_are 9 && echo "every partition watched"
echo "statuses: $(gw_history VFS.MetaDataService.MetaDataStorageStatus)"
gw_stop_zibd
echo "refcounts after: $(for d in 1 2 3; do "$RILLCTL" refcount Storage.Disk.$d; done | tr '\n' ' ')"
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("chosen\n"));
  EXPECT_THAT(r.out, ContainsRegex("ini=dms-metadata-db-[0-9]+:/var/uuidmount:/var/uuidmount/bbbb/\\.kord/tagdb\n"));
  EXPECT_THAT(r.out, HasSubstr("location=/var/uuidmount/bbbb|"));
  EXPECT_THAT(r.out, HasSubstr("every partition profiled\ndatabases: bbbb/.kord/tagdb \n"));
  EXPECT_THAT(r.out, HasSubstr("no rule, no tags\n"));
  // One scan, so one profiler run, per partition.
  EXPECT_THAT(r.out, HasSubstr("runs: /var/uuidmount/aaaa/Media/aaaa.mp3 /var/uuidmount/bbbb/Media/bbbb.mp3 "
                               "/var/uuidmount/cccc/Media/cccc.mp3 /var/uuidmount/dddd/Media/dddd.mp3 \n"));
  EXPECT_THAT(r.out, HasSubstr("refcounts: 1 1 1 \n"));
  EXPECT_THAT(r.out, HasSubstr("every partition watched\n"));
  EXPECT_THAT(r.out, HasSubstr("statuses: OK \n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
  EXPECT_THAT(r.out, HasSubstr("refcounts after: 0 0 0 \n"));
}

// A second, larger disk arrives after the choice: it is scanned and watched
// but does not take the metadata over; its unmount request gives it back and
// its files leave the tag store.
TEST(StorageScenarioTest, SecondDiskIsScannedAndWatchedAndItsUnmountGivesItBack) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb
mkdir -p $a/Media $b/Media
{ gw_model; gw_disk 1 aaaa 1000; gw_rule 1 aaaa Media 1 1 1; gw_rule 2 bbbb Media 1 1 1; } >/tmp/gateway.model
printf a >$a/Media/a.mp3; printf b >$b/Media/b.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_status OK || gw_fail "no storage chosen"
gw_wait_for 60 gw_profiled $a/Media/a.mp3 || gw_fail "a.mp3 not profiled"
gw_wait_for 30 gw_watches_are 2 || gw_fail "watches: $(gw_watches)"

"$RILLCTL" add Storage.Disk.2 CapacityInMBytes=4000 DoUnMount=0
"$RILLCTL" add Storage.Disk.2.Partition.1 MountPoint=$b Status=1 FreeSpaceInKBytes=4194304 ReadOnly=0 Manageddisk=0
gw_wait_for 30 gw_watches_are 4 && echo "new partition watched"
gw_wait_for 30 gw_profiled $b/Media/b.mp3 && echo "new partition scanned"
echo "refcount=$("$RILLCTL" refcount Storage.Disk.2)"
printf n >$b/Media/n.mp3
gw_wait_for 30 gw_profiled $b/Media/n.mp3 && echo "new file on it profiled"
grep -q "^var/uuidmount/bbbb	2	/Media$" "$TOCK_EVENTS" && echo "its own change events"
gw_location /var/uuidmount/aaaa

"$RILLCTL" set Storage.Disk.2.DoUnMount 1
gw_wait_for 30 gw_watches_are 2 && echo "unmounted: watches gone"
echo "refcount after unmount=$("$RILLCTL" refcount Storage.Disk.2)"
b_gone() { gw_unknown $b/Media/b.mp3 && gw_unknown $b/Media/n.mp3; }
gw_wait_for 30 b_gone && echo "unmounted: files gone"
gw_known $a/Media/a.mp3 && echo "first disk's files kept"
echo "statuses: $(gw_history VFS.MetaDataService.MetaDataStorageStatus)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("new partition watched\nnew partition scanned\nrefcount=1\n"));
  EXPECT_THAT(r.out, HasSubstr("new file on it profiled\nits own change events\n"));
  EXPECT_THAT(r.out, HasSubstr("location=/var/uuidmount/aaaa|"));
  EXPECT_THAT(r.out, HasSubstr("unmounted: watches gone\nrefcount after unmount=0\nunmounted: files gone\n"));
  EXPECT_THAT(r.out, HasSubstr("first disk's files kept\n"));
  EXPECT_THAT(r.out, HasSubstr("statuses: OK \n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

// The disk holding the metadata is unplugged: the choice is withdrawn at
// once and made again from what remains once the disks have settled (30
// seconds of zibd's clock, 3 s here); the new database holds the remaining
// partition's files, scanned again.
TEST(StorageScenarioTest, MetadataDiskUnpluggedAndANewChoiceAfterTheSettle) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb
mkdir -p $a/Media $b/Media
{ gw_model; gw_disk 1 aaaa 2000; gw_disk 2 bbbb 1000; gw_rule 1 aaaa Media 1 1 1; gw_rule 2 bbbb Media 1 1 1; } >/tmp/gateway.model
printf a >$a/Media/a.mp3; printf b >$b/Media/b.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_status OK || gw_fail "no storage chosen"
gw_location /var/uuidmount/aaaa
gw_wait_for 60 gw_profiled $a/Media/a.mp3 $b/Media/b.mp3 || gw_fail "first scans"
: >/tmp/profiler.log

start=$(date +%s%N)
"$RILLCTL" del Storage.Disk.1
gw_wait_status NoSuitableDisk 30 && echo "lost"
echo "ini size=$(stat -c %s /tmp/.kord/kord.ini) location kept=$(cat /rw/zib_metadata_location)|"
gw_wait_status OK && echo "chosen again"
elapsed=$((($(date +%s%N) - start) / 1000000))
gw_location /var/uuidmount/bbbb
echo "ini=$(cat /tmp/.kord/kord.ini)"
# The settle is 3 s of real time; a choice at once would show far less.
[ "$elapsed" -ge 2500 ] && echo "not before the settle"
gw_wait_for 30 gw_profiled $b/Media/b.mp3 && echo "remaining partition scanned into the new database"
gw_unknown $a/Media/a.mp3 && echo "unplugged disk's files not in it"
echo "runs: $(gw_runs)"
gw_wait_for 30 gw_watches_are 2 && echo "unplugged partition not watched"
echo "statuses: $(gw_history VFS.MetaDataService.MetaDataStorageStatus)"
echo "real ms from unplug to new choice: $elapsed"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("location=/var/uuidmount/aaaa|"));
  EXPECT_THAT(r.out, HasSubstr("lost\nini size=0 location kept=/var/uuidmount/aaaa|\nchosen again\n"));
  EXPECT_THAT(r.out, HasSubstr("location=/var/uuidmount/bbbb|\n"));
  EXPECT_THAT(r.out, ContainsRegex("ini=dms-metadata-db-[0-9]+:/var/uuidmount:/var/uuidmount/bbbb/\\.kord/tagdb\n"));
  EXPECT_THAT(r.out, HasSubstr("not before the settle\n"));
  EXPECT_THAT(r.out, HasSubstr("remaining partition scanned into the new database\nunplugged disk's files not in it\n"));
  EXPECT_THAT(r.out, HasSubstr("runs: /var/uuidmount/bbbb/Media/b.mp3;\n"));
  EXPECT_THAT(r.out, HasSubstr("unplugged partition not watched\n"));
  EXPECT_THAT(r.out, HasSubstr("statuses: OK NoSuitableDisk OK \n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

// The first boot chooses bbbb (the larger disk). The gateway restarts (bus
// and /tmp anew, /rw kept) with a database file on aaaa too, which the walk
// meets first: the remembered location wins, the database is reused, and
// what changed while zibd was down is caught up.
TEST(StorageScenarioTest, RememberedLocationIsChosenAgainAfterARestart) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb
mkdir -p $a/Media $b/Media
{ gw_model; gw_disk 1 aaaa 1000; gw_disk 2 bbbb 2000; gw_rule 1 aaaa Media 1 1 1; gw_rule 2 bbbb Media 1 1 1; } >/tmp/gateway.model
printf a >$a/Media/a.mp3; printf g >$a/Media/gone.mp3; printf b >$b/Media/b.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_status OK || gw_fail "no storage chosen"
echo "first boot: $(gw_location /var/uuidmount/bbbb)"
gw_wait_for 60 gw_profiled $a/Media/a.mp3 $a/Media/gone.mp3 $b/Media/b.mp3 || gw_fail "first scans"
before_a=$(gw_tags $a/Media/a.mp3) b_hash=$(gw_tag $b/Media/b.mp3 .s.hash)
gw_stop_zibd
gw_stop_broker

# While the gateway is off: a file deleted, one added, one rewritten; a
# database file appears on aaaa; /tmp is wiped.
rm $a/Media/gone.mp3; printf n >$a/Media/new.mp3; printf 'bb' >$b/Media/b.mp3; touch -d '2021-02-03 04:05:06' $b/Media/b.mp3
mkdir $a/.kord; touch $a/.kord/tagdb
rm /tmp/.kord/kord.ini; : >/tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_status OK || gw_fail "no storage chosen after the restart"
echo "second boot: $(gw_location /var/uuidmount/bbbb)"
echo "ini=$(cat /tmp/.kord/kord.ini)"
gw_wait_for 60 gw_profiled $a/Media/new.mp3 $b/Media/b.mp3 && echo "new and rewritten files profiled"
gw_wait_for 30 gw_unknown $a/Media/gone.mp3 && echo "deleted file cleaned up"
[ "$(gw_tags $a/Media/a.mp3)" = "$before_a" ] && echo "unchanged file untouched"
[ "$(gw_tag $b/Media/b.mp3 .s.hash)" = "$b_hash" ] && echo "rewritten file keeps its hash"
[ "$(gw_tag $b/Media/b.mp3 .s.mdt)" = "$(gw_mtime $b/Media/b.mp3)" ] && echo "rewritten file has its new time"
echo "runs: $(gw_runs | tr ';' '\n' | sort | tr '\n' ';')"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("first boot: location=/var/uuidmount/bbbb|"));
  EXPECT_THAT(r.out, HasSubstr("second boot: location=/var/uuidmount/bbbb|"));
  EXPECT_THAT(r.out, ContainsRegex("ini=dms-metadata-db-[0-9]+:/var/uuidmount:/var/uuidmount/bbbb/\\.kord/tagdb\n"));
  EXPECT_THAT(r.out, HasSubstr("new and rewritten files profiled\ndeleted file cleaned up\n"));
  EXPECT_THAT(r.out, HasSubstr("unchanged file untouched\nrewritten file keeps its hash\n"));
  EXPECT_THAT(r.out, HasSubstr("rewritten file has its new time\n"));
  EXPECT_THAT(r.out, HasSubstr("runs: /var/uuidmount/aaaa/Media/new.mp3;/var/uuidmount/bbbb/Media/b.mp3;\n"));
  EXPECT_EQ(occurrences(r.out, "zibd exit=0\n"), 2) << r.out;
}

// "ForceRescan": a change the watcher cannot see (a new time, set without
// writing) is found, an entry whose file is gone is cleaned up, unchanged
// files are not profiled again, and the flag is reset to "0".
TEST(StorageScenarioTest, ForceRescanFindsWhatTheWatcherMissedAndResetsTheFlag) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
mkdir -p $m
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 1 1; } >/tmp/gateway.model
printf a >$m/a.mp3; printf b >$m/b.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_for 60 gw_profiled $m/a.mp3 $m/b.mp3 || gw_fail "first scan"
a_hash=$(gw_tag $m/a.mp3 .s.hash) b_tags=$(gw_tags $m/b.mp3)
# -c: no open for writing, whose close the watcher would see.
touch -c -d '2020-01-02 03:04:05' $m/a.mp3
"$KORDCTL" set $m/ghost.mp3 note left-behind
: >/tmp/profiler.log

"$RILLCTL" set VFS.MetaDataService.ForceRescan 1
gw_wait_history VFS.MetaDataService.ForceRescan 2 || gw_fail "not reset"
echo "ForceRescan: $(gw_history VFS.MetaDataService.ForceRescan)"
rescanned() { [ "$(gw_tag $m/a.mp3 .s.mdt)" = "$(gw_mtime $m/a.mp3)" ] && gw_profiled $m/a.mp3; }
gw_wait_for 30 rescanned && echo "new time found"
[ "$(gw_tag $m/a.mp3 .s.hash)" = "$a_hash" ] && echo "hash kept"
gw_wait_for 30 gw_unknown $m/ghost.mp3 && echo "ghost cleaned up"
[ "$(gw_tags $m/b.mp3)" = "$b_tags" ] && echo "unchanged file untouched"
echo "runs: $(gw_runs)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("ForceRescan: 1 0 \n"));
  EXPECT_THAT(r.out, HasSubstr("new time found\nhash kept\nghost cleaned up\nunchanged file untouched\n"));
  EXPECT_THAT(r.out, HasSubstr("runs: /var/uuidmount/aaaa/Media/a.mp3;\n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

}  // namespace
}  // namespace zibd::test
