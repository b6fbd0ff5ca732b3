// Scenarios of media files on a running gateway: the life of one partition's
// files (a copied file on its way to profiled, a hundred at once, renames,
// moves and deletes, a forced rescan), index rules that come, change and go,
// and the managed disk's hidden files.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

// The profiler waits until "Profiling" is published, so that a scan's status
// changes are on the bus before its batch ends, and notes the tags of its
// files while /tmp/record-tags exists.
TEST(FileScenarioTest, FilesOfOnePartitionFromCopyToProfiledMovedDeletedAndRescanned) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
gw_put $m/old.mp3; gw_put $m/a/x.mp3; gw_put $m/a/k.mp3; gw_put $m/d/sub/y.mp3; mkdir $m/b $m/music
printf 'mp3:STDAUDIO:/tmp/profile:--audio:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log '
"$RILLCTL" wait VFS.MetaDataService.ProfilingStatus Profiling 600 >/dev/null || echo "not Profiling" >>/tmp/profiler.log
[ ! -e /tmp/record-tags ] ||
  for link in "${!#}"/*; do "$KORDCTL" tags "$(readlink "$link")" | tr "\n" " " >>/tmp/tags-during; done'
gw_gateway aaaa
gw_up
wait_until 60 gw_profiled $m/old.mp3 $m/a/x.mp3 $m/a/k.mp3 $m/d/sub/y.mp3 || gw_fail "first scan"
gw_wait_history VFS.MetaDataService.ProfilingStatus 2 || gw_fail "first scan not Ready"
wait_until 30 gw_watches_are 7 || gw_fail "watches: $(gw_watches)"

# One new file.
: >/tmp/profiler.log
f=$m/music/new.mp3
gw_put /tmp/new.mp3
touch /tmp/record-tags
cp /tmp/new.mp3 $f
wait_until 60 gw_profiled $f || gw_fail "new.mp3 not profiled"
gw_wait_history VFS.MetaDataService.ProfilingStatus 4 || gw_fail "status not back to Ready"
rm /tmp/record-tags
echo "during: $(gw_masked </tmp/tags-during)"
echo "after: $(gw_tags $f | gw_masked)"
[ "$(gw_tag $f .s.mdt)" = "$(gw_mtime $f)" ] && echo "mdt is the file's time"
grep -q "\.s\.hash=$(gw_tag $f .s.hash) " /tmp/tags-during && echo "hash kept"
echo "log: $(sed "s/zibprof\.$GW_ZIBD\./zibprof.PID./" /tmp/profiler.log)"
wait_until 10 grep -q /Media/music "$TOCK_EVENTS"
echo "events: $(gw_events)"
echo "status: $(gw_history VFS.MetaDataService.ProfilingStatus)"

# A hundred at once.
: >/tmp/profiler.log; : >"$TOCK_EVENTS"
for i in $(seq -w 100); do gw_put /tmp/src/song$i.mp3; done
cp /tmp/src/*.mp3 $m/music/
all() { [ "$(gw_count '@.s.mdt@ exists')" = 105 ] && [ "$(gw_pending_count)" = 0 ]; }
wait_until 60 all || gw_fail "not all profiled"
echo "$("$KORDCTL" stats | grep -v filetype | tr '\n' ' ')"
# Each run line: its view (type.batch.run) and how many files it linked.
echo "batches: $(awk '{ print substr($2, index($2, "STDAUDIO")) ":" NF - 4 }' /tmp/profiler.log | tr '\n' ' ')"
echo "files in views: $(gw_runs | tr '; ' '\n\n' | grep -c .)"
echo "distinct: $(gw_runs | tr '; ' '\n\n' | sort -u | grep -c .)"
echo "hashes: $(sqlite3 /var/uuidmount/aaaa/.kord/tagdb "select count(distinct value) from tags where name = '.s.hash'")"
wait_until 10 grep -q /Media/music "$TOCK_EVENTS"
echo "events: $(gw_events)"

# A rename in one directory: the old name is deleted, the new one is new.
: >/tmp/profiler.log
x_hash=$(gw_tag $m/a/x.mp3 .s.hash) y_tags=$(gw_tags $m/d/sub/y.mp3)
mv $m/a/x.mp3 $m/a/z.mp3
wait_until 30 gw_unknown $m/a/x.mp3 && echo "renamed: old name gone"
wait_until 30 gw_profiled $m/a/z.mp3 && echo "renamed: new name profiled"
z_hash=$(gw_tag $m/a/z.mp3 .s.hash)
[ "$z_hash" != "$x_hash" ] && echo "renamed: new hash"

# A move to another watched directory carries the tags at once.
: >"$TOCK_EVENTS"
mv $m/a/z.mp3 $m/b/z.mp3
wait_until 30 gw_known $m/b/z.mp3 && echo "moved: $(gw_tags $m/b/z.mp3 | grep -c "hash=$z_hash")"
gw_unknown $m/a/z.mp3 && echo "moved: old path gone"
wait_until 30 grep -q /Media/a "$TOCK_EVENTS"
echo "moved events: $(gw_events)"

# A directory moved within the tree: its files keep their tags, its
# subdirectory keeps its watch under the new path.
mv $m/d $m/e
wait_until 30 gw_known $m/e/sub/y.mp3 || gw_fail "y.mp3 not moved"
[ "$(gw_tags $m/e/sub/y.mp3)" = "$y_tags" ] && echo "dir moved: tags kept"
gw_unknown $m/d/sub/y.mp3 && echo "dir moved: old path gone"
gw_put $m/e/sub/new.mp3
wait_until 30 gw_profiled $m/e/sub/new.mp3 && echo "dir moved: new file below it profiled"

# Out of every watched tree (same file system): a delete 3 quiet seconds
# later; deletes of a file and of a whole directory.
mkdir /var/outside
mv $m/b/z.mp3 /var/outside/z.mp3
wait_until 30 gw_unknown $m/b/z.mp3 && echo "moved out: gone"
rm $m/a/k.mp3
wait_until 30 gw_unknown $m/a/k.mp3 && echo "deleted: gone"
rm -r $m/e
wait_until 30 gw_unknown $m/e/sub/y.mp3 $m/e/sub/new.mp3 && echo "dir deleted: all gone"
echo "left: $("$KORDCTL" files | grep -c -e /a/ -e /b/ -e /d/ -e /e/)"
echo "profiled again after a move: $(grep -c -e /b/z.mp3 -e /e/sub/y.mp3 /tmp/profiler.log)"

# "ForceRescan": a change the watcher cannot see (a new time, set without
# writing: no close after a write) is found, an entry whose file is gone is
# cleaned up, unchanged files are not profiled again, the flag is reset.
o=$m/old.mp3
o_hash=$(gw_tag $o .s.hash) f_tags=$(gw_tags $f)
touch -c -d '2020-01-02 03:04:05' $o
"$KORDCTL" set $m/ghost.mp3 note left-behind
: >/tmp/profiler.log
"$RILLCTL" set VFS.MetaDataService.ForceRescan 1
gw_wait_history VFS.MetaDataService.ForceRescan 2 || gw_fail "not reset"
echo "ForceRescan: $(gw_history VFS.MetaDataService.ForceRescan)"
rescanned() { [ "$(gw_tag $o .s.mdt)" = "$(gw_mtime $o)" ] && gw_profiled $o; }
wait_until 30 rescanned && echo "new time found"
[ "$(gw_tag $o .s.hash)" = "$o_hash" ] && echo "hash kept"
wait_until 30 gw_unknown $m/ghost.mp3 && echo "ghost cleaned up"
[ "$(gw_tags $f)" = "$f_tags" ] && echo "unchanged file untouched"
echo "runs: $(gw_runs)"
gw_stop_zibd
)sh");
  expectStory(r, {
      // While its profiler ran: type, hash, visibility, pending mark and batch;
      // once profiled the pending tags are gone, the time is there, the hash stays.
      "during: .s.batchidx=0 .s.filetype=STDAUDIO .s.hash=H .s.invisible=0 .s.tbp=1 \n",
      "after: .s.hash=H .s.invisible=0 .s.mdt=T \n", "mdt is the file's time\nhash kept\n",
      // The second run (the first scanned the partition), batch 0 of the type,
      // its argument, then the view with the one file.
      "log: run zibprof.PID.STDAUDIO.0.2 --audio | /var/uuidmount/aaaa/Media/music/new.mp3\n",
      "events: 2 /Media/music|\n", "status: Profiling Ready Profiling Ready \n",
      // The first batch of a type holds 99 files, the next the rest; one run.
      "files 105 .s.tbp 0 \n", "batches: STDAUDIO.0.3:99 STDAUDIO.1.3:1 \n", "files in views: 100\ndistinct: 100\n",
      "hashes: 105\n", "events: 2 /Media/music|\n",
      "renamed: old name gone\nrenamed: new name profiled\nrenamed: new hash\n", "moved: 1\nmoved: old path gone\n",
      // Both directories hear of the move at once: the new one first.
      "moved events: 2 /Media/b|2 /Media/a|\n",
      "dir moved: tags kept\ndir moved: old path gone\ndir moved: new file below it profiled\n",
      "moved out: gone\ndeleted: gone\ndir deleted: all gone\nleft: 0\nprofiled again after a move: 0\n",
      "ForceRescan: 1 0 \n", "new time found\nhash kept\nghost cleaned up\nunchanged file untouched\n",
      "runs: /var/uuidmount/aaaa/Media/old.mp3;\n", "zibd exit=0\n"});
}

// Rule 1 offers the partition's Media directory for movies only; a rule for
// Extra comes later, is disabled and enabled again; rule 1 gains music and
// then goes. Files of a category that no enabled rule offers leave the tag
// store through the cleanup that each rule change queues.
TEST(FileScenarioTest, IndexRulesAddedChangedAndRemovedDecideWhatIsTagged) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
p=/var/uuidmount/aaaa
gw_put $p/Media/film.mkv; gw_put $p/Media/song.mp3; gw_put $p/Extra/clip.mkv; gw_put $p/Extra/tune.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\nmkv:STDVIDEO:/tmp/profile:\n' >/tmp/types.ini
gw_gateway
{ gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 0 0; } >>/tmp/gateway.model
gw_up
known() { local f out=""; for f in film.mkv song.mp3 clip.mkv tune.mp3; do gw_known $p/*/$f && out+="$f "; done; echo "$out"; }
wait_until 60 gw_profiled $p/Media/film.mkv || gw_fail "film.mkv not profiled"
echo "start: $(known)"

