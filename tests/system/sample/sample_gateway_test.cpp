// Runs the sample gateway as the README tells newcomers to (scripts/
// sample-gateway.sh in the sandbox, here with --fast), lets zibd index and
// profile the sample disks with the shipped map and profilers, then copies
// in a file with a hostile name and one no tool can read, and stops zibd as
// Ctrl-C would.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/gateway_sandbox.h"

namespace zibd::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Inside the sandbox. Every wait polls with a cap, so a loaded machine only
// makes the test slower; a cap that runs out prints "TIMEOUT what".
constexpr char kProbe[] = R"sh(
family=/var/uuidmount/4f2a91c3-7d1e-4b6a-9c05-2e8f1a3b6d74
stick=/var/uuidmount/77E0-0B12
export PATH=/run/bin:$PATH RILL_SOCKET=/run/rill.sock
"$ZIBD_SOURCE_DIR"/scripts/sample-gateway.sh --fast >/tmp/gateway.log 2>&1 &
gateway=$!
# until SECONDS WHAT COMMAND...: polls COMMAND every 0.1 s.
until_ok() {
  local cap=$1 what=$2 i
  shift 2
  for ((i = 0; i < cap * 10; i++)); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
  echo "TIMEOUT $what"; return 1
}
has_tag() { kordctl -0 tags "$1" | tr '\0' '\n' | grep -q "^$2"; }
tags_of() { printf '%s: %s\n' "$1" "$(kordctl -0 tags "$2" | tr '\0' ',')"; }

nice_of_zibd() { ps -o ni= -C zibd | tr -d ' '; }
zibd_nice_is() { [ "$(nice_of_zibd)" = "$1" ]; }
until_ok 60 zibd pgrep -x zibd
# zibd lowers its priority early in start-up, not at once.
until_ok 30 "zibd at nice 10" zibd_nice_is 10
echo "nice=$(nice_of_zibd)"
mount | grep -q "on $family type ext4" && echo "family disk: ext4 image"
grep -q "$family is a tmpfs, not a ext4 image" /tmp/gateway.log && echo "family disk: tmpfs, said on screen"

# The sample tree, indexed and profiled (the stick's files come last).
until_ok 150 "sample tree profiled" has_tag "$stick/Music/road-trip.ogg" media.title
until_ok 30 "sample tree marked" has_tag "$stick/Music/road-trip.ogg" .s.mdt
tags_of video "$family/Media/Movies/birthday.mp4"
tags_of mkv "$family/Media/Movies/Holiday at the Sea.mkv"
tags_of song "$family/Media/Music/The Sample Band/First Light/01 Morning Light.mp3"
tags_of flac "$family/Media/Music/The Sample Band/First Light/02 Evening Tide.flac"
tags_of photo "$family/Media/Pictures/2025/beach.jpg"
tags_of png "$family/Media/Pictures/drawing.png"
tags_of stick "$stick/Music/road-trip.ogg"
tags_of damaged "$family/Media/Movies/damaged.avi"
kordctl files | grep -q Backup && echo "outside the rules: indexed"
# One map line per type: no profiler run on an emptied view.
grep " done: 0 profiled" /run/zibd-profilers.log && echo "empty batch run"
# Tag names: the daemon's own and the profilers' media.* only.
kordctl -0 files | xargs -0 -n 1 kordctl -0 tags | tr '\0' '\n' | cut -d= -f1 | sort -u | tr '\n' ' '
echo

# Hostile names and files the tool cannot read, copied in while zibd runs.
music="$family/Media/Music"
# One name with every kind of trouble; the profilers' own test has more.
names=($'-n\nline\ttab "dq" \'sq\' |pipe $(echo PWNED >&2) `echo PWNED >&2` *?[a] caf\xe9 \xff.mp3')
for name in "${names[@]}"; do cp "$ZIBD_SOURCE_DIR/sample/media/morning-light.mp3" "$music/$name"; done
yes "not a song" | head -c 3000 >"$music/noise.mp3"
for i in "${!names[@]}"; do
  until_ok 90 "hostile name $i" has_tag "$music/${names[i]}" .s.mdt
  tags_of "hostile $i" "$music/${names[i]}"
done
for bad in noise.mp3; do
  until_ok 60 "$bad marked" has_tag "$music/$bad" .s.mdt
  tags_of "$bad" "$music/$bad"
done

