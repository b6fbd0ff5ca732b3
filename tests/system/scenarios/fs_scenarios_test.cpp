// The file systems of the disks users plug in, mounted through FUSE as a
// gateway mounts them (scripts/disks.sh): the road of a file, a rename that
// changes only case, a directory move, hostile and 255-byte names, deletes,
// and a time set to an odd second. What a file system refuses to store is a
// failed copy; zibd goes on with every name it was given.
#include "tests/system/scenarios/scenario.h"

namespace zibd::test {
namespace {

struct DiskCase {
  const char* fs;
  const char* stored;   // the names the file system takes
  const char* refused;  // the copies it refuses
  const char* twins;    // Dup.mp3 then dup.mp3 written: names on disk, names known
  const char* odd_time;  // .s.mdt after touch -d 2020-01-02 03:04:05
};

void PrintTo(const DiskCase& c, std::ostream* os) { *os << c.fs; }

class FileSystemScenarioTest : public ::testing::TestWithParam<DiskCase> {};

TEST_P(FileSystemScenarioTest, FilesTravelAndNamesAreKeptAsTheFileSystemStoresThem) {
  ZIBD_SCENARIO_PREREQUISITES();
  const DiskCase& c = GetParam();
  const Result r = runScenario(std::string("FS=") + c.fs + R"sh(
gw_fs_disk usb1 "$FS" || exit 0
m=/var/uuidmount/usb1/Media
gw_put $m/first.mp3; gw_put $m/Album/one.mp3; mkdir $m/Names $m/Twins
# The tag database lives on the larger disk, as on a gateway with a hard disk
# beside the stick.
gw_gateway meta:4000 usb1:1000
gw_up
wait_until 10 gw_storage_is /var/uuidmount/meta || gw_fail "metadata not on meta"
wait_until 60 gw_profiled $m/first.mp3 $m/Album/one.mp3 || gw_fail "first scan"
[ "$(gw_tag $m/first.mp3 .s.mdt)" = "$(gw_mtime $m/first.mp3)" ] && echo "mdt is the file's time"

# A rename that changes only the case: the old name leaves, the new one is new.
mv $m/first.mp3 $m/FIRST.mp3
wait_until 30 gw_unknown $m/first.mp3 && wait_until 30 gw_profiled $m/FIRST.mp3 && echo "case rename: $(ls $m | grep -i first)"

# A directory moved: tags kept, and its watch follows it.
tags=$(gw_tags $m/Album/one.mp3)
mv $m/Album $m/Moved
wait_until 30 gw_known $m/Moved/one.mp3 && [ "$(gw_tags $m/Moved/one.mp3)" = "$tags" ] && echo "dir moved: tags kept"
gw_put $m/Moved/two.mp3
wait_until 30 gw_profiled $m/Moved/two.mp3 && echo "dir moved: watched"

# Names: each copy the file system takes is profiled under that very name.
long=$(printf 'a%.0s' $(seq 251)).mp3 wide=$(printf 'é%.0s' $(seq 125))x.mp3
declare -A names=([long255]=$long [utf8-255]=$wide [scripts]='Ελληνικά 日本語 العربية.mp3'
  [shell]="\$(echo x) \`y\` 'z' & ; #.mp3" [hostile]=$'-n line\ttab "dq" |pipe *?<>:\\.mp3' [latin1]=$'caf\xe9.mp3')
stored="" refused=""
for label in $(printf '%s\n' "${!names[@]}" | sort); do
  if cp $m/Moved/two.mp3 "$m/Names/${names[$label]}" 2>/dev/null; then stored+="$label "; else refused+="$label "; fi
done
echo "stored: $stored"; echo "refused: $refused"
for label in $stored; do wait_until 30 gw_profiled "$m/Names/${names[$label]}" || gw_fail "$label not profiled"; done
echo "on disk: $(ls $m/Names | wc -l), known: $("$KORDCTL" files $m/Names | grep -c /Names/)"

# Two names that differ in case only.
gw_put $m/Twins/Dup.mp3 first; gw_put $m/Twins/dup.mp3 second
gw_put $m/Twins/end.mp3
wait_until 30 gw_profiled $m/Twins/end.mp3 || gw_fail "end.mp3"
echo "twins: $(ls $m/Twins | grep -ic dup) on disk, known $(for f in Dup dup; do gw_known $m/Twins/$f.mp3 && echo -n "$f "; done)"

# A time the file system may not keep to the second.
touch -c -d '2020-01-02 03:04:05' $m/FIRST.mp3
"$RILLCTL" set VFS.MetaDataService.ForceRescan 1
new_mdt() { [[ $(gw_tag $m/FIRST.mp3 .s.mdt) = 2020* ]]; }
wait_until 30 new_mdt && echo "odd time: $(gw_tag $m/FIRST.mp3 .s.mdt)"

# Deletes: a file, a directory with its files.
rm $m/FIRST.mp3; rm -r $m/Moved
wait_until 30 gw_unknown $m/FIRST.mp3 $m/Moved/one.mp3 $m/Moved/two.mp3 && echo "deleted: gone"
gw_stop_zibd
)sh",
                               std::chrono::seconds(240));
  if (r.out.find("SKIP: ") != std::string::npos) GTEST_SKIP() << r.out;
  expectStory(r, {"mdt is the file's time\n", "case rename: FIRST.mp3\n", "dir moved: tags kept\ndir moved: watched\n",
                  std::string("stored: ") + c.stored + "\nrefused: " + c.refused + "\n", c.twins, c.odd_time,
                  "deleted: gone\n", "zibd exit=0\n"});
}

INSTANTIATE_TEST_SUITE_P(
    UsbDisks, FileSystemScenarioTest,
    ::testing::Values(
        // fusefat takes ASCII names only; FAT folds case and keeps times in 2 s steps.
        DiskCase{"fat", "long255 shell ", "hostile latin1 scripts utf8-255 ", "twins: 1 on disk, known Dup \n",
                 "odd time: 20200102030404\n"},
        // exFAT folds case and refuses control characters and "*/:<>?\|.
        DiskCase{"exfat", "long255 scripts shell utf8-255 ", "hostile latin1 ", "twins: 1 on disk, known Dup \n",
                 "odd time: 20200102030405\n"},
        // NTFS through ntfs-3g keeps case and takes every byte but non-UTF-8.
        DiskCase{"ntfs", "hostile long255 scripts shell utf8-255 ", "latin1 ", "twins: 2 on disk, known Dup dup \n",
                 "odd time: 20200102030405\n"}),
    [](const ::testing::TestParamInfo<DiskCase>& disk) { return std::string(disk.param.fs); });

}  // namespace
}  // namespace zibd::test
