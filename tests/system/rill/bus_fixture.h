// A real rilld process on a private socket in the test's sandbox, driven
// through the client library, rillctl, or a raw connection.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "platform/cs.h"
#include "platform/rill.h"
#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"

namespace zibd::test {

// Two disks, three partitions, an index rule and the metadata service.
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

// One item of a reply or notification; a missing field shows as "-".
struct Flat {
  std::string path, name, value;
  int error = 0;
  bool operator==(const Flat&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Flat& f);
std::vector<Flat> flatten(llist_t* items);

struct Event {
  int type;
  uint32_t subid;
  std::vector<Flat> items;
};

class BusTest : public SandboxTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts rilld and waits until it accepts clients; max_descriptors > 0
  // starts it under that descriptor limit.
  void startBroker(const std::string& model = kGatewayModel, std::vector<std::string> extra_args = {},
                   int max_descriptors = 0);
  Env env() const { return Env{{{"RILL_SOCKET", socket_}}}; }
  Result ctl(std::vector<std::string> args);  // rillctl against this broker

  rill_conn_t* connect(const char* name);  // closed at the end of the test
  void disconnect(rill_conn_t* conn);
  // The library calls the daemon makes. read() returns 17 when the bus said no.
  static int read(rill_conn_t* conn, const char* path, std::vector<Flat>* items);
  static int set(rill_conn_t* conn, const char* object, const char* param, const std::string& value);
  // Subscribes (path, parameter or NULL, mask) triples into events_; returns the ids.
  std::vector<uint32_t> subscribe(rill_conn_t* conn,
                                  const std::vector<std::tuple<const char*, const char*, unsigned>>& requests);
  // Dispatches conn's notifications until events_ holds at least count.
  bool awaitEvents(rill_conn_t* conn, size_t count);

  static int record(rill_notification_t* n, void* context);

  std::string socket_;
  Env broker_env_;  // added to env() for the broker only
  std::unique_ptr<Process> broker_;
  std::vector<rill_conn_t*> conns_;
  std::vector<Event> events_;
  bool read_back_on_add_ = false;       // whether the callback reads each added object...
  std::vector<Flat> seen_in_callback_;  // ...into here, as the daemon does
  std::vector<std::shared_ptr<void>> callback_contexts_;
};

}  // namespace zibd::test
