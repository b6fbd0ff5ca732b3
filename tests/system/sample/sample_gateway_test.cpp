// The sample gateway (scripts/sample-gateway.sh --fast) indexes and profiles
// the sample disks with the shipped map and profilers, then hostile names and
// a file no tool can read; Ctrl-C stops it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/gateway_sandbox.h"

namespace zibd::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

// Inside the sandbox. A wait whose cap runs out prints "TIMEOUT what".
constexpr char kProbe[] = R"sh(
. "${GATEWAY_LIB%/*}/wait.sh"
family=/var/uuidmount/4f2a91c3-7d1e-4b6a-9c05-2e8f1a3b6d74
stick=/var/uuidmount/77E0-0B12
export PATH=/run/bin:$PATH RILL_SOCKET=/run/rill.sock
"$ZIBD_SOURCE_DIR"/scripts/sample-gateway.sh --fast >/tmp/gateway.log 2>&1 &
gateway=$!
has_tag() { kordctl -0 tags "$1" 2>/dev/null | tr '\0' '\n' | grep -q "^$2"; }
# tags_of LABEL PATH: the tags of PATH once zibd has marked it profiled.
tags_of() {
  wait_until 240 has_tag "$2" .s.mdt || echo "TIMEOUT $1"
  printf '%s: %s\n' "$1" "$(kordctl -0 tags "$2" | tr '\0' ',')"
}
tags_of video "$family/Media/Movies/birthday.mp4"
tags_of mkv "$family/Media/Movies/Holiday at the Sea.mkv"
tags_of song "$family/Media/Music/The Sample Band/First Light/01 Morning Light.mp3"
tags_of flac "$family/Media/Music/The Sample Band/First Light/02 Evening Tide.flac"
tags_of photo "$family/Media/Pictures/2025/beach.jpg"
tags_of png "$family/Media/Pictures/drawing.png"
tags_of stick "$stick/Music/road-trip.ogg"
tags_of damaged "$family/Media/Movies/damaged.avi"
tags_of ntfs "/var/uuidmount/6A3C1D2E4F5B7081/Videos/写真/塔.jpg"
wait_until 240 sh -c 'kordctl stats | grep -qx "\.s\.tbp 0"' || echo "TIMEOUT all profiled"
grep -q -e "77E0-0B12: FAT through FUSE" -e "77E0-0B12 is a tmpfs, not a fat image" /tmp/gateway.log && echo "stick: said"
mount | grep -q "on $family type ext4" && echo "family disk: ext4 image"
grep -q "$family is a tmpfs, not a ext4 image" /tmp/gateway.log && echo "family disk: tmpfs, said on screen"
kordctl files | grep -q Backup && echo "outside the rules: indexed"
# One map line per type: no profiler run on an emptied view.
grep " done: 0 profiled" /run/zibd-profilers.log && echo "empty batch run"
# Tag names: the daemon's own and the profilers' media.* only.
kordctl -0 files | xargs -0 -n 1 kordctl -0 tags | tr '\0' '\n' | cut -d= -f1 | sort -u | tr '\n' ' '
echo

# Hostile names and a file no tool can read, copied in while zibd runs.
music="$family/Media/Music"
name=$'-n\nline\ttab "dq" \'sq\' |pipe $(echo PWNED >&2) `echo PWNED >&2` *?[a] caf\xe9 \xff.mp3'
cp "$ZIBD_SOURCE_DIR/sample/media/morning-light.mp3" "$music/$name"
yes "not a song" | head -c 3000 >"$music/noise.mp3"
tags_of hostile "$music/$name"
tags_of noise.mp3 "$music/noise.mp3"

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
  // The family disk is a real ext4 image, or the script said why not.
  EXPECT_THAT(out, ::testing::AnyOf(HasSubstr("family disk: ext4 image"), HasSubstr("family disk: tmpfs, said")));

  // Real metadata, read by the shipped profilers from the sample files.
  for (const char* tag :
       {"video: .s.hash=", "media.title=Birthday Party,", "media.artist=Family,", "media.videocodec=MPEG-4 Visual,",
        "media.audiocodec=AAC,", "media.width=320,", "media.height=180,", "media.duration=1000,",
        "media.format=MPEG-4,", "media.date=20250614153000,", "media.videocodec=AVC,",
        "media.title=Holiday at the Sea,",
        "media.title=Morning Light,", "media.artist=The Sample Band,", "media.album=First Light,",
        "media.duration=3056,", "media.audiocodec=MPEG Audio,", "media.audiocodec=FLAC,",
        "media.datetaken=20250704183012,", "media.width=640,", "media.format=PNG,", "media.title=Road Trip,"})
    EXPECT_THAT(out, HasSubstr(tag)) << tag;
  // A file no tool can read is profiled (".s.mdt") without any metadata.
  EXPECT_THAT(out, ::testing::ContainsRegex("\ndamaged: \\.s\\.hash=[0-9a-f]{16},\\.s\\.invisible=0,\\.s\\.mdt=[0-9]{14},\n"));
  EXPECT_THAT(out, Not(HasSubstr("outside the rules: indexed")));
  EXPECT_THAT(out, Not(HasSubstr("empty batch run")));
  EXPECT_THAT(out, HasSubstr("\n.s.hash .s.invisible .s.mdt media.album media.artist media.audiocodec media.channels "
                             "media.date media.datetaken media.duration media.format media.height media.samplerate "
                             "media.title media.videocodec media.width \n"));

  const auto line = [&](const std::string& label) {
    const std::size_t at = out.find("\n" + label);
    return at == std::string::npos ? std::string() : out.substr(at + 1, out.find('\n', at + 1) - at - 1);
  };
  // The hostile name reached the tool: the song's metadata is on it.
  EXPECT_THAT(line("hostile: "), AllOf(HasSubstr(",media.title=Morning Light,"), HasSubstr(",media.duration=3056,")));
  // Had a name been run as a command, the profiler's or zibd's standard
  // error (the gateway output) would hold the line.
  EXPECT_THAT(out, Not(::testing::ContainsRegex("(^|\n)PWNED\n")));
  EXPECT_THAT(line("noise.mp3: "), AllOf(HasSubstr(".s.mdt="), Not(HasSubstr("media."))));
  EXPECT_THAT(line("ntfs: "), HasSubstr(",media.width=480,"));
  EXPECT_THAT(out, HasSubstr("stick: said"));

  EXPECT_THAT(out, HasSubstr("gateway exit=0"));
  EXPECT_THAT(out, Not(HasSubstr("broker left running")));
  EXPECT_THAT(out, HasSubstr("zibd runs in the foreground"));
}

}  // namespace
}  // namespace zibd::test
