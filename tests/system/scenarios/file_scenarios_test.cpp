// Scenarios of media files on a running gateway: a copied file on its way to
// profiled, a hundred at once, renames, moves and deletes, index rules that
// come, change and go, and the managed disk's hidden files. Each runs the real
// zibd, rilld, kordctl and profiler scripts in its own gateway sandbox.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

// One partition "aaaa" whose Media directory an index rule covers; one file
// already there, whose profiler run waits until "Profiling" is published, so
// that the first scan's status changes are on the bus before the scenario
// goes on.
constexpr char kOnePartition[] = R"sh(
mkdir -p /var/uuidmount/aaaa/Media/music
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 1 1; } >/tmp/gateway.model
printf 'old' >/var/uuidmount/aaaa/Media/old.mp3
printf 'mp3:STDAUDIO:/tmp/profile-audio:--audio:\n' >/tmp/types.ini
gw_profiler /tmp/profile-audio /tmp/profiler.log '
"$RILLCTL" wait VFS.MetaDataService.ProfilingStatus Profiling 600 >/dev/null || echo "not Profiling" >>/tmp/profiler.log
[ ! -e /tmp/record-tags ] ||
  for link in "${!#}"/*; do "$KORDCTL" tags "$(readlink "$link")" | tr "\n" " " >>/tmp/tags-during; done'
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_status OK || gw_fail "no storage chosen"
gw_wait_for 60 gw_profiled /var/uuidmount/aaaa/Media/old.mp3 || gw_fail "old.mp3 not profiled"
gw_wait_history VFS.MetaDataService.ProfilingStatus 2 || gw_fail "first scan not Ready"
gw_wait_for 30 gw_watches_are 3 || gw_fail "watches: $(gw_watches)"
: >/tmp/profiler.log
)sh";

TEST(FileScenarioTest, OneNewFileGoesFromCopyToProfiled) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(std::string(kOnePartition) + R"sh(
f=/var/uuidmount/aaaa/Media/music/new.mp3
printf 'a new song' >/tmp/new.mp3
touch /tmp/record-tags
cp /tmp/new.mp3 "$f"
gw_wait_for 60 gw_profiled "$f" || gw_fail "new.mp3 not profiled"
gw_wait_history VFS.MetaDataService.ProfilingStatus 4 || gw_fail "status not back to Ready"
echo "during: $(cat /tmp/tags-during)"
echo "after: $(gw_tags "$f")"
[ "$(gw_tag "$f" .s.mdt)" = "$(gw_mtime "$f")" ] && echo "mdt is the file's time"
grep -q "\.s\.hash=$(gw_tag "$f" .s.hash) " /tmp/tags-during && echo "hash kept"
echo "log: $(sed "s/zibprof\.$GW_ZIBD\./zibprof.PID./" /tmp/profiler.log)"
echo "events: $(gw_events)"
echo "status: $(gw_history VFS.MetaDataService.ProfilingStatus)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  // While its profiler ran: type, hash, visibility, pending mark and batch.
  EXPECT_THAT(r.out, ContainsRegex("during: \\.s\\.batchidx=0 \\.s\\.filetype=STDAUDIO "
                                   "\\.s\\.hash=[0-9a-f]{16} \\.s\\.invisible=0 \\.s\\.tbp=1 \n"));
  // Profiled: the pending tags are gone, the time is there, the hash stays.
  EXPECT_THAT(r.out, ContainsRegex("after: \\.s\\.hash=[0-9a-f]{16} \\.s\\.invisible=0 \\.s\\.mdt=[0-9]{14} \n"));
  EXPECT_THAT(r.out, HasSubstr("mdt is the file's time\n"));
  EXPECT_THAT(r.out, HasSubstr("hash kept\n"));
  // The second run (the first scanned the partition), batch 0 of the type,
  // its argument, then the view with the one file.
  EXPECT_THAT(r.out,
              HasSubstr("log: run zibprof.PID.STDAUDIO.0.2 --audio | /var/uuidmount/aaaa/Media/music/new.mp3\n"));
  EXPECT_THAT(r.out, HasSubstr("events: 2 /Media/music|\n"));
  EXPECT_THAT(r.out, HasSubstr("status: Profiling Ready Profiling Ready \n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

TEST(FileScenarioTest, AHundredFilesCopiedAtOnceAreProfiledInBatches) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(std::string(kOnePartition) + R"sh(
mkdir /tmp/src
for i in $(seq -w 100); do printf 'song %s' "$i" >/tmp/src/song$i.mp3; done
cp /tmp/src/*.mp3 /var/uuidmount/aaaa/Media/music/
all() { [ "$(gw_count '@.s.mdt@ exists')" = 101 ] && [ "$(gw_pending_count)" = 0 ]; }
gw_wait_for 60 all || gw_fail "not all profiled"
echo "$("$KORDCTL" stats | grep -v filetype | tr '\n' ' ')"
# Each run line: its view (type.batch.run) and how many files it linked.
echo "batches: $(awk '{ print substr($2, index($2, "STDAUDIO")) ":" NF - 4 }' /tmp/profiler.log | tr '\n' ' ')"
echo "files in views: $(gw_runs | tr '; ' '\n\n' | grep -c .)"
echo "distinct: $(gw_runs | tr '; ' '\n\n' | sort -u | grep -c .)"
echo "hashes: $(sqlite3 /var/uuidmount/aaaa/.kord/tagdb "select count(distinct value) from tags where name = '.s.hash'")"
echo "events: $(gw_events)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("files 101 .s.tbp 0 \n"));
  // The first batch of a type holds 99 files, the next the rest; one run.
  EXPECT_THAT(r.out, HasSubstr("batches: STDAUDIO.0.2:99 STDAUDIO.1.2:1 \n"));
  EXPECT_THAT(r.out, HasSubstr("files in views: 100\ndistinct: 100\n"));
  EXPECT_THAT(r.out, HasSubstr("hashes: 101\n"));
  EXPECT_THAT(r.out, HasSubstr("events: 2 /Media/music|\n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

TEST(FileScenarioTest, RenamesMovesAndDeletesReachTheTagStore) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
m=/var/uuidmount/aaaa/Media
mkdir -p $m/a $m/b $m/d/sub /var/outside
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 1 1; } >/tmp/gateway.model
printf x >$m/a/x.mp3; printf k >$m/a/k.mp3; printf y >$m/d/sub/y.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_for 60 gw_profiled $m/a/x.mp3 $m/a/k.mp3 $m/d/sub/y.mp3 || gw_fail "first scan"
gw_wait_for 30 gw_watches_are 6 || gw_fail "watches: $(gw_watches)"
x_hash=$(gw_tag $m/a/x.mp3 .s.hash) y_hash=$(gw_tag $m/d/sub/y.mp3 .s.hash) y_mdt=$(gw_tag $m/d/sub/y.mp3 .s.mdt)

# A rename in one directory: the old name is deleted, the new one is new.
mv $m/a/x.mp3 $m/a/z.mp3
gw_wait_for 30 gw_unknown $m/a/x.mp3 && echo "renamed: old name gone"
gw_wait_for 30 gw_profiled $m/a/z.mp3 && echo "renamed: new name profiled"
z_hash=$(gw_tag $m/a/z.mp3 .s.hash)
[ "$z_hash" != "$x_hash" ] && echo "renamed: new hash"

# A move to another watched directory carries the tags at once.
: >"$TOCK_EVENTS"
mv $m/a/z.mp3 $m/b/z.mp3
gw_wait_for 30 gw_known $m/b/z.mp3 && echo "moved: $(gw_tags $m/b/z.mp3 | grep -c "hash=$z_hash")"
gw_unknown $m/a/z.mp3 && echo "moved: old path gone"
gw_wait_for 30 grep -q /Media/a "$TOCK_EVENTS"
echo "moved events: $(gw_events)"

# A directory moved within the tree: its files keep their tags, its
# subdirectory keeps its watch under the new path.
mv $m/d $m/e
gw_wait_for 30 gw_known $m/e/sub/y.mp3 || gw_fail "y.mp3 not moved"
[ "$(gw_tag $m/e/sub/y.mp3 .s.hash)$(gw_tag $m/e/sub/y.mp3 .s.mdt)" = "$y_hash$y_mdt" ] && echo "dir moved: tags kept"
gw_unknown $m/d/sub/y.mp3 && echo "dir moved: old path gone"
printf new >$m/e/sub/new.mp3
gw_wait_for 30 gw_profiled $m/e/sub/new.mp3 && echo "dir moved: new file below it profiled"

# Out of every watched tree (same file system): a delete 3 quiet seconds
# later; deletes of a file and of a whole directory.
mv $m/b/z.mp3 /var/outside/z.mp3
gw_wait_for 30 gw_unknown $m/b/z.mp3 && echo "moved out: gone"
rm $m/a/k.mp3
gw_wait_for 30 gw_unknown $m/a/k.mp3 && echo "deleted: gone"
rm -r $m/e
all_gone() { gw_unknown $m/e/sub/y.mp3 && gw_unknown $m/e/sub/new.mp3; }
gw_wait_for 30 all_gone && echo "dir deleted: all gone"
echo "left: $("$KORDCTL" files | tr '\n' ' ')"
echo "profiled again after a move: $(grep -c -e /b/z.mp3 -e /e/sub/y.mp3 /tmp/profiler.log)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("renamed: old name gone\nrenamed: new name profiled\nrenamed: new hash\n"));
  EXPECT_THAT(r.out, HasSubstr("moved: 1\nmoved: old path gone\n"));
  // Both directories hear of the move at once: the new one first.
  EXPECT_THAT(r.out, HasSubstr("moved events: 2 /Media/b|2 /Media/a|\n"));
  EXPECT_THAT(r.out, HasSubstr("dir moved: tags kept\ndir moved: old path gone\ndir moved: new file below it profiled\n"));
  EXPECT_THAT(r.out, HasSubstr("moved out: gone\ndeleted: gone\ndir deleted: all gone\n"));
  EXPECT_THAT(r.out, HasSubstr("left: \n"));
  EXPECT_THAT(r.out, HasSubstr("profiled again after a move: 0\n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

// Rule 1 offers the partition's Media directory for movies only; a rule for
// Extra comes later, is disabled and enabled again; rule 1 gains music and
// then goes. Files of a category that no enabled rule offers leave the tag
// store through the cleanup that each rule change queues.
TEST(FileScenarioTest, IndexRulesAddedChangedAndRemovedDecideWhatIsTagged) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
p=/var/uuidmount/aaaa
mkdir -p $p/Media $p/Extra
{ gw_model; gw_disk 1 aaaa; gw_rule 1 aaaa Media 1 0 0; } >/tmp/gateway.model
printf f >$p/Media/film.mkv; printf s >$p/Media/song.mp3; printf c >$p/Extra/clip.mkv; printf t >$p/Extra/tune.mp3
printf 'mp3:STDAUDIO:/tmp/profile:\nmkv:STDVIDEO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
known() { local f out=""; for f in film.mkv song.mp3 clip.mkv tune.mp3; do gw_known $p/*/$f && out+="$f "; done; echo "$out"; }
gw_wait_for 60 gw_profiled $p/Media/film.mkv || gw_fail "film.mkv not profiled"
echo "start: $(known)"

