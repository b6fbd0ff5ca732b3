// The choice of the metadata partition, its status on the bus and the files
// that tell the tag store (and the next start) where the database lives.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <memory>

#include "common/file_descriptor.h"
#include "platform/dynstr.h"
#include "storage/storage_model.h"

namespace zibd {
namespace {

constexpr char kMetadataService[] = "VFS.MetaDataService";
constexpr char kDatabaseFile[] = ".kord/tagdb";
constexpr int kMinimumFreeMegabytes = 250;

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

Status StorageModel::setBusValueLocked(const char* object, const char* parameter, const char* value) {
  const std::string what = std::string("set ") + object + "." + parameter;
  rill_conn_t* conn = connection();
  if (!conn) return Status::error(ENOTCONN, what);
  if (rill_invoke_get_client_writelock(conn, 25, -1) != 0) return Status::error(EIO, what + ": no write lock");
  rill_ccmd_t command{};
  int result = rill_ccmd_add_setvalues_request(conn, &command, object, parameter,
                                               dynstr_fromstring(rill_dynstr_poolid(), value), 0);
  if (result == 0) result = rill_invoke_ccmd(conn, &command, nullptr, nullptr);
  rill_invoke_free_client_writelock(conn);
  rill_ccmd_cleanup(&command);
  if (result != 0) return Status::error(EIO, what + ": bus result " + std::to_string(result));
  return Status();
}

void StorageModel::setStorageStatusLocked(int status) {
  if (status == status_.load()) return;
  (void)setBusValueLocked(kMetadataService, "MetaDataStorageStatus", status != 0 ? "NoSuitableDisk" : "OK");
  status_.store(status);
  initial_scan_done_.store(0);
}

void StorageModel::armDeadline() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  now.tv_sec += static_cast<time_t>(config_.settle_delay.count());
  deadline_ = now;
}

bool StorageModel::isSuitable(const Partition& partition, bool existing_database_only) const {
  if (partition.read_only) return false;
  struct stat info{};
  if (::stat((partition.mount_path + "/" + kDatabaseFile).c_str(), &info) == 0) return true;
  if (existing_database_only) return false;
  return partition.free_mb >= static_cast<uint32_t>(kMinimumFreeMegabytes);
}

void StorageModel::signalTagStore() const {
  // The tag store watches this file being opened; a missing file is fine.
  FileDescriptor signal(::open(config_.update_signal.c_str(), O_RDONLY | O_CLOEXEC));
}

Status StorageModel::writeTagStoreConfiguration(const Partition& partition) const {
  const std::string what = "write " + config_.kord_ini;
  File ini(std::fopen(config_.kord_ini.c_str(), "we"));
  if (!ini) return Status::lastError(what);
  timeval now{};
  ::gettimeofday(&now, nullptr);
  const int written = std::fprintf(ini.get(), "dms-metadata-db-%lu:%s:%s/%s\n", static_cast<unsigned long>(now.tv_sec),
                                   config_.root.c_str(), partition.mount_path.c_str(), kDatabaseFile);
  // A full /tmp shows at the flush as often as at the write.
  if (written < 0 || std::fclose(ini.release()) != 0) return Status::lastError(what);
  return Status();
}

Status StorageModel::selectMetadataPartition(Partition& partition) {
  // Nothing is chosen while the tag store cannot be told where: the bus
  // thread tries again a settle later.
  if (Status configured = writeTagStoreConfiguration(partition); !configured.ok()) return configured;
  signalTagStore();
  setStorageStatusLocked(kStorageOk);
  partition.disk->holds_metadata = 1;
  // Only remembered for the next start: a failure loses no data.
  File location(std::fopen(config_.location.c_str(), "we"));
  if (location) std::fputs(partition.mount_path.c_str(), location.get());
  return Status();
}

Result<bool> StorageModel::chooseMetadataStorage() {
  // 1. The partition chosen last time, if it still holds its database.
  char remembered[300];
  bool have_remembered = false;
  if (File location{std::fopen(config_.location.c_str(), "re")}) {
    have_remembered = std::fgets(remembered, sizeof remembered, location.get()) != nullptr;
  }
  MutexLock hold(storage_lock);
  if (have_remembered) {
    Partition* found = findByMountPath(remembered);
    if (found && isSuitable(*found, true)) return chosen(*found);
  }
  // 2. The first partition that already holds a database.
  for (Disk& disk : disks)
    for (Partition& partition : disk.partitions)
      if (isSuitable(partition, true)) return chosen(partition);
  // 3. The best new place: the largest disk, then the most free space; a tie
  // goes to the partition met later (the older one).
  Partition* best = nullptr;
  for (Disk& disk : disks)
    for (Partition& partition : disk.partitions) {
      if (!isSuitable(partition, false)) continue;
      if (!best || disk.capacity > best->disk->capacity ||
          (disk.capacity == best->disk->capacity && partition.free_mb >= best->free_mb))
        best = &partition;
    }
  if (!best) return false;
  return chosen(*best);
}

Result<bool> StorageModel::chosen(Partition& partition) {
  if (Status selected = selectMetadataPartition(partition); !selected.ok()) return selected;
  return true;
}

void StorageModel::loseMetadata() {
  scanner_.stopAll();
  for (Disk& disk : disks) {
    disk.holds_metadata = 0;
    for (Partition& partition : disk.partitions) partition.scanned = 0;
  }
  (void)::truncate(config_.kord_ini.c_str(), 0);
  signalTagStore();
  scanner_.releaseTagStore();
  setStorageStatusLocked(kNoSuitableDisk);
  armDeadline();
}

}  // namespace zibd
