#include "watch/watch_table.h"

#include <sys/inotify.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>


namespace zibd {

namespace {

// The longest component fsAddWatch looks at for ".kord".
constexpr std::size_t kNameMax = 255;

// True when path continues the first `matched` characters, which equal the
// whole of name, with a '/'.
bool continuesWithSlash(const WatchNode& node, const char* path, std::size_t matched) {
  return matched == node.name.size() && path[matched] == '/';
}

}  // namespace

int fsComparePath(const char* name, const char* path, std::size_t* matched) {
  std::size_t i = 0;
  if (name && path && name[0] != '\0' && path[0] != '\0') {
    for (; name[i] != '\0' && path[i] != '\0'; ++i) {
      if (name[i] != path[i]) {
        if (matched) *matched = i;
        return -1;
      }
    }
  } else {
    if (matched) *matched = 0;
    return 0;
  }
  if (matched) *matched = i;
  const char* rest_name = name + i;
  const char* rest_path = path + i;
  if (*rest_name == '/')
    ++rest_name;
  else if (*rest_path == '/')
    ++rest_path;
  if (*rest_path != '\0') return 1;
  return *rest_name != '\0' ? 2 : 0;
}

WatchNode* fsFindWatch(const char* path, WatchNode* list) {
  for (WatchNode* node = list; node; node = node->next) {
    std::size_t matched = 0;
    const int cmp = fsComparePath(node->name.c_str(), path, &matched);
    if (cmp == 0) return node;
    // The first component that matches decides: its later siblings are
    // never tried.
    if (cmp == 1 && continuesWithSlash(*node, path, matched))
      return fsFindWatch(path + matched + 1, node->first_child);
  }
  return nullptr;
}

// --- WatchIndex ---

Status WatchIndex::insert(WatchNode* node) {
  const int wd = node->wd;
  if (!rightmost_ && root_) {
    rightmost_ = root_;
    while (rightmost_->index.right) rightmost_ = rightmost_->index.right;
  }
  WatchNode** link = &root_;
  if (rightmost_ && wd > rightmost_->wd) {
    link = &rightmost_->index.right;  // where the walk from the root would end
  } else {
    while (*link) {
      const int here = (*link)->wd;
      if (wd == here) return Status::error(EEXIST, "watch descriptor " + std::to_string(wd));
      link = wd < here ? &(*link)->index.left : &(*link)->index.right;
    }
  }
  node->index = {};
  *link = node;
  if (!rightmost_ || wd > rightmost_->wd) rightmost_ = node;
  return Status();
}

Status WatchIndex::remove(int wd) {
  WatchNode** link = &root_;
  while (*link && (*link)->wd != wd) link = wd < (*link)->wd ? &(*link)->index.left : &(*link)->index.right;
  WatchNode* entry = *link;
  if (!entry) return Status::error(ENOENT, "watch descriptor " + std::to_string(wd));
  // The left child takes the entry's place when the right one lies nearer,
  // else the right one; the other one's subtree leaves the index. A missing
  // child counts as a distance of 0. Computed wide, so that no descriptor
  // difference overflows.
  const long long d = wd;
  WatchNode* left = entry->index.left;
  WatchNode* right = entry->index.right;
  const long long to_right = right ? right->wd - d : 0;
  const long long to_left = left ? d - left->wd : 0;
  WatchNode* kept = to_right < to_left ? left : right;
  *link = kept;
  detach(kept == left ? right : left);
  entry->index = {};
  rightmost_ = nullptr;  // found again by the next insertion
  return Status();
}

WatchNode* WatchIndex::find(int wd) const {
  WatchNode* entry = root_;
  while (entry && entry->wd != wd) entry = wd < entry->wd ? entry->index.left : entry->index.right;
  return entry;
}

std::vector<int> WatchIndex::descriptors() const {
  std::vector<int> wds;
  std::vector<const WatchNode*> stack;
  const WatchNode* entry = root_;
  while (entry || !stack.empty()) {
    for (; entry; entry = entry->index.left) stack.push_back(entry);
    entry = stack.back();
    stack.pop_back();
    wds.push_back(entry->wd);
    entry = entry->index.right;
  }
  return wds;
}

// Clears the index links of a subtree that has left the index, so that no
// node keeps pointers into it. Without recursion or allocation (the index is
// mostly one long chain): a left child is rotated up until an entry has
// none, which is then cleared.
void WatchIndex::detach(WatchNode* subtree) {
  WatchNode* entry = subtree;
  while (entry) {
    if (WatchNode* left = entry->index.left) {
      entry->index.left = left->index.right;
      left->index.right = entry;
      entry = left;
    } else {
      WatchNode* right = entry->index.right;
      entry->index = {};
      entry = right;
    }
  }
}

// --- WatchTable ---

WatchTable::~WatchTable() {
  MutexLock lock(mutex_);
  index_.clear();
  freeNodes(root_);
  for (WatchNode* list : dropped_) freeNodes(list);
}

// Frees every node of the sibling list and their descendants, without
// recursion: a wide directory makes a long sibling list, a deep tree a long
// chain of children.
void WatchTable::freeNodes(WatchNode* list) {
  WatchNode* node = list;
  while (node) {
    if (node->first_child) {
      // Splice the children in front of the next sibling.
      WatchNode* last = node->first_child;
      while (last->next) last = last->next;
      last->next = node->next;
      node->next = node->first_child;
      node->first_child = nullptr;
    }
    WatchNode* next = node->next;
    delete node;
    node = next;
  }
}

Status WatchTable::fsInitWatch() {
  inotify_.reset(::inotify_init1(IN_CLOEXEC));
  return Status();
}

Status WatchTable::fsAddWatch(const char* path) {
  if (add_aborted_.load() != 0) return Status::stopped();
  if (const std::optional<std::string_view> parent = fsDirName(path)) {
    const char* last = path + parent->size() + 1;
    if (::strnlen(last, kNameMax + 1) <= kNameMax && std::strcmp(last, ".kord") == 0) return Status();
  }

  MutexLock lock(mutex_);
  if (fsFindWatch(path, root_)) return Status();
  const int wd = ::inotify_add_watch(inotify_.get(), path, kFsWatchMask);
  if (wd < 0) return Status::lastError(std::string("inotify_add_watch ") + path);
  if (path[0] != '/') return Status::error(EINVAL, std::string("relative path ") + path);
  return insert(path, wd);
}

Status WatchTable::indexNode(WatchNode* node, int wd) {
  node->wd = wd;
  Status indexed = index_.insert(node);
  if (!indexed.ok()) node->wd = 0;
  return indexed;
}

Status WatchTable::insert(const char* path, int wd) {
  const char* rest = path;
  WatchNode* parent = nullptr;
  WatchNode* node = root_;
  for (;;) {
    if (!node) {
      // End of a sibling list: a new node for the next component.
      const char* slash = std::strchr(rest + 1, '/');
      const std::size_t len = slash ? static_cast<std::size_t>(slash - rest) : std::strlen(rest);
      auto fresh = std::make_unique<WatchNode>();
      fresh->name.assign(rest, len);
      fresh->parent = parent;
      if (parent) {
        fresh->next = parent->first_child;
        parent->first_child = fresh.get();
      } else {
        dropRootList();
        root_ = fresh.get();
      }
      node = fresh.release();
      if (!slash) return indexNode(node, wd);
      parent = node;
      node = nullptr;
      rest = slash + 1;
      continue;
    }
    std::size_t matched = 0;
    const int cmp = fsComparePath(node->name.c_str(), rest, &matched);
    if (cmp == 0) {
      if (node->wd != 0) return Status::error(EEXIST, std::string("watched already: ") + path);
      return indexNode(node, wd);
    }
    if (cmp == 1 && continuesWithSlash(*node, rest, matched)) {
      parent = node;
      rest += matched + 1;
      node = node->first_child;
      continue;
    }
    node = node->next;
  }
}

// A new root-level node replaces the root list; the nodes of the old list
// are kept (their watches are still indexed) until the table goes.
void WatchTable::dropRootList() {
  if (!root_) return;
  dropped_.push_back(root_);
  root_ = nullptr;
}

Status WatchTable::fsAddWatchTree(const char* path, bool recursive) {
  if (!recursive) return fsAddWatch(path);
  return fsWalkTree(path, {.dir = [this](const char* dir) { return fsAddWatch(dir); }}, true);
}

Status WatchTable::fsRemoveWatch(const char* path) {
  std::vector<int> descriptors;
  WatchNode* node = nullptr;
  {
    MutexLock lock(mutex_);
    node = fsFindWatch(path, root_);
    if (!node) return Status::error(ENOENT, std::string("not watched: ") + path);
    if (node->parent) {
      WatchNode** link = &node->parent->first_child;
      while (*link != node) link = &(*link)->next;
      *link = node->next;
    } else {
      // Root level: the whole root list leaves the trie. The other trees in
      // it stay watched and indexed, so they are kept as dropped.
      WatchNode** link = &root_;
      while (*link != node) link = &(*link)->next;
      *link = node->next;
      dropRootList();
    }
    node->next = nullptr;
    node->parent = nullptr;
    // The index entries go while the lock is held: the event loop must never
    // find a node that is about to be freed. Depth first, children in list
    // order, each node before its children.
    std::vector<WatchNode*> stack{node};
    while (!stack.empty()) {
      WatchNode* current = stack.back();
      stack.pop_back();
      descriptors.push_back(current->wd);
      (void)index_.remove(current->wd);
      std::vector<WatchNode*> children;
      for (WatchNode* child = current->first_child; child; child = child->next) children.push_back(child);
      stack.insert(stack.end(), children.rbegin(), children.rend());
    }
  }
  // Nothing refers to the subtree any more: the kernel's watches and the
  // memory go without the lock.
  for (const int wd : descriptors) (void)::inotify_rm_watch(inotify_.get(), wd);
  freeNodes(node);
  return Status();
}

bool WatchTable::fullPath(const WatchNode* node, FsPathBuffer& buffer) {
  // Built backwards from the end of the buffer, then moved to its start.
  std::size_t start = kFsPathMax;
  buffer[start] = '\0';
  for (const WatchNode* n = node; n; n = n->parent) {
    const std::size_t len = n->name.size();
    const std::size_t needed = len + (n == node ? 0 : 1);
    if (needed > start) return false;
    if (n != node) buffer[--start] = '/';
    start -= len;
    std::memcpy(buffer.data() + start, n->name.data(), len);
  }
  std::memmove(buffer.data(), buffer.data() + start, kFsPathMax - start + 1);
  return true;
}

void WatchTable::moveNode(WatchNode* node, WatchNode* new_parent, const char* name) {
  if (!node->parent || !new_parent) return;
  for (const WatchNode* n = new_parent; n; n = n->parent)
    if (n == node) return;  // would hang the subtree below itself
  std::string new_name(name);
  WatchNode** link = &node->parent->first_child;
  while (*link != node) link = &(*link)->next;
  *link = node->next;
  node->parent = new_parent;
  node->next = new_parent->first_child;
  new_parent->first_child = node;
  node->name = std::move(new_name);
}

std::vector<std::string> WatchTable::watchedPaths() {
  std::vector<std::string> paths;
  MutexLock lock(mutex_);
  std::vector<const WatchNode*> stack;
  for (const WatchNode* n = root_; n; n = n->next) stack.push_back(n);
  FsPathBuffer buffer;
  while (!stack.empty()) {
    const WatchNode* node = stack.back();
    stack.pop_back();
    if (node->wd != 0 && fullPath(node, buffer)) paths.emplace_back(buffer.data());
    for (const WatchNode* c = node->first_child; c; c = c->next) stack.push_back(c);
  }
  return paths;
}

std::vector<int> WatchTable::indexedDescriptors() {
  MutexLock lock(mutex_);
  return index_.descriptors();
}

int WatchTable::descriptorOf(const char* path) {
  MutexLock lock(mutex_);
  const WatchNode* node = fsFindWatch(path, root_);
  return node ? node->wd : -1;
}

}  // namespace zibd
