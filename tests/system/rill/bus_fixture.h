// A real rilld process on a private socket in the test's sandbox, and small
// helpers that drive it through the client library and rillctl.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/cs.h"
#include "platform/rill.h"
#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"

namespace zibd::test {

// A gateway with two disks, three partitions, an index rule and the
// metadata service object.
inline constexpr const char* kGatewayModel =
    "# two disks\n"
    "VFS.MetaDataService.ForceRescan=0\n"
    "VFS.MetaDataService.ProfilingStatus=Ready\n"
    "Storage.Disk.1.CapacityInMBytes=953869\n"
    "Storage.Disk.1.DoUnMount=0\n"
    "Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/4f2a\n"
    "Storage.Disk.1.Partition.1.Manageddisk=1\n"
    "\n"
    "Storage.Disk.2.CapacityInMBytes=61057\n"
    "Storage.Disk.2.Partition.1.MountPoint=/var/uuidmount/77e0\n"
    "Storage.Disk.2.Partition.1.Manageddisk=0\n"
    "Storage.Disk.2.Partition.2.MountPoint=/var/uuidmount/c0de\n"
    "Storage.Disk.2.Partition.2.Manageddisk=0\n"
    "ContentSharing.UPnPAV.IndexRules.1.Status=Up\n"
    "ContentSharing.UPnPAV.IndexRules.1.Enable=1\n";

// One item of a reply or notification, flattened for comparisons: a missing
// field shows as "-".
struct Flat {
  std::string path, name, value;
  int error = 0;
  bool operator==(const Flat&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Flat& f);

std::vector<Flat> flatten(llist_t* items);

// What a notification callback saw.
struct Event {
  int type;
  uint32_t subid;
  std::vector<Flat> items;
};

class BusTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts rilld with the model text and waits until it accepts clients;
  // max_descriptors > 0 starts it with that descriptor limit (ulimit -n).
  void startBroker(const std::string& model = kGatewayModel, std::vector<std::string> extra_args = {},
                   int max_descriptors = 0);
  Env env() const { return Env{{{"RILL_SOCKET", socket_}}}; }
  // rillctl with the given arguments, against this test's broker.
  Result ctl(std::vector<std::string> args);

  // A library connection, closed and freed at the end of the test.
  rill_conn_t* connect(const char* name);
  void disconnect(rill_conn_t* conn);

  // The library calls the daemon makes, in the daemon's order.
  static int read(rill_conn_t* conn, const char* path, std::vector<Flat>* items);
  static int set(rill_conn_t* conn, const char* object, const char* param, const std::string& value);
  // Subscribes (path, parameter or NULL, mask) triples; returns the ids.
  std::vector<uint32_t> subscribe(rill_conn_t* conn,
                                  const std::vector<std::tuple<const char*, const char*, unsigned>>& requests);
  // Dispatches notifications of conn until at least count were seen (or 10 s passed).
  bool awaitEvents(rill_conn_t* conn, size_t count);

  std::string socket_;
  Env broker_env_;  // added to env() for the broker only
  std::unique_ptr<Process> broker_;
  std::vector<rill_conn_t*> conns_;
  std::vector<Event> events_;           // seen by the callbacks of subscribe()
  bool read_back_on_add_ = false;       // whether they read each added object back...
  std::vector<Flat> seen_in_callback_;  // ...into here
  std::vector<std::shared_ptr<void>> callback_contexts_;
};

}  // namespace zibd::test
