#include "storage/storage_model.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <new>
#include <utility>

#include "common/walk.h"
#include "platform/cs.h"
#include "platform/dynstr.h"
#include "storage/bus_retry.h"
#include "storage/reply_items.h"

namespace zibd {
namespace {

constexpr char kDiskPrefix[] = "Storage.Disk.";
// ".Partition." between the disk number and the partition number.
constexpr size_t kPartitionInfixLength = 11;

// A control character in a mount path would split the tag store's
// one-line configuration and the remembered location.
bool holdsControlCharacter(const std::string& path) {
  return std::any_of(path.begin(), path.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
  });
}

std::optional<std::string> canonical(const char* path) {
  if (!path) return std::nullopt;
  std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path, nullptr), &::free);
  if (!resolved) return std::nullopt;
  return std::string(resolved.get());
}

// "FreeSpaceInKBytes" in megabytes. A number too large for an unsigned long
// (4 TiB and more on a 32-bit gateway) is plenty of space, not none.
bool readFreeMegabytes(const dynstr_t* value, uint32_t* free_mb) {
  unsigned long kilobytes = 0;
  if (dynstr_getulong(value, &kilobytes) == 0) {
    const unsigned long megabytes = kilobytes >> 10;
    *free_mb = megabytes > std::numeric_limits<uint32_t>::max() ? std::numeric_limits<uint32_t>::max()
                                                                : static_cast<uint32_t>(megabytes);
    return true;
  }
  const char* text = dynstr_getstring(value);
  if (!text || !*text) return false;
  for (const char* p = text; *p; ++p)
    if (*p < '0' || *p > '9') return false;
  *free_mb = std::numeric_limits<uint32_t>::max();
  return true;
}

}  // namespace

extern "C" int stPartitionReader(rill_reply_t* reply, void* context) {
  auto* params = static_cast<PartitionParameters*>(context);
  *params = PartitionParameters{};
  try {
    forEachReplyValue(reply, [&](const char* name, const dynstr_t* value) {
      int flag = 0;
      if (::strstr(name, "MountPoint")) {
        params->mount_path = canonical(dynstr_getstring(value));
      } else if (::strstr(name, "Manageddisk")) {
        if (dynstr_getbool(value, &flag) == 0) params->managed = flag;
      } else if (::strstr(name, "Status")) {
        if (dynstr_getbool(value, &flag) == 0) params->status = flag;
      } else if (::strstr(name, "ReadOnly")) {
        if (dynstr_getbool(value, &flag) == 0) params->read_only = flag;
      } else if (::strstr(name, "FreeSpaceInKBytes")) {
        readFreeMegabytes(value, &params->free_mb);
      }
    });
  } catch (const std::bad_alloc&) {
    params->mount_path.reset();
  }
  return 0;
}

extern "C" int stCapacityReader(rill_reply_t* reply, void* context) {
  auto* capacity = static_cast<uint32_t*>(context);
  *capacity = 0;
  forEachReplyValue(reply, [&](const char* name, const dynstr_t* value) {
    unsigned long number = 0;
    if (::strstr(name, "CapacityInMBytes") && dynstr_getulong(value, &number) == 0)
      *capacity = static_cast<uint32_t>(number);
  });
  return 0;
}

extern "C" int stObjectPathCollector(rill_reply_t* reply, void* context) {
  if (!reply) return kMissingReply;
  if (rill_reply_get_kind(reply) != RILL_REPLY_VALUES) return 0;
  auto* paths = static_cast<std::vector<std::string>*>(context);
  const llist_t* items = rill_reply_get_items(reply);
  for (int i = 0; i < llist_getlength(items); ++i) {
    const rill_cmddata_t* item = rill_cmddata_getat(items, i);
    if (!item || rill_cmddata_error_get(item) != 0) continue;
    const char* path = dynstr_getstring(rill_cmddata_path_get(item));
    if (!path || (!paths->empty() && paths->front() == path)) continue;
    try {
      paths->insert(paths->begin(), path);
    } catch (const std::bad_alloc&) {
      // The node is skipped, as a failed allocation of it would be.
    }
  }
  return 0;
}

int32_t stDiskIndex(const char* path, const char** end) {
  if (!path || ::strncmp(path, kDiskPrefix, sizeof kDiskPrefix - 1) != 0) return -1;
  char* number_end = nullptr;
  const long index = ::strtol(path + sizeof kDiskPrefix - 1, &number_end, 10);
  if (end) *end = number_end;
  return static_cast<int32_t>(index);
}

int32_t stPartitionIndex(const char* path, int32_t* disk_index) {
  const char* end = nullptr;
  *disk_index = stDiskIndex(path, &end);
  if (*disk_index == -1) return -1;
  if (*end != '.') return -1;
  // The infix is skipped, not compared; a path too short for it has no
  // partition number.
  if (::strnlen(end, kPartitionInfixLength) < kPartitionInfixLength) return -1;
  return static_cast<int32_t>(::strtol(end + kPartitionInfixLength, nullptr, 10));
}

