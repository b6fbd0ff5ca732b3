// The real zibd on a real broker in the gateway sandbox, its clock sped up
// tenfold (libfaketime): the metadata storage is chosen once the disks have
// settled, lost with its disk and chosen again; an unmount request gives the
// disk back; a broker that dies leaves zibd idle and still stoppable.
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
mkdir -p /var/uuidmount/bbbb
printf 'mkv:STDVIDEO:/bin/true:\n' >/tmp/types.ini
{ gw_model; gw_disk 1 aaaa 1000; } >/tmp/gateway.model
gw_start_broker /tmp/gateway.model
broker=$GW_BROKER
gw_start_zibd /tmp/types.ini
zibd=$GW_ZIBD
"$RILLCTL" wait VFS.MetaDataService.MetaDataStorageStatus OK 60 && echo "chosen"
echo "ini=$(cat /tmp/.kord/kord.ini)"
gw_location /var/uuidmount/aaaa
echo "refcount1=$("$RILLCTL" refcount Storage.Disk.1)"
"$RILLCTL" add Storage.Disk.2 CapacityInMBytes=500 DoUnMount=0
"$RILLCTL" add Storage.Disk.2.Partition.1 MountPoint=/var/uuidmount/bbbb Status=1 FreeSpaceInKBytes=1048576
"$RILLCTL" del Storage.Disk.1
"$RILLCTL" wait VFS.MetaDataService.MetaDataStorageStatus NoSuitableDisk 30 && echo "lost"
echo "emptied=$(stat -c %s /tmp/.kord/kord.ini)"
"$RILLCTL" wait VFS.MetaDataService.MetaDataStorageStatus OK 60 && echo "chosen again"
gw_location /var/uuidmount/bbbb
echo "statuses=$("$RILLCTL" history VFS.MetaDataService.MetaDataStorageStatus | tr '\n' ' ')"
echo "refcount2=$("$RILLCTL" refcount Storage.Disk.2)"
"$RILLCTL" set Storage.Disk.2.DoUnMount 1
for _ in $(seq 200); do [ "$("$RILLCTL" refcount Storage.Disk.2)" = 0 ] && break; sleep 0.05; done
echo "after unmount=$("$RILLCTL" refcount Storage.Disk.2)"
threads() { ls /proc/$zibd/task | wc -l; }
before=$(threads)
kill -KILL $broker
wait $broker 2>/dev/null
# The bus thread ends with its connection; main, scanner and watcher stay
# (a sanitizer may run a thread of its own beside them).
for _ in $(seq 200); do [ "$(threads)" -lt "$before" ] && break; sleep 0.05; done
after=$(threads)
echo "threads=$before then $after"
[ "$after" -eq $((before - 1)) ] && echo "bus thread ended"
ticks() { awk '{print $14 + $15}' /proc/$zibd/stat; }
before=$(ticks); sleep 3; after=$(ticks)
echo "cpu ticks over 3 s=$((after - before))"
kill -TERM $zibd
wait $zibd
echo "zibd exit=$?"
cat /tmp/zibd.err
)sh";

TEST(DaemonBusTest, ChoosesLosesAndChoosesAgainTheMetadataStorageAndOutlivesTheBroker) {
  if (::access(kFakeTimeLibrary, R_OK) != 0) GTEST_SKIP() << "no libfaketime";
  const Result r = runInGatewaySandbox(kProbe, std::chrono::seconds(150));
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("chosen\n"));
  EXPECT_THAT(r.out, ::testing::ContainsRegex(
                         "ini=dms-metadata-db-[0-9]+:/var/uuidmount:/var/uuidmount/aaaa/\\.kord/tagdb\n"));
  EXPECT_THAT(r.out, HasSubstr("location=/var/uuidmount/aaaa|"));
  EXPECT_THAT(r.out, HasSubstr("refcount1=1\n"));
  EXPECT_THAT(r.out, HasSubstr("lost\nemptied=0\n"));
  EXPECT_THAT(r.out, HasSubstr("chosen again\nlocation=/var/uuidmount/bbbb|"));
  EXPECT_THAT(r.out, HasSubstr("statuses=OK NoSuitableDisk OK \n"));
  EXPECT_THAT(r.out, HasSubstr("refcount2=1\n"));
  EXPECT_THAT(r.out, HasSubstr("after unmount=0\n"));
  EXPECT_THAT(r.out, HasSubstr("bus thread ended\n"));
  // A busy loop would show about 300 ticks (3 s of CPU time). With the clock
  // ten times faster the event loop's 2.5 s pass runs 12 times, which under
  // load may just reach a tick; the sanitizers' thread may add one.
  EXPECT_THAT(r.out, ::testing::ContainsRegex("cpu ticks over 3 s=[0-2]\n"));
#ifndef ZIBD_SANITIZED
  // main, bus, scanner and watcher; then without the bus thread.
  EXPECT_THAT(r.out, HasSubstr("threads=4 then 3\n"));
#endif
  EXPECT_THAT(r.out, HasSubstr("zibd exit=0\n"));
}

}  // namespace
}  // namespace zibd::test