r2=ContentSharing.UPnPAV.IndexRules.2
"$RILLCTL" add $r2 UUID=aaaa DirectoryName=Extra PartitionName=aaaa EnableMovie=0 EnableMusic=1 EnablePicture=0 Status=Up
wait_until 30 gw_profiled $p/Extra/tune.mp3 || gw_fail "tune.mp3 not profiled"
echo "rule 2 added: $(known)"
tune_hash=$(gw_tag $p/Extra/tune.mp3 .s.hash)

"$RILLCTL" set $r2.Status Down
wait_until 30 gw_unknown $p/Extra/tune.mp3 || gw_fail "tune.mp3 kept"
echo "rule 2 down: $(known)"

"$RILLCTL" set ContentSharing.UPnPAV.IndexRules.1.EnableMusic 1
wait_until 30 gw_profiled $p/Media/song.mp3 || gw_fail "song.mp3 not profiled"
echo "rule 1 music: $(known)"

"$RILLCTL" del ContentSharing.UPnPAV.IndexRules.1
wait_until 30 gw_unknown $p/Media/film.mkv $p/Media/song.mp3 || gw_fail "Media files kept"
echo "rule 1 removed: $(known)"

"$RILLCTL" set $r2.Enable 1
wait_until 30 gw_profiled $p/Extra/tune.mp3 || gw_fail "tune.mp3 not profiled again"
echo "rule 2 enabled: $(known)"
[ "$(gw_tag $p/Extra/tune.mp3 .s.hash)" != "$tune_hash" ] && echo "tagged anew"
gw_stop_zibd
)sh");
  expectStory(r, {"start: film.mkv \n", "rule 2 added: film.mkv tune.mp3 \n", "rule 2 down: film.mkv \n",
                  "rule 1 music: film.mkv song.mp3 \n", "rule 1 removed: \n", "rule 2 enabled: tune.mp3 \n",
                  "tagged anew\n", "zibd exit=0\n"});
}

