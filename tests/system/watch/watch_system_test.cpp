// The real zibd on a real broker in the gateway sandbox, its clock sped up
// tenfold (libfaketime): once the metadata storage is chosen, the partition's
// tree is watched, and a file copied into it reaches the media server as a
// change event for its directory after the directory has settled; a file
// moved to another directory follows in the tag database at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/gateway_sandbox.h"

namespace zibd::test {
namespace {

using ::testing::HasSubstr;


constexpr char kProbe[] = R"sh(
set -u
. "$GATEWAY_LIB"
mkdir -p /var/uuidmount/aaaa/Media/music /var/uuidmount/aaaa/Media/other
printf 'mp3:MUSIC:/bin/true:\n' >/tmp/types.ini
{ gw_model; gw_disk 1 aaaa 1000; } >/tmp/gateway.model
gw_start_broker /tmp/gateway.model
broker=$GW_BROKER
gw_start_zibd /tmp/types.ini
zibd=$GW_ZIBD
"$RILLCTL" wait VFS.MetaDataService.MetaDataStorageStatus OK 60 && echo "chosen"
# The watcher thread adds the partition's watches on its own: copy until the
# directory's change event shows that they are in place.
for i in $(seq 60); do
  printf 'tune' >/var/uuidmount/aaaa/Media/music/song$i.mp3
  grep -q "	2	/Media/music$" "$TOCK_EVENTS" 2>/dev/null && break
  sleep 0.5
done
grep -c "	2	/Media/music$" "$TOCK_EVENTS" >/dev/null && echo "music changed"
: >"$TOCK_EVENTS"
mv /var/uuidmount/aaaa/Media/music/song1.mp3 /var/uuidmount/aaaa/Media/other/song1.mp3
for _ in $(seq 100); do grep -q "	2	/Media/music$" "$TOCK_EVENTS" 2>/dev/null && break; sleep 0.05; done
echo "after move: $(cut -f2,3 "$TOCK_EVENTS" | tr '\t\n' ' |')"
kill -TERM $zibd
wait $zibd
echo "zibd exit=$?"
kill -TERM $broker
wait $broker 2>/dev/null
cat /tmp/zibd.err
)sh";

TEST(WatchSystemTest, CopiedFileReachesTheMediaServerAndAMoveFollowsAtOnce) {
  if (::access(kFakeTimeLibrary, R_OK) != 0) GTEST_SKIP() << "no libfaketime";
  const Result r = runInGatewaySandbox(kProbe, std::chrono::seconds(150));
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("chosen\n"));
  EXPECT_THAT(r.out, HasSubstr("music changed\n"));
  // The move is applied at once: both directories are reported, the new one
  // first, without waiting for a settle.
  EXPECT_THAT(r.out, HasSubstr("after move: 2 /Media/other|2 /Media/music|"));
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
  EXPECT_THAT(r.out, ::testing::EndsWith("zibd exit=0\n")) << "zibd wrote to stderr";
}

}  // namespace
}  // namespace zibd::test