std::string stDiskObjectPath(int32_t index) { return kDiskPrefix + std::to_string(index); }

StorageModel::StorageModel(WatchRequests& watches, ScannerControl& scanner, StorageConfig config)
    : watches_(watches), scanner_(scanner), config_(std::move(config)) {}

StorageModel::~StorageModel() {
  MutexLock hold(storage_lock);
  disks.clear();  // closes the event producers; no bus or watch work
}

Disk* StorageModel::findDisk(int32_t index) {
  for (Disk& disk : disks)
    if (disk.index == index) return &disk;
  return nullptr;
}

Partition* StorageModel::findPartition(const char* path, Disk** disk_out) {
  *disk_out = nullptr;
  int32_t disk_index = -1;
  const int32_t partition_index = stPartitionIndex(path, &disk_index);
  if (disk_index == -1 || partition_index == -1) return nullptr;
  Disk* disk = findDisk(disk_index);
  if (!disk) return nullptr;
  *disk_out = disk;
  for (Partition& partition : disk->partitions)
    if (partition.index == partition_index) return &partition;
  return nullptr;
}

Status StorageModel::readParameters(const std::string& object_path, rill_reply_fn reader, void* context) {
  int error = 0;
  (void)retryBusCall(
      [&] {
        return cs_find_parameters_of_obj_instances(connection(), object_path.c_str(), 0, 2, reader, context, &error);
      },
      config_.read_retry_pause);
  if (error != 0) return Status::error(EIO, "read " + object_path + ": reply error " + std::to_string(error));
  return Status();
}

void StorageModel::addDisk(const std::string& object_path) {
  uint32_t capacity = 0;
  if (!readParameters(object_path, stCapacityReader, &capacity).ok()) return;
  MutexLock hold(storage_lock);
  const int32_t index = stDiskIndex(object_path.c_str(), nullptr);
  if (index == -1) return;
  Disk& disk = disks.emplace_front();
  disk.index = index;
  disk.capacity = capacity;
}

void StorageModel::addPartition(const std::string& object_path) {
  PartitionParameters params;
  const Status read = readParameters(object_path, stPartitionReader, &params);
  // A partition whose mount point does not resolve cannot be watched or
  // chosen, nor one whose path holds a control character: it is not recorded.
  if (!read.ok() || !params.status || !params.mount_path || holdsControlCharacter(*params.mount_path)) return;
  MutexLock hold(storage_lock);
  int32_t disk_index = -1;
  const int32_t partition_index = stPartitionIndex(object_path.c_str(), &disk_index);
  if (disk_index == -1 || partition_index == -1) return;
  Disk* disk = findDisk(disk_index);
  // A second mount point that resolves to a recorded one (a symbolic link to
  // it) is the same tree: recording it twice would let its removal take the
  // other's watches with it.
  if (!disk || findByMountPath(*params.mount_path)) return;
  Partition& partition = disk->partitions.emplace_front();
  partition.index = partition_index;
  partition.mount_path = *params.mount_path;
  partition.managed = params.managed ? 1 : 0;
  partition.free_mb = params.free_mb;
  partition.read_only = params.read_only ? 1 : 0;
  partition.disk = disk;
  if (disk->refcount == 0) {
    const std::string disk_path = stDiskObjectPath(disk->index);
    if (retryBusCall([&] { return cs_incrementDiskRefcount(connection(), disk_path.c_str()); }) == 0)
      disk->refcount = 1;
  }
  const char* mount = partition.mount_path.c_str();
  partition.events.reset(tock_init(mount + 1, mount, 0, 0, 0));
  watches_.fsQueueAddWatch(partition.mount_path);
  armDeadline();
}

void StorageModel::removePartition(Disk& disk, Partition& partition) {
  partition.events.reset();
  watches_.fsQueueRemoveWatch(partition.mount_path);
  scanner_.stopBelow(partition.mount_path);
  removed_partitions_.insert(removed_partitions_.begin(), partition.mount_path);
  armDeadline();
  disk.partitions.remove_if([&](const Partition& p) { return &p == &partition; });
}

void StorageModel::releaseDisk(Disk& disk) {
  if (disk.refcount == 0) return;
  const std::string disk_path = stDiskObjectPath(disk.index);
  if (retryBusCall([&] { return cs_decrementDiskRefcount(connection(), disk_path.c_str()); }) == 0)
    --disk.refcount;
}

void StorageModel::freeDisk(Disk& disk) {
  disks.remove_if([&](const Disk& d) { return &d == &disk; });
}

