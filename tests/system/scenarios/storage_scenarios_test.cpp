// Scenarios of the gateway's disks: the first choice of the metadata storage,
// the scans of every partition and the choice remembered after a restart; a
// disk arriving and one given back, the metadata disk unplugged and a new
// choice after the disks have settled.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

// aaaa on a small disk, bbbb and cccc (too little free space to hold the
// metadata) on the larger one; aaaa also has a directory no rule covers. The
// first boot chooses bbbb. The gateway restarts (bus and /tmp anew, /rw
// kept) with a database file on aaaa too, which the walk meets first: the
// remembered location wins, the database is reused, and what changed while
// zibd was down is caught up.
TEST(StorageScenarioTest, FirstChoiceScansEveryPartitionAndIsRememberedAfterARestart) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb
for u in aaaa bbbb cccc; do gw_put /var/uuidmount/$u/Media/$u.mp3; done
gw_put $a/Media/gone.mp3; gw_put $a/other/o.mp3
gw_gateway aaaa:1000 bbbb:2000:307200
{ printf '%s\n' Storage.Disk.2.Partition.2.MountPoint=/var/uuidmount/cccc Storage.Disk.2.Partition.2.Status=1 \
    Storage.Disk.2.Partition.2.FreeSpaceInKBytes=102400 Storage.Disk.2.Partition.2.ReadOnly=0
  gw_rule 3 cccc Media 1 1 1; } >>/tmp/gateway.model
gw_up
echo "first boot: $(gw_storage $b)"
wait_until 60 gw_profiled /var/uuidmount/*/Media/*.mp3 && echo "every partition profiled"
echo "databases: $(cd /var/uuidmount && ls -d */.kord/tagdb | tr '\n' ' ')"
gw_unknown $a/other/o.mp3 && echo "no rule, no tags"
echo "runs: $(gw_runs)"
wait_until 10 gw_refcounts_are "1 1" 1 2; echo "refcounts: $(gw_refcounts 1 2)"
wait_until 30 gw_watches_are 7 && echo "every partition watched"
echo "statuses: $(gw_history VFS.MetaDataService.MetaDataStorageStatus)"
before_a=$(gw_tags $a/Media/aaaa.mp3) b_hash=$(gw_tag $b/Media/bbbb.mp3 .s.hash)
gw_stop_zibd
wait_until 10 gw_refcounts_are "0 0" 1 2; echo "refcounts after: $(gw_refcounts 1 2)"
gw_stop_broker

# While the gateway is off: a file deleted, one added, one rewritten; a
# database file appears on aaaa; /tmp is wiped.
rm $a/Media/gone.mp3; gw_put $a/Media/new.mp3; printf 'bb' >$b/Media/bbbb.mp3; touch -d '2021-02-03 04:05:06' $b/Media/bbbb.mp3
mkdir $a/.kord; touch $a/.kord/tagdb
rm /tmp/.kord/kord.ini; : >/tmp/profiler.log
gw_up
echo "second boot: $(gw_storage $b)"
wait_until 60 gw_profiled $a/Media/new.mp3 $b/Media/bbbb.mp3 && echo "new and rewritten files profiled"
wait_until 30 gw_unknown $a/Media/gone.mp3 && echo "deleted file cleaned up"
[ "$(gw_tags $a/Media/aaaa.mp3)" = "$before_a" ] && echo "unchanged file untouched"
[ "$(gw_tag $b/Media/bbbb.mp3 .s.hash)" = "$b_hash" ] && echo "rewritten file keeps its hash"
[ "$(gw_tag $b/Media/bbbb.mp3 .s.mdt)" = "$(gw_mtime $b/Media/bbbb.mp3)" ] && echo "rewritten file has its new time"
echo "runs: $(gw_runs)"
gw_stop_zibd
)sh");
  const std::string bbbb = "location=/var/uuidmount/bbbb ini=dms-metadata-db-N:/var/uuidmount:/var/uuidmount/bbbb/.kord/tagdb|";
  expectStory(r, {"first boot: " + bbbb, "every partition profiled\ndatabases: bbbb/.kord/tagdb \n",
                  "no rule, no tags\n",
                  // One scan, so one profiler run, per partition.
                  "runs: /var/uuidmount/aaaa/Media/aaaa.mp3 /var/uuidmount/aaaa/Media/gone.mp3;"
                  "/var/uuidmount/bbbb/Media/bbbb.mp3;/var/uuidmount/cccc/Media/cccc.mp3;\n",
                  "refcounts: 1 1\n", "every partition watched\n", "statuses: OK \n", "zibd exit=0\n",
                  "refcounts after: 0 0\n", "second boot: " + bbbb,
                  "new and rewritten files profiled\ndeleted file cleaned up\n",
                  "unchanged file untouched\nrewritten file keeps its hash\nrewritten file has its new time\n",
                  "runs: /var/uuidmount/aaaa/Media/new.mp3;/var/uuidmount/bbbb/Media/bbbb.mp3;\n", "zibd exit=0\n"});
}