r2=ContentSharing.UPnPAV.IndexRules.2
"$RILLCTL" add $r2 UUID=aaaa DirectoryName=Extra PartitionName=aaaa EnableMovie=0 EnableMusic=1 EnablePicture=0 Status=Up
gw_wait_for 30 gw_profiled $p/Extra/tune.mp3 || gw_fail "tune.mp3 not profiled"
echo "rule 2 added: $(known)"
tune_hash=$(gw_tag $p/Extra/tune.mp3 .s.hash)

"$RILLCTL" set $r2.Status Down
gw_wait_for 30 gw_unknown $p/Extra/tune.mp3 || gw_fail "tune.mp3 kept"
echo "rule 2 down: $(known)"

"$RILLCTL" set ContentSharing.UPnPAV.IndexRules.1.EnableMusic 1
gw_wait_for 30 gw_profiled $p/Media/song.mp3 || gw_fail "song.mp3 not profiled"
echo "rule 1 music: $(known)"

"$RILLCTL" del ContentSharing.UPnPAV.IndexRules.1
media_gone() { gw_unknown $p/Media/film.mkv && gw_unknown $p/Media/song.mp3; }
gw_wait_for 30 media_gone || gw_fail "Media files kept"
echo "rule 1 removed: $(known)"

"$RILLCTL" set $r2.Enable 1
gw_wait_for 30 gw_profiled $p/Extra/tune.mp3 || gw_fail "tune.mp3 not profiled again"
echo "rule 2 enabled: $(known)"
[ "$(gw_tag $p/Extra/tune.mp3 .s.hash)" != "$tune_hash" ] && echo "tagged anew"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("start: film.mkv \n"));
  EXPECT_THAT(r.out, HasSubstr("rule 2 added: film.mkv tune.mp3 \n"));
  EXPECT_THAT(r.out, HasSubstr("rule 2 down: film.mkv \n"));
  EXPECT_THAT(r.out, HasSubstr("rule 1 music: film.mkv song.mp3 \n"));
  EXPECT_THAT(r.out, HasSubstr("rule 1 removed: \n"));
  EXPECT_THAT(r.out, HasSubstr("rule 2 enabled: tune.mp3 \n"));
  EXPECT_THAT(r.out, HasSubstr("tagged anew\n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

// Two partitions with Media and other directories, all offered by rules. The
// managed disk shows only its Media directory; moving the flag to the other
// partition hides that one and shows all of the first again.
TEST(FileScenarioTest, ManagedDiskHidesAllButMediaAndTheFlagMoves) {
  ZIBD_SCENARIO_PREREQUISITES();
  const Result r = runScenario(R"sh(
a=/var/uuidmount/aaaa b=/var/uuidmount/bbbb
mkdir -p $a/Media $a/other $b/Media $b/other
{ gw_model; gw_disk 1 aaaa 2000; gw_disk 2 bbbb 1000
  gw_rule 1 aaaa Media 1 1 1; gw_rule 2 aaaa other 1 1 1; gw_rule 3 bbbb Media 1 1 1; gw_rule 4 bbbb other 1 1 1
} >/tmp/gateway.model
for d in $a/Media $a/other $b/Media $b/other; do printf x >$d/f.mp3; done
printf 'mp3:STDAUDIO:/tmp/profile:\n' >/tmp/types.ini
gw_profiler /tmp/profile /tmp/profiler.log
gw_start_broker /tmp/gateway.model
gw_start_zibd /tmp/types.ini
gw_wait_for 60 gw_profiled $a/Media/f.mp3 $a/other/f.mp3 $b/Media/f.mp3 $b/other/f.mp3 || gw_fail "first scans"
gw_wait_for 30 gw_watches_are 6 || gw_fail "watches: $(gw_watches)"
hidden() {
  local f out=""
  for f in "$@"; do out+="$(gw_tag $f .s.invisible)"; done
  echo "$out"
}
files="$a/Media/f.mp3 $a/other/f.mp3 $b/Media/f.mp3 $b/other/f.mp3"
echo "unmanaged: $(hidden $files)"
# The first scans' status has settled once it reads "Ready" again.
"$RILLCTL" wait VFS.MetaDataService.ProfilingStatus Ready 30 >/dev/null || gw_fail "first scans not Ready"
history=$("$RILLCTL" history VFS.MetaDataService.ProfilingStatus | wc -l)

"$RILLCTL" set Storage.Disk.1.Partition.1.Manageddisk 1
is() { [ "$(hidden $files)" = "$1" ]; }
gw_wait_for 30 is 0100 || gw_fail "aaaa not hidden"
echo "aaaa managed: $(hidden $files)"
gw_wait_history VFS.MetaDataService.ProfilingStatus $((history + 2))
echo "status: $("$RILLCTL" history VFS.MetaDataService.ProfilingStatus | tail -n +$((history + 1)) | tr '\n' ' ')"

# New files on the managed partition: hidden outside Media; a file moved out
# of Media is hidden at once.
printf n >$a/other/n.mp3; printf m >$a/Media/m.mp3
gw_wait_for 30 gw_profiled $a/other/n.mp3 $a/Media/m.mp3 || gw_fail "new files not profiled"
echo "new: $(hidden $a/other/n.mp3 $a/Media/m.mp3)"
mv $a/Media/m.mp3 $a/other/m.mp3
moved_hidden() { [ "$(hidden $a/other/m.mp3)" = 1 ]; }
gw_wait_for 30 moved_hidden || gw_fail "moved file not hidden"
echo "moved out of Media: $(hidden $a/other/m.mp3)"

"$RILLCTL" set Storage.Disk.2.Partition.1.Manageddisk 1
all="$files $a/other/n.mp3 $a/other/m.mp3"
is_all() { [ "$(hidden $all)" = "$1" ]; }
gw_wait_for 30 is_all 000100 || gw_fail "flag did not move"
echo "bbbb managed: $(hidden $all)"
gw_stop_zibd
)sh");
  ZIBD_EXPECT_SCENARIO_ENDED(r);
  EXPECT_THAT(r.out, HasSubstr("unmanaged: 0000\n"));
  EXPECT_THAT(r.out, HasSubstr("aaaa managed: 0100\n"));
  EXPECT_THAT(r.out, HasSubstr("status: Profiling Ready \n"));
  EXPECT_THAT(r.out, HasSubstr("new: 10\n"));
  EXPECT_THAT(r.out, HasSubstr("moved out of Media: 1\n"));
  EXPECT_THAT(r.out, HasSubstr("bbbb managed: 000100\n"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

}  // namespace
}  // namespace zibd::test