// Two partitions with Media and other directories, all offered by rules. The
// managed disk shows only its Media directory; moving the flag to the other
// partition hides that one and shows all of the first again.
TEST(FileScenarioTest, ManagedDiskHidesAllButMediaAndTheFlagMoves) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb
files="$a/Media/f.mp3 $a/other/f.mp3 $b/Media/f.mp3 $b/other/f.mp3"
for f in $files; do gw_put $f; done
gw_gateway aaaa:2000 bbbb:1000
{ gw_rule 3 aaaa other 1 1 1; gw_rule 4 bbbb other 1 1 1; } >>/tmp/gateway.model
gw_up
wait_until 60 gw_profiled $files || gw_fail "first scans"
wait_until 30 gw_watches_are 6 || gw_fail "watches: $(gw_watches)"
hidden() {
  local f out=""
  for f in "$@"; do out+="$(gw_tag $f .s.invisible)"; done
  echo "$out"
}
echo "unmanaged: $(hidden $files)"
# The first scans' status has settled once it reads "Ready" again.
"$RILLCTL" wait VFS.MetaDataService.ProfilingStatus Ready 30 >/dev/null || gw_fail "first scans not Ready"
history=$("$RILLCTL" history VFS.MetaDataService.ProfilingStatus | wc -l)

