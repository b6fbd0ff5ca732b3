// The storage model: the disks and partitions the configuration bus reports,
// the choice of the partition that holds the metadata database, and the
// queries other threads make of it.
//
// Threads: the bus thread is the only writer (it adds and removes disks and
// partitions, chooses the metadata storage and publishes its status); the
// scanner, watcher and main threads only ask questions (StorageQueries).
//
// The storage lock is the first in the daemon's lock order
// (docs/code-map.md). It is held while a value is written on the bus, while
// scans are queued and while the scanner is asked to stop (ScannerControl).
#pragma once

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/tag_names.h"
#include "platform/rill.h"
#include "platform/tock.h"
#include "storage/scan_requests.h"
#include "storage/scanner_control.h"
#include "storage/storage_queries.h"
#include "storage/watch_requests.h"

namespace zibd {

// Where the storage model reads and writes; the defaults are the gateway's
// fixed paths, tests move them into a sandbox.
struct StorageConfig {
  std::string root = "/var/uuidmount";                 // below it lie every partition's mounts
  std::string kord_ini = "/tmp/.kord/kord.ini";        // tells the tag store where its database is
  std::string location = "/rw/zib_metadata_location";  // the chosen mount path, kept across restarts
  std::string update_signal = kKordUpdateSignal;        // opened after each change of kord_ini
  std::chrono::milliseconds read_retry_pause{1000};    // after each failed disk or partition read
  std::chrono::seconds settle_delay{30};               // from the last disk or partition change to the choice
};

// Metadata storage status, as published in "MetaDataStorageStatus".
enum StorageStatus : int { kStorageOk = 0, kNoSuitableDisk = 1 };

struct Disk;

struct TockCloser {
  void operator()(tock_t* producer) const noexcept { tock_fini(producer); }
};

struct Partition {
  int32_t index = 0;
  std::string mount_path;  // canonical (realpath) "MountPoint"
  uint32_t scanned = 0;    // the scanner has reported it finished
  uint32_t managed = 0;    // "Manageddisk"
  uint32_t free_mb = 0;    // "FreeSpaceInKBytes" / 1024, saturated at UINT32_MAX
  uint32_t read_only = 0;  // "ReadOnly"
  Disk* disk = nullptr;
  std::unique_ptr<tock_t, TockCloser> events;  // change events to the media server
};

struct Disk {
  int32_t index = 0;
  uint32_t refcount = 0;  // references held through cs_incrementDiskRefcount (0 or 1)
  uint32_t capacity = 0;  // "CapacityInMBytes"
  uint32_t holds_metadata = 0;
  std::list<Partition> partitions;  // newest first
};

// What the partition parameter reader collects from one partition object.
struct PartitionParameters {
  std::optional<std::string> mount_path;
  int managed = 0;
  int status = 0;  // true when the partition is up
  int read_only = 0;
  uint32_t free_mb = 0;
};

// Reply readers, handed to the bus library (platform/rill.h, cs.h) with a
// caller context. Exposed for the bus thread and for tests.
extern "C" {
// context: PartitionParameters*.
int stPartitionReader(rill_reply_t* reply, void* context);
// context: uint32_t* capacity.
int stCapacityReader(rill_reply_t* reply, void* context);
// context: std::vector<std::string>*; collects object paths, newest first
// (reverse answer order), dropping a path equal to the one collected last.
// 290820 for a missing reply.
int stObjectPathCollector(rill_reply_t* reply, void* context);
}
inline constexpr int kMissingReply = 290820;

// Object path parsing: "Storage.Disk.<d>" and "Storage.Disk.<d>.Partition.<p>".
// stDiskIndex returns -1 without the "Storage.Disk." prefix; *end (if given)
// points behind the disk number. stPartitionIndex stores the disk index in
// *disk_index and returns the partition number, which starts 11 characters
// after the "." behind the disk number (not compared), or -1.
int32_t stDiskIndex(const char* path, const char** end);
int32_t stPartitionIndex(const char* path, int32_t* disk_index);
std::string stDiskObjectPath(int32_t index);

class StorageModel final : public StorageQueries {
 public:
  StorageModel(WatchRequests& watches, ScannerControl& scanner, StorageConfig config = {});
  ~StorageModel() override;
  StorageModel(const StorageModel&) = delete;
  StorageModel& operator=(const StorageModel&) = delete;

  const StorageConfig& config() const { return config_; }

  // The bus connection while one is open (set and reset by the bus thread).
  void setConnection(rill_conn_t* connection) { connection_.store(connection); }
  rill_conn_t* connection() const { return connection_.load(); }

  // List operations; bus thread.
  void addDisk(const std::string& object_path) EXCLUDES(storage_lock);
  void addPartition(const std::string& object_path) EXCLUDES(storage_lock);
  // Removes the partition of the object "Storage.Disk.<d>.Partition.<p>", if
  // recorded.
  void removePartition(const std::string& object_path) EXCLUDES(storage_lock);
  void removeDisk(const std::string& object_path, bool release) EXCLUDES(storage_lock);
  // At the end of a connection: removes every partition of every disk,
  // releases each disk's reference and frees it.
  void releaseAllDisks() EXCLUDES(storage_lock);
  // Sets the scanned flag of the first partition mounted exactly at path.
  void markScanned(const std::string& mount_path) EXCLUDES(storage_lock);
  // True when a partition is mounted exactly at mount_path.
  bool hasPartitionAt(const std::string& mount_path) const EXCLUDES(storage_lock);