void StorageModel::removeDisk(const std::string& object_path, bool release) {
  MutexLock hold(storage_lock);
  const int32_t index = stDiskIndex(object_path.c_str(), nullptr);
  if (index == -1) return;
  Disk* disk = findDisk(index);
  if (!disk) return;
  if (disk->holds_metadata) loseMetadata();
  while (!disk->partitions.empty()) removePartition(*disk, disk->partitions.front());
  if (release) releaseDisk(*disk);
  freeDisk(*disk);
}

void StorageModel::releaseAllDisks() {
  MutexLock hold(storage_lock);
  while (!disks.empty()) {
    Disk& disk = disks.front();
    while (!disk.partitions.empty()) removePartition(disk, disk.partitions.front());
    releaseDisk(disk);
    freeDisk(disk);
  }
}

Partition* StorageModel::findByMountPath(const std::string& mount_path) {
  for (Disk& disk : disks)
    for (Partition& partition : disk.partitions)
      if (partition.mount_path == mount_path) return &partition;
  return nullptr;
}

void StorageModel::removePartition(const std::string& object_path) {
  MutexLock hold(storage_lock);
  Disk* disk = nullptr;
  if (Partition* partition = findPartition(object_path.c_str(), &disk)) removePartition(*disk, *partition);
}

bool StorageModel::hasPartitionAt(const std::string& mount_path) const {
  MutexLock hold(storage_lock);
  for (const Disk& disk : disks)
    for (const Partition& partition : disk.partitions)
      if (partition.mount_path == mount_path) return true;
  return false;
}

StorageModel::ManagedChange StorageModel::setManaged(const std::string& object_path, bool managed) {
  ManagedChange change;
  MutexLock hold(storage_lock);
  Disk* disk = nullptr;
  Partition* partition = findPartition(object_path.c_str(), &disk);
  if (partition) {
    if (managed && partition->managed == 0) change.now_managed = partition->mount_path;
    if (!managed && partition->managed != 0) change.no_longer_managed = partition->mount_path;
    partition->managed = managed ? 1 : 0;
  }
  if (managed)
    for (Disk& d : disks)
      for (Partition& other : d.partitions)
        if (&other != partition && other.managed) {
          other.managed = 0;
          change.no_longer_managed = other.mount_path;
        }
  return change;
}

void StorageModel::queueUnscannedPartitions(ScanRequests& scans) {
  MutexLock hold(storage_lock);
  for (const Disk& disk : disks)
    for (const Partition& partition : disk.partitions)
      if (!partition.scanned) scans.enqueue(partition.mount_path, kScanRuleDirectory);
}

void StorageModel::queueForcedRescan(ScanRequests& scans) {
  if (storageReady()) scans.enqueue(config_.root, kScanStorageRoot);
  MutexLock hold(storage_lock);
  if (!storageReady()) return;
  for (const Disk& disk : disks)
    for (const Partition& partition : disk.partitions) scans.enqueue(partition.mount_path, kScanForcedRescan);
}

Status StorageModel::setBusValue(const char* object, const char* parameter, const char* value) {
  MutexLock hold(storage_lock);
  return setBusValueLocked(object, parameter, value);
}

void StorageModel::setStorageStatus(int status) {
  MutexLock hold(storage_lock);
  setStorageStatusLocked(status);
}

void StorageModel::visitDisks(const std::function<void(const Disk&)>& visit) const {
  MutexLock hold(storage_lock);
  for (const Disk& disk : disks) visit(disk);
}

void StorageModel::markScanned(const std::string& mount_path) {
  MutexLock hold(storage_lock);
  if (Partition* partition = findByMountPath(mount_path)) partition->scanned = 1;
}

std::vector<std::string> StorageModel::takeRemovedPartitions() {
  MutexLock hold(storage_lock);
  return std::exchange(removed_partitions_, {});
}

bool StorageModel::pathIsOnPartition(const std::string& path) const {
  MutexLock hold(storage_lock);
  for (const Disk& disk : disks)
    for (const Partition& partition : disk.partitions)
      if (fsPathIsUnder(partition.mount_path.c_str(), path.c_str())) return true;
  return false;
}

std::optional<std::string> StorageModel::managedPartitionPath() const {
  MutexLock hold(storage_lock);
  for (const Disk& disk : disks)
    for (const Partition& partition : disk.partitions)
      if (partition.managed) return partition.mount_path;
  return std::nullopt;
}

void StorageModel::sendChangeEvent(const std::string& path) {
  MutexLock hold(storage_lock);
  for (const Disk& disk : disks)
    for (const Partition& partition : disk.partitions)
      if (fsPathIsUnder(partition.mount_path.c_str(), path.c_str())) {
        if (partition.events)
          tock_event(partition.events.get(), path.c_str() + partition.mount_path.size(), 2);
        return;
      }
}

}  // namespace zibd
