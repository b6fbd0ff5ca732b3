#include "scan/tagging.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "common/walk.h"

namespace zibd {
namespace {

// Buffers as the tag database's values need them.
constexpr std::size_t kStoredTimeSize = 20;  // a ".s.mdt" read back, or a file's time
constexpr std::size_t kNowTimeSize = 15;     // exactly one time stamp and its NUL

// The Tagger whose check the cleanup calls. kord_cleanup_attached takes a
// context-free callback and calls it on the thread that runs the cleanup, so
// the context lives in a per-thread pointer set only for that call.
thread_local Tagger* t_cleanup_tagger = nullptr;

}  // namespace

bool formatTagTime(std::time_t seconds, char* buf, std::size_t size) {
  if (size == 0) return false;
  buf[0] = '\0';
  struct tm local {};
  if (!::localtime_r(&seconds, &local)) return false;
  if (std::strftime(buf, size, "%Y%m%d%H%M%S", &local) == 0) {
    buf[0] = '\0';
    return false;
  }
  return true;
}

uint64_t tagHash(std::string_view path, std::string_view time_text) {
  uint64_t acc = 5381;
  auto add = [&acc](std::string_view text) {
    for (const char c : text) {
      // Sign-extended whether plain char is signed (x86) or not (MIPS, ARM);
      // unsigned arithmetic wraps modulo 2^64 as the hash requires.
      const auto byte = static_cast<int64_t>(static_cast<signed char>(c));
      acc = acc * 33U + static_cast<uint64_t>(byte);
    }
  };
  add(path);
  add(time_text);
  return acc;
}

bool Visibility::invisible(const char* path) const {
  switch (kind) {
    case Kind::kVisible:
      return false;
    case Kind::kInvisible:
      return true;
    case Kind::kInsideDirectory:
      return !fsPathIsUnder(directory.c_str(), path);
  }
  return false;
}

Tagger::Tagger(FileTypeMap& types, const IndexRules& rules, const KordBulk& bulk,
               const std::atomic<int>& abort)
    : types_(types), rules_(rules), bulk_(bulk), abort_(abort) {}

Status Tagger::tagFile(const char* path, const Visibility& visibility) {
  if (abort_.load(std::memory_order_relaxed) != 0) return Status::stopped();
  const char* extension = extensionOf(path);
  if (!extension) return Status();
  FileTypeRecord* record = types_.find(extension);
  if (!record) return Status();
  const uint32_t mask = rules_.ruleCategories(path);
  if (mask == 0 || !typeEnabled(*record, mask)) return Status();

  // A file moved or deleted while its directory is walked is not tagged under
  // the name it had: the move has already been applied to the tag store.
  struct stat st {};
  if (::stat(path, &st) != 0) return Status();
  kord_bulk_t* bulk = bulk_.get();
  if (!bulk || kord_bulk_setpath(bulk, path) != 0) return Status();
  char stored[kStoredTimeSize];
  if (kord_bulk_gettag(bulk, kTagModified, stored, sizeof stored) != 0) {
    // New to the database: give it its identity and visibility.
    ++new_files_;
    char now[kNowTimeSize];
    formatTagTime(std::time(nullptr), now, sizeof now);
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016" PRIx64, tagHash(path, now));
    (void)kord_bulk_settag(bulk, kTagHash, hash);
    (void)kord_bulk_settag(bulk, kTagInvisible, visibility.invisible(path) ? "1" : "0");
  } else {
    char modified[kStoredTimeSize];
    formatTagTime(st.st_mtime, modified, sizeof modified);
    if (std::strcmp(modified, stored) == 0) return Status();  // profiled as it is
  }

  ++record->pending_count;
  char batch[16];
  std::snprintf(batch, sizeof batch, "%d", record->pending_count / kBatchSize);
  (void)kord_bulk_settag(bulk, kTagToProfile, "1");
  (void)kord_bulk_settag(bulk, kTagFileType, record->type.c_str());
  (void)kord_bulk_settag(bulk, kTagBatchIndex, batch);
  if (kord_bulk_commit(bulk) != 0) commit_failed_ = true;
  return Status();
}

bool Tagger::unwanted(const char* path) {
  if (::access(path, F_OK) != 0) return true;
  const char* extension = extensionOf(path);
  if (!extension) return true;
  const FileTypeRecord* record = types_.find(extension);
  if (!record) return true;
  const uint32_t mask = rules_.ruleCategories(path);
  if (mask == 0 || !typeEnabled(*record, mask)) return true;
  return false;
}

Tagger::CleanupScope::CleanupScope(Tagger& tagger) { t_cleanup_tagger = &tagger; }
Tagger::CleanupScope::~CleanupScope() { t_cleanup_tagger = nullptr; }

int Tagger::cleanupCheck(const char* path) {
  // Called from the tag store's C interface: nothing may escape.
  try {
    return t_cleanup_tagger && t_cleanup_tagger->unwanted(path) ? 1 : 0;
  } catch (...) {
    return 0;
  }
}

}  // namespace zibd