  // The managed flag ("Manageddisk") of the partition of object_path moves:
  // set, it is taken from every other partition (at most one is managed).
  // What changed, by mount path.
  struct ManagedChange {
    std::optional<std::string> now_managed;
    std::optional<std::string> no_longer_managed;
  };
  ManagedChange setManaged(const std::string& object_path, bool managed) EXCLUDES(storage_lock);

  // Scan requests, queued under the storage lock (the scan queue's mutex
  // comes after it). Every partition not yet reported scanned, as kind 1:
  void queueUnscannedPartitions(ScanRequests& scans) EXCLUDES(storage_lock);
  // "ForceRescan": the storage root (kind 3) and every partition (kind 2),
  // while a metadata storage is chosen.
  void queueForcedRescan(ScanRequests& scans) EXCLUDES(storage_lock);

  // The one write of a value on the bus, under the storage lock. Fails with
  // ENOTCONN without a connection and EIO when the bus refused it.
  Status setBusValue(const char* object, const char* parameter, const char* value) EXCLUDES(storage_lock);
  // Publishes the status when it changes; a new choice is scanned again.
  void setStorageStatus(int status) EXCLUDES(storage_lock);
  int storageStatus() const { return status_.load(); }
  bool initialScanDone() const { return initial_scan_done_.load() != 0; }

  // The settle deadline: bus thread only, no lock.
  void armDeadline();
  const std::optional<timeval>& deadline() const { return deadline_; }
  void disarmDeadline() { deadline_.reset(); }

  bool isSuitable(const Partition& partition, bool existing_database_only) const;
  // The selection run when the deadline expires with status "NoSuitableDisk":
  // remembered location, then first existing database, then the best new
  // place. True when a partition was selected, false when none is suitable.
  // Fails, with nothing chosen, when the tag store's configuration cannot be
  // written; the caller tries again later.
  Result<bool> chooseMetadataStorage() EXCLUDES(storage_lock);
  // Mount paths of the partitions removed since the last call.
  std::vector<std::string> takeRemovedPartitions() EXCLUDES(storage_lock);
  // Calls visit for each disk, newest first, under the storage lock (tests).
  void visitDisks(const std::function<void(const Disk&)>& visit) const EXCLUDES(storage_lock);

  // StorageQueries.
  bool storageReady() const override { return status_.load() == kStorageOk; }
  bool pathIsOnPartition(const std::string& path) const override EXCLUDES(storage_lock);
  std::optional<std::string> managedPartitionPath() const override EXCLUDES(storage_lock);
  void sendChangeEvent(const std::string& path) override EXCLUDES(storage_lock);
  void markInitialScanDone() override { initial_scan_done_.store(1); }

 private:
  // The storage lock: guards the disk and partition lists and serialises
  // writes on the bus.
  mutable Mutex storage_lock;
  std::list<Disk> disks GUARDED_BY(storage_lock);  // newest first

  // Reads the parameters of object_path through reader (tried up to three
  // times). Fails with EIO when the reader reported an error.
  Status readParameters(const std::string& object_path, rill_reply_fn reader, void* context) EXCLUDES(storage_lock);
  Disk* findDisk(int32_t index) REQUIRES(storage_lock);
  Partition* findPartition(const char* path, Disk** disk) REQUIRES(storage_lock);
  // The first partition mounted exactly at mount_path, or null.
  Partition* findByMountPath(const std::string& mount_path) REQUIRES(storage_lock);
  void removePartition(Disk& disk, Partition& partition) REQUIRES(storage_lock);
  void releaseDisk(Disk& disk) REQUIRES(storage_lock);
  void freeDisk(Disk& disk) REQUIRES(storage_lock);
  Status setBusValueLocked(const char* object, const char* parameter, const char* value) REQUIRES(storage_lock);
  void setStorageStatusLocked(int status) REQUIRES(storage_lock);
  Status writeTagStoreConfiguration(const Partition& partition) const;
  Status selectMetadataPartition(Partition& partition) REQUIRES(storage_lock);
  Result<bool> chosen(Partition& partition) REQUIRES(storage_lock);
  void loseMetadata() REQUIRES(storage_lock);
  void signalTagStore() const;

  WatchRequests& watches_;
  ScannerControl& scanner_;
  const StorageConfig config_;
  std::atomic<rill_conn_t*> connection_{nullptr};
  std::atomic<int> status_{kNoSuitableDisk};
  std::atomic<int> initial_scan_done_{0};
  std::optional<timeval> deadline_;
  std::vector<std::string> removed_partitions_ GUARDED_BY(storage_lock);
};

}  // namespace zibd