"$RILLCTL" set Storage.Disk.1.Partition.1.Manageddisk 1
is() { [ "$(hidden ${@:2})" = "$1" ]; }
wait_until 30 is 0100 $files || gw_fail "aaaa not hidden"
echo "aaaa managed: $(hidden $files)"
gw_wait_history VFS.MetaDataService.ProfilingStatus $((history + 2))
echo "status: $("$RILLCTL" history VFS.MetaDataService.ProfilingStatus | tail -n +$((history + 1)) | tr '\n' ' ')"

# New files on the managed partition: hidden outside Media; a file moved out
# of Media is hidden at once.
gw_put $a/other/n.mp3; gw_put $a/Media/m.mp3
wait_until 30 gw_profiled $a/other/n.mp3 $a/Media/m.mp3 || gw_fail "new files not profiled"
echo "new: $(hidden $a/other/n.mp3 $a/Media/m.mp3)"
mv $a/Media/m.mp3 $a/other/m.mp3
wait_until 30 is 1 $a/other/m.mp3 || gw_fail "moved file not hidden"
echo "moved out of Media: $(hidden $a/other/m.mp3)"

"$RILLCTL" set Storage.Disk.2.Partition.1.Manageddisk 1
all="$files $a/other/n.mp3 $a/other/m.mp3"
wait_until 30 is 000100 $all || gw_fail "flag did not move"
echo "bbbb managed: $(hidden $all)"
gw_stop_zibd
)sh");
  expectStory(r, {"unmanaged: 0000\n", "aaaa managed: 0100\n", "status: Profiling Ready \n", "new: 10\n",
                  "moved out of Media: 1\n", "bbbb managed: 000100\n", "zibd exit=0\n"});
}

}  // namespace
}  // namespace zibd::test
