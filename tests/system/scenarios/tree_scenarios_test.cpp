// Scenarios of whole folders: trees copied or moved in at once, and names
// deleted and replaced within the 3 quiet seconds before a delete is applied.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

// A tree made at once with files in it, and one moved in from a hidden
// directory (which is never watched): every file in them is indexed, and so
// is what is written there later. Then, within the quiet seconds: a file
// deleted and another moved onto its name; a folder deleted and another moved
// onto its name; a file deleted and its folder renamed. The last delete, of
// a marker, settles after all of them. Last, the disk, which holds the
// metadata, is given back: nothing of zibd keeps it from being unmounted.
TEST(TreeScenarioTest, FoldersArriveWholeAndReplacedNamesKeepTheirFiles) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
mkdir -p ${m%/*} && mount -t tmpfs disk1 ${m%/*} || gw_fail "no mount for disk 1"
gw_put $m/x/f.mp3; gw_put $m/y/f.mp3 other; gw_put $m/x/sub/s.mp3; gw_put $m/y/sub/t.mp3
gw_put $m/x/D/g.mp3; gw_put $m/x/D/keep.mp3; gw_put $m/marker.mp3
gw_gateway aaaa
gw_up
wait_until 60 gw_profiled $m/x/f.mp3 $m/y/sub/t.mp3 $m/x/D/keep.mp3 $m/marker.mp3 || gw_fail "first scan"
wait_until 30 gw_watches_are 7 || gw_fail "watches: $(gw_watches)"

mkdir -p $m/n1/n2/n3 && gw_put $m/n1/n2/a.mp3 && gw_put $m/n1/n2/n3/b.mp3
mkdir -p $m/.incoming/t1/t2 && gw_put $m/.incoming/t1/t2/c.mp3 && mv $m/.incoming/t1 $m/t1
wait_until 30 gw_profiled $m/n1/n2/a.mp3 $m/n1/n2/n3/b.mp3 $m/t1/t2/c.mp3 && echo "trees indexed"
gw_put $m/n1/n2/n3/later.mp3; gw_put $m/t1/t2/later.mp3
wait_until 30 gw_profiled $m/n1/n2/n3/later.mp3 $m/t1/t2/later.mp3 && echo "later files in them indexed"

y_hash=$(gw_tag $m/y/f.mp3 .s.hash)
rm $m/x/f.mp3; mv $m/y/f.mp3 $m/x/f.mp3
rm -r $m/x/sub; mv $m/y/sub $m/x/sub
rm $m/x/D/g.mp3; mv $m/x/D $m/x/E
rm $m/marker.mp3
wait_until 30 gw_unknown $m/marker.mp3 || gw_fail "marker kept"
[ "$(gw_tag $m/x/f.mp3 .s.hash)" = "$y_hash" ] && echo "moved file kept in place of the deleted one"
gw_profiled $m/x/sub/t.mp3 && gw_unknown $m/x/sub/s.mp3 && echo "moved folder kept in place of the deleted one"
gw_unknown $m/x/E/g.mp3 $m/x/D/g.mp3 && gw_profiled $m/x/E/keep.mp3 && echo "deleted file gone from the renamed folder"

"$RILLCTL" set Storage.Disk.1.DoUnMount 1
gw_wait_status NoSuitableDisk 30 || gw_fail "metadata disk kept"
wait_until 10 umount ${m%/*} 2>/dev/null && echo "metadata disk given back can be unmounted"
gw_stop_zibd
)sh");
  expectStory(r, {"trees indexed\nlater files in them indexed\n", "moved file kept in place of the deleted one\n",
                  "moved folder kept in place of the deleted one\n", "deleted file gone from the renamed folder\n",
                  "metadata disk given back can be unmounted\n", "zibd exit=0\n"});
}

// Churn across two disks, as a household copies, sorts and clears out: each
// round makes a folder tree on disk 1, renames, moves and deletes in it,
// copies it to disk 2, deletes the copy before last and moves the previous
// tree into the new one, so that scans of ever deeper trees meet the moves.
// Then the same rounds delete the tree moved in before, so that the store
// stops growing. After each phase the tag store knows exactly the media files
// on the disks, all profiled; zibd holds after the third what it held after
// the second, when its caches had grown to the store.
TEST(TreeScenarioTest, ChurnAcrossTwoDisksLeavesTheStoreEqualToTheDisks) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa/Media b=/var/uuidmount/bbbb/Media
mkdir -p $a $b
gw_gateway aaaa bbbb
gw_up
wait_until 30 gw_watches_are 4 || gw_fail "watches: $(gw_watches)"
usage() { echo "$(ls /proc/$GW_ZIBD/fd | wc -l) $(awk '/^VmRSS/ { print $2 }' /proc/$GW_ZIBD/status)"; }
round() {
  local n=$1 d=$a/r$1 i
  mkdir -p $d/s1/s2
  for i in $(seq 1 20); do gw_put $d/s1/f$i.mp3; done
  mv $d/s1/f1.mp3 $d/s1/g1.mp3; mv $d/s1/f2.mp3 $d/s1/s2/; rm $d/s1/f3.mp3
  cp -r $d $b/c$n
  rm -rf $b/c$((n - 2))
  [ ! -d $a/r$((n - 1)) ] || mv $a/r$((n - 1)) $d/older
}
on_disk() { find /var/uuidmount -name '*.mp3' -not -path '*/.*' | sort; }
known() { "$KORDCTL" files /var/uuidmount | sort; }
settled() { [ "$(on_disk)" = "$(known)" ] && [ "$(gw_pending_count)" = 0 ]; }
settle() {
  wait_until 90 settled && "$RILLCTL" wait VFS.MetaDataService.ProfilingStatus Ready 30 >/dev/null && echo "store equals the disks: $(known | wc -l) files, all profiled" ||
    gw_fail "$(diff <(on_disk) <(known) | head -5) pending $(gw_pending_count)"
}
for n in $(seq 1 30); do round $n; done
settle
for n in $(seq 31 60); do round $n && rm -rf $a/r$n/older/older; done
settle
read -r fds0 rss0 <<<"$(usage)"
for n in $(seq 61 90); do round $n && rm -rf $a/r$n/older/older; done
settle
read -r fds rss <<<"$(usage)"
[ "$fds" -eq "$fds0" ] && echo "descriptors as before"
[ $((rss * 10)) -le $((rss0 * 11)) ] || echo "RSS grew: $rss0 -> $rss kB"
gw_stop_zibd
)sh", std::chrono::seconds(240));
  expectStory(r, {"store equals the disks: 608 files, all profiled\n", "store equals the disks: 76 files, all profiled\n",
                  "store equals the disks: 76 files, all profiled\n",
                  "descriptors as before\n", "zibd exit=0\n"});
  // A sanitizer's own bookkeeping (freed memory held in quarantine) grows.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_THAT(r.out, ::testing::Not(::testing::HasSubstr("RSS grew"))) << r.out;
#endif
}

}  // namespace
}  // namespace zibd::test