// A third, larger disk arrives after the choice: it is scanned and watched
// but does not take the metadata over; its unmount request gives it back and
// its files leave the tag store. Then the disk holding the metadata is
// unplugged: the choice is withdrawn at once and made again from what remains
// once the disks have settled (30 seconds of zibd's clock, 3 s here); the new
// database holds the remaining partition's files, scanned again.
TEST(StorageScenarioTest, DisksArriveAreGivenBackAndTheMetadataDiskIsUnplugged) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb c=/var/uuidmount/cccc
gw_put $a/Media/a.mp3; gw_put $b/Media/b.mp3; gw_put $c/Media/c.mp3
gw_gateway aaaa:2000 bbbb:1000
gw_rule 3 cccc Media 1 1 1 >>/tmp/gateway.model
gw_up
echo "first: $(gw_storage $a)"
wait_until 60 gw_profiled $a/Media/a.mp3 $b/Media/b.mp3 || gw_fail "first scans"
wait_until 30 gw_watches_are 4 || gw_fail "watches: $(gw_watches)"

"$RILLCTL" add Storage.Disk.3 CapacityInMBytes=4000 DoUnMount=0
"$RILLCTL" add Storage.Disk.3.Partition.1 MountPoint=$c Status=1 FreeSpaceInKBytes=4194304 ReadOnly=0 Manageddisk=0
wait_until 30 gw_watches_are 6 && echo "new partition watched"
wait_until 30 gw_profiled $c/Media/c.mp3 && echo "new partition scanned"
wait_until 10 gw_refcounts_are 1 3 && echo "new disk referenced"
gw_put $c/Media/n.mp3
wait_until 30 gw_profiled $c/Media/n.mp3 && echo "new file on it profiled"
wait_until 10 grep -q "^var/uuidmount/cccc	2	/Media$" "$TOCK_EVENTS" && echo "its own change events"
echo "kept: $(gw_storage $a)"

"$RILLCTL" set Storage.Disk.3.DoUnMount 1
wait_until 30 gw_watches_are 4 && echo "unmounted: watches gone"
wait_until 10 gw_refcounts_are 0 3 && echo "unmounted: reference given back"
wait_until 30 gw_unknown $c/Media/c.mp3 $c/Media/n.mp3 && echo "unmounted: files gone"
gw_known $a/Media/a.mp3 && echo "other disks' files kept"

: >/tmp/profiler.log
start=$(date +%s%N)
"$RILLCTL" del Storage.Disk.1
gw_wait_status NoSuitableDisk 30 && echo "lost"
emptied() { [ -e /tmp/.kord/kord.ini ] && [ ! -s /tmp/.kord/kord.ini ]; }
wait_until 10 emptied && echo "configuration emptied, location kept=$(cat /rw/zib_metadata_location)|"
gw_wait_status OK && echo "chosen again"
elapsed=$((($(date +%s%N) - start) / 1000000))
echo "new: $(gw_storage $b)"
# The settle is 3 s of real time; a choice at once would show far less.
[ "$elapsed" -ge 2500 ] && echo "not before the settle"
wait_until 30 gw_profiled $b/Media/b.mp3 && echo "remaining partition scanned into the new database"
gw_unknown $a/Media/a.mp3 && echo "unplugged disk's files not in it"
echo "runs: $(gw_runs)"
wait_until 30 gw_watches_are 2 && echo "unplugged partition not watched"
echo "statuses: $(gw_history VFS.MetaDataService.MetaDataStorageStatus)"
echo "real ms from unplug to new choice: $elapsed"
gw_stop_zibd
)sh");
  const std::string ini = " ini=dms-metadata-db-N:/var/uuidmount:/var/uuidmount/";
  expectStory(r, {"first: location=/var/uuidmount/aaaa" + ini + "aaaa/.kord/tagdb|",
                  "new partition watched\nnew partition scanned\nnew disk referenced\n",
                  "new file on it profiled\nits own change events\n",
                  "kept: location=/var/uuidmount/aaaa" + ini + "aaaa/.kord/tagdb|",
                  "unmounted: watches gone\nunmounted: reference given back\nunmounted: files gone\n",
                  "other disks' files kept\n",
                  "lost\nconfiguration emptied, location kept=/var/uuidmount/aaaa|\nchosen again\n",
                  "new: location=/var/uuidmount/bbbb" + ini + "bbbb/.kord/tagdb|", "not before the settle\n",
                  "remaining partition scanned into the new database\nunplugged disk's files not in it\n",
                  "runs: /var/uuidmount/bbbb/Media/b.mp3;\n", "unplugged partition not watched\n",
                  "statuses: OK NoSuitableDisk OK \n", "zibd exit=0\n"});
}

}  // namespace
}  // namespace zibd::test