pkill -INT -x zibd
wait $gateway
echo "gateway exit=$?"
[ -S /run/rill.sock ] && pgrep -x rilld >/dev/null && echo "broker left running"
echo "--- gateway output"
cat /tmp/gateway.log
)sh";

TEST(SampleGatewayTest, IndexesAndProfilesTheSampleDisksAndHostileNames) {
  const std::string zibd = binary("zibd");
  const Result r = runInGatewaySandbox(kProbe, std::chrono::minutes(8),
                                       Env{{{"KORDCTL", binary("kordctl")},
                                            {"ZIBD_BUILD_DIR", zibd.substr(0, zibd.rfind('/'))}}});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::string& out = r.out;
  EXPECT_THAT(out, Not(HasSubstr("TIMEOUT"))) << out;
  EXPECT_THAT(out, HasSubstr("nice=10"));
  // The family disk is a real ext4 image, or the script said why not.
  EXPECT_THAT(out, ::testing::AnyOf(HasSubstr("family disk: ext4 image"), HasSubstr("family disk: tmpfs, said")));

  // Real metadata, read by the shipped profilers from the sample files.
  EXPECT_THAT(out, HasSubstr("video: .s.hash="));
  for (const char* tag : {"media.title=Birthday Party,", "media.artist=Family,", "media.videocodec=MPEG-4 Visual,",
                          "media.audiocodec=AAC,", "media.width=320,", "media.height=180,", "media.duration=1000,",
                          "media.format=MPEG-4,", "media.date=20250614153000,"})
    EXPECT_THAT(out, HasSubstr(tag)) << tag;
  EXPECT_THAT(out, HasSubstr("media.videocodec=AVC,"));
  EXPECT_THAT(out, HasSubstr("media.title=Holiday at the Sea,"));
  for (const char* tag : {"media.title=Morning Light,", "media.artist=The Sample Band,", "media.album=First Light,",
                          "media.duration=3056,", "media.audiocodec=MPEG Audio,"})
    EXPECT_THAT(out, HasSubstr(tag)) << tag;
  EXPECT_THAT(out, HasSubstr("media.audiocodec=FLAC,"));
  EXPECT_THAT(out, HasSubstr("media.datetaken=20250704183012,"));
  EXPECT_THAT(out, HasSubstr("media.width=640,"));
  EXPECT_THAT(out, HasSubstr("media.format=PNG,"));
  EXPECT_THAT(out, HasSubstr("media.title=Road Trip,"));
  // A file no tool can read is profiled (".s.mdt") without any metadata.
  EXPECT_THAT(out, ::testing::ContainsRegex("\ndamaged: \\.s\\.hash=[0-9a-f]{16},\\.s\\.invisible=0,\\.s\\.mdt=[0-9]{14},\n"));
  EXPECT_THAT(out, Not(HasSubstr("outside the rules: indexed")));
  EXPECT_THAT(out, Not(HasSubstr("empty batch run")));
  EXPECT_THAT(out, HasSubstr("\n.s.hash .s.invisible .s.mdt media.album media.artist media.audiocodec media.channels "
                             "media.date media.datetaken media.duration media.format media.height media.samplerate "
                             "media.title media.videocodec media.width \n"));

  // The hostile name reached the tool: the song's metadata is on it.
  {
    const std::size_t at = out.find("hostile 0: ");
    ASSERT_NE(at, std::string::npos) << out;
    const std::string line = out.substr(at, out.find('\n', at) - at);
    EXPECT_THAT(line, HasSubstr(",media.title=Morning Light,")) << line;
    EXPECT_THAT(line, HasSubstr(",media.duration=3056,")) << line;
  }
  // Had a name been run as a command, the profiler's or zibd's standard
  // error (the gateway output) would hold the line.
  EXPECT_THAT(out, Not(::testing::ContainsRegex("(^|\n)PWNED\n")));
  {
    const std::size_t at = out.find("noise.mp3: ");
    ASSERT_NE(at, std::string::npos) << out;
    const std::string line = out.substr(at, out.find('\n', at) - at);
    EXPECT_THAT(line, HasSubstr(".s.mdt=")) << line;
    EXPECT_THAT(line, Not(HasSubstr("media."))) << line;
  }

  EXPECT_THAT(out, HasSubstr("gateway exit=0"));
  EXPECT_THAT(out, Not(HasSubstr("broker left running")));
  EXPECT_THAT(out, HasSubstr("zibd runs in the foreground"));
}

}  // namespace
}  // namespace zibd::test
