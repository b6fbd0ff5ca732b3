// What the bus thread does with each notification of its six subscriptions:
// disks and partitions come and go, a disk is to be unmounted, the managed
// disk changes, index rules are added, removed or changed, or everything is
// to be scanned again. Runs on the bus thread, inside rill_msg_parse.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "bus/profiling_status.h"
#include "platform/rill.h"
#include "storage/rule_registry.h"
#include "storage/scan_requests.h"
#include "storage/storage_model.h"

namespace zibd {

// The subscriptions, in the order they are made; each slot holds the
// identifier the bus answered with.
enum SubscriptionSlot : size_t {
  kSlotForceRescan = 0,      // "VFS.MetaDataService" "ForceRescan"
  kSlotDisks = 1,            // "Storage.Disk" objects
  kSlotUnmount = 2,          // "Storage.Disk" "DoUnMount"
  kSlotPartitions = 3,       // "Storage.Disk.Partition" objects
  kSlotManaged = 4,          // "Storage.Disk.Partition" "Manageddisk"
  kSlotIndexRules = 5,       // "ContentSharing.UPnPAV.IndexRules" objects and values
  kSubscriptionCount = 6,
};
using SubscriptionTable = std::array<uint32_t, kSubscriptionCount>;

// True unless the text is missing, empty or begins with "0" or "f".
bool valueChangeBoolean(const char* text);

class NotificationHandler {
 public:
  NotificationHandler(StorageModel& storage, RuleRegistry& rules, ScanRequests& scans, ProfilingStatus& profiling,
                      const SubscriptionTable& ids)
      : storage_(storage), rules_(rules), scans_(scans), profiling_(profiling), ids_(ids) {}

  // Handles every item of the notification; the result of the last number
  // read (0 when none failed).
  int handle(rill_notification_t* notification);

  // The callback registered with the bus library; context is the handler.
  static int callback(rill_notification_t* notification, void* context) noexcept;

 private:
  int forceRescan(const rill_cmddata_t* item);
  int unmount(int type, const rill_cmddata_t* item);
  void partitions(int type, const std::string& path);
  int managed(const rill_cmddata_t* item);
  void indexRule(int type, const rill_cmddata_t* item);
  void setInvisible(const std::optional<std::string>& hidden, const std::optional<std::string>& shown);

  StorageModel& storage_;
  RuleRegistry& rules_;
  ScanRequests& scans_;
  ProfilingStatus& profiling_;
  const SubscriptionTable& ids_;
};

}  // namespace zibd
