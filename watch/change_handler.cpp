#include "watch/change_handler.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "common/tag_names.h"
#include "common/walk.h"
#include "platform/kord.h"
#include "scan/kord_bulk.h"

namespace zibd {

namespace {

bool has(std::uint32_t flags, std::uint32_t wanted) { return (flags & wanted) == wanted; }

bool under(const std::string& prefix, const char* path) { return fsPathIsUnder(prefix.c_str(), path); }

// Whether a move from old_path to path changes what the media server may
// show of the managed partition: out of its Media tree to the rest of the
// partition, or from the rest of the partition into Media or off the
// partition.
bool movedAcrossMedia(const std::string& partition, const char* old_path, const char* path) {
  if (!under(partition, old_path) && !under(partition, path)) return false;
  const std::string media = partition + "/Media";
  const bool out_of_media = under(media, old_path) && !under(media, path) && under(partition, path);
  const bool into_media_or_away = under(partition, old_path) && !under(media, old_path) &&
                                  (under(media, path) || !under(partition, path));
  return out_of_media || into_media_or_away;
}

// Marks the moved tree invisible in one bulk operation; a tag store that
// cannot be opened skips it.
void tagInvisible(const char* path) {
  KordBulk bulk(kord_bulk_init());
  if (!bulk) return;
  (void)kord_bulk_setpath(bulk.get(), path);
  (void)kord_bulk_settag_recursive(bulk.get(), kTagInvisible, "1");
  (void)kord_bulk_commit(bulk.get());
}

// Whether path names an entry under exactly that name: a file system that
// ignores case (FAT, exFAT) finds "a.mp3" after a rename to "A.mp3", which
// is still the old name gone. The directory is listed only when lstat finds
// the path.
bool existsAsNamed(const std::string& path, struct stat* st) {
  if (::lstat(path.c_str(), st) != 0) return false;
  const std::optional<std::string_view> parent = fsDirName(path);
  if (!parent) return true;
  const std::string directory = parent->empty() ? "/" : std::string(*parent);
  return fsHasEntry(directory.c_str(), path.c_str() + parent->size() + 1);
}

int vanished(const char* path) { return ::access(path, F_OK) != 0 ? 1 : 0; }

// Drops from the tag store the files below path that no longer exist.
void dropVanishedBelow(const std::string& path) {
  int never_stop = 0;
  (void)kord_cleanup_attached(path.c_str(), &never_stop, &vanished);
}

}  // namespace

std::time_t fsWallClock() { return std::time(nullptr); }

// Unsigned, as a clock that steps back must not hold anything for ever.
bool ChangeHandler::settled(std::time_t since, std::time_t now) const {
  return static_cast<std::uint64_t>(now - since) >= static_cast<std::uint64_t>(kFsSettleSeconds);
}

Status ChangeHandler::fsHandleChange(const char* path, const char* old_path, std::uint32_t flags) {
  const std::optional<std::string_view> parent_view = fsDirName(path);
  if (!parent_view) return Status::error(EINVAL, std::string("no directory in ") + path);
  const std::string parent(*parent_view);

  if (has(flags, FS_CHANGE_DELETED)) {
    const std::time_t now = now_();
    // A directory's delete stands for the deletes of its contents.
    if (has(flags, FS_CHANGE_DIR))
      deletes_.remove_if([&](const PendingDelete& d) { return fsPathIsUnder(path, d.path.c_str()); });
    deletes_.push_front({path, now});
    return Status();
  }
  if (has(flags, FS_CHANGE_MOVED)) return handleMove(path, old_path, parent, flags);

  const bool created_file = has(flags, FS_CHANGE_CREATED | FS_CHANGE_FILE);
  const bool written_file = has(flags, FS_CHANGE_WRITTEN | FS_CHANGE_FILE);
  const std::time_t now = now_();
  PendingChange& change = markChanged(parent, now);
  if (!change.waiting_for_close && created_file)
    change.waiting_for_close = true;
  else if (change.waiting_for_close && written_file)
    change.waiting_for_close = false;
  if (has(flags, FS_CHANGE_CREATED | FS_CHANGE_DIR)) markChanged(path, now).whole_tree = true;
  return Status();
}

ChangeHandler::PendingChange& ChangeHandler::markChanged(const std::string& directory, std::time_t now) {
  for (PendingChange& change : changes_) {
    if (change.directory != directory) continue;
    change.time = now;
    return change;
  }
  return changes_.emplace_back(PendingChange{directory, now, false});
}

Status ChangeHandler::handleMove(const char* path, const char* old_path, const std::string& new_parent,
                                 std::uint32_t flags) {
  if (!old_path) return Status::error(EINVAL, std::string("move without an old path to ") + path);
  const std::optional<std::string> partition = storage_.managedPartitionPath();
  Status moved;
  if (kord_move(old_path, path) != 0) moved = Status::error(EIO, std::string("kord_move ") + old_path);

  if (const std::optional<std::string_view> old_parent = fsDirName(old_path)) {
    storage_.sendChangeEvent(new_parent);
    storage_.sendChangeEvent(std::string(*old_parent));
  }
  const std::size_t old_len = std::char_traits<char>::length(old_path);
  if (has(flags, FS_CHANGE_DIR)) {
    for (PendingChange& change : changes_)
      if (fsPathIsUnder(old_path, change.directory.c_str()))
        change.directory = std::string(path) + change.directory.substr(old_len);
  }
  // The move put something new at path: a delete still pending there (or
  // below it) would drop what just arrived. Deletes pending below the old
  // path follow the files the move carried.
  deletes_.remove_if([&](const PendingDelete& d) { return fsPathIsUnder(path, d.path.c_str()); });
  for (PendingDelete& d : deletes_)
    if (fsPathIsUnder(old_path, d.path.c_str())) d.path = std::string(path) + d.path.substr(old_len);
  // A scan that was walking the old path when it moved may still tag files
  // under their old names; they go when the old path has been quiet as long
  // as any delete.
  deletes_.push_front({old_path, now_()});
  if (partition && movedAcrossMedia(*partition, old_path, path)) tagInvisible(path);
  return moved;
}

void ChangeHandler::fsFlushChanges() {
  if (!storage_.storageReady()) {
    // Nothing is kept for a storage that may never come.
    changes_.clear();
    deletes_.clear();
    return;
  }
  if (changes_.empty() && deletes_.empty()) return;  // an idle pass reads no clock
  const std::time_t now = now_();

  std::vector<PendingChange> kept;
  for (PendingChange& change : changes_) {
    if (change.waiting_for_close || !settled(change.time, now)) {
      kept.push_back(std::move(change));
      continue;
    }
    scans_.enqueue(change.directory, change.whole_tree ? kScanNewTree : kScanChangedDirectory);
    storage_.sendChangeEvent(change.directory);
  }
  changes_ = std::move(kept);
  flushDeletes(now);
}

void ChangeHandler::flushDeletes(std::time_t now) {
  for (auto it = deletes_.begin(); it != deletes_.end();) {
    if (!settled(it->time, now)) {
      ++it;
      continue;
    }
    struct stat st {};
    if (existsAsNamed(it->path, &st)) {
      // Made again (or moved back) while the delete waited: it is not gone,
      // but a directory made again holds only what is in it now.
      if (S_ISDIR(st.st_mode)) dropVanishedBelow(it->path);
      it = deletes_.erase(it);
      continue;
    }
    if (const std::optional<std::string_view> parent = fsDirName(it->path))
      storage_.sendChangeEvent(std::string(*parent));
    (void)kord_delete(it->path.c_str());
    it = deletes_.erase(it);
  }
}

std::vector<std::string> ChangeHandler::pendingDeletes() const {
  std::vector<std::string> paths;
  for (const PendingDelete& d : deletes_) paths.push_back(d.path);
  return paths;
}

}  // namespace zibd
