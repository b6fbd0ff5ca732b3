// The table of inotify watches: one inotify instance, a trie of the watched
// directories' path components, and an index from watch descriptor to trie
// node. The watcher thread adds whole trees and removes them; the event loop
// on the main thread looks descriptors up, follows directory moves in the
// trie and adds or removes single directories.
//
// Lock order: docs/code-map.md. The table's mutex is never held across a call
// out of this file other than inotify_add_watch.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "common/mutex.h"
#include "common/status.h"
#include "common/walk.h"

namespace zibd {

// Every watch asks for IN_CLOSE_WRITE, IN_MOVED_FROM, IN_MOVED_TO, IN_CREATE,
// IN_DELETE, IN_UNMOUNT, IN_Q_OVERFLOW and IN_IGNORED; the event loop masks
// events with the same value.
inline constexpr std::uint32_t kFsWatchMask = 0xE3C8;

struct WatchNode;

// A node's place in the descriptor index (WatchIndex). It lives inside the
// node it indexes, so that a watched directory costs one allocation.
struct WatchIndexEntry {
  WatchNode* left = nullptr;   // smaller descriptors
  WatchNode* right = nullptr;  // larger descriptors
};

// One path component. A root-level node's name keeps the leading '/' of the
// absolute path ("/var"); deeper names hold no '/'. wd is 0 for a node that
// only stands for an ancestor of watched directories.
struct WatchNode {
  std::string name;
  int wd = 0;
  WatchNode* parent = nullptr;
  WatchNode* next = nullptr;         // next sibling
  WatchNode* first_child = nullptr;  // children: new ones at the head
  WatchIndexEntry index;
};

// Compares a node's name with (the rest of) a path. Returns 0 when they are
// equal, or when either is null or empty; -1 at the first differing
// character; 1 when the path continues beyond the name (after an optional
// '/'); 2 when the name continues beyond the path. *matched gets the number of
// equal leading characters.
int fsComparePath(const char* name, const char* path, std::size_t* matched);

// Finds the node whose full path is path, searching the sibling list that
// starts at list and their descendants; null when there is none.
WatchNode* fsFindWatch(const char* path, WatchNode* list);

// Watch descriptor -> node: an unbalanced binary search tree, as descriptors
// come in rising order it is mostly a chain to the right. Removal replaces an
// entry by one child only: the left one when the right child's descriptor lies
// nearer to the entry's than the left child's does, else the right one (a
// missing child counts as distance 0). The other child's subtree leaves the
// index. The entries are the nodes' own (WatchNode::index); the index never
// frees a node.
class WatchIndex {
 public:
  WatchIndex() = default;
  WatchIndex(const WatchIndex&) = delete;
  WatchIndex& operator=(const WatchIndex&) = delete;

  // Enters node under its descriptor (node->wd). Fails with EEXIST when
  // that descriptor is already present.
  Status insert(WatchNode* node);
  // Fails with ENOENT when wd is not present.
  Status remove(int wd);
  WatchNode* find(int wd) const;
  // Descriptors in the index, in ascending order (tests, diagnostics).
  std::vector<int> descriptors() const;
  // Forgets every entry without touching the nodes (they are about to go).
  void clear() {
    root_ = nullptr;
    rightmost_ = nullptr;
  }

 private:
  static void detach(WatchNode* subtree);
  WatchNode* root_ = nullptr;
  // The node with the largest descriptor, or null when unknown. The kernel
  // hands out rising descriptors, and a descriptor above every other one
  // ends its walk there: inserting it takes no walk down the chain.
  WatchNode* rightmost_ = nullptr;
};

class WatchTable {
 public:
  // add_aborted is the watcher's stop flag (WatchRequestQueue::addAbortedFlag):
  // while it is set every add returns Status::stopped().
  explicit WatchTable(const std::atomic<int>& add_aborted) : add_aborted_(add_aborted) {}
  // Frees every node, including those the table's rules have dropped from the
  // trie, and closes the inotify instance. Shutdown leaves the watches to
  // this (the daemon's end), not to a removal of each tree.
  ~WatchTable();
  WatchTable(const WatchTable&) = delete;
  WatchTable& operator=(const WatchTable&) = delete;

  // Makes the inotify instance (close-on-exec). Never fails: a failure of
  // inotify is kept as it comes, and the daemon goes on indexing without
  // watches (every add then fails with inotify_add_watch's EBADF).
  Status fsInitWatch() EXCLUDES(mutex_);

  // Watches one directory. Succeeds too when there is nothing to do (the
  // path is already in the trie, even only as an ancestor; its last component
  // is ".kord"). Stopped while the add-aborted flag is set. Fails with the
  // errno of inotify_add_watch, with EINVAL for a relative path (which still
  // gets a kernel watch, unrecorded) and with EEXIST for a descriptor already
  // in the table.
  Status fsAddWatch(const char* path) EXCLUDES(mutex_);

  // With recursive set, watches path and every non-hidden directory below it,
  // parents first; the walk stops at the first add that does not succeed.
  // Otherwise one fsAddWatch. Returns the walk's (or the add's) result.
  Status fsAddWatchTree(const char* path, bool recursive) EXCLUDES(mutex_);

  // Drops path and everything below it from the table and the kernel.
  // Removing a root-level node empties the whole trie (the other root-level
  // trees stay watched and indexed, but can no longer be found by path).
  // Fails with ENOENT when the path is not in the table.
  Status fsRemoveWatch(const char* path) EXCLUDES(mutex_);

  // The inotify descriptor the event loop reads (negative when none).
  int descriptor() const { return inotify_.get(); }

  // --- for the event loop, under the table's mutex ---
  Mutex& mutex() RETURN_CAPABILITY(mutex_) { return mutex_; }
  WatchNode* findPath(const char* path) REQUIRES(mutex_) { return fsFindWatch(path, root_); }
  WatchNode* findDescriptor(int wd) const REQUIRES(mutex_) { return index_.find(wd); }
  // Writes the node's full path into buffer; false when it does not fit.
  static bool fullPath(const WatchNode* node, FsPathBuffer& buffer);
  // Moves node (which has a parent) under new_parent as name, with its whole
  // subtree: the kernel's watches stay as they are. Does nothing when
  // new_parent lies inside node's subtree.
  void moveNode(WatchNode* node, WatchNode* new_parent, const char* name) REQUIRES(mutex_);

  // --- inspection for tests ---
  // Full paths of the nodes reachable from the trie that have a watch.
  std::vector<std::string> watchedPaths() EXCLUDES(mutex_);
  std::vector<int> indexedDescriptors() EXCLUDES(mutex_);
  // The descriptor recorded for path; -1 when path is not in the trie.
  int descriptorOf(const char* path) EXCLUDES(mutex_);

 private:
  Status insert(const char* path, int wd) REQUIRES(mutex_);
  Status indexNode(WatchNode* node, int wd) REQUIRES(mutex_);
  void dropRootList() REQUIRES(mutex_);
  static void freeNodes(WatchNode* list);

  const std::atomic<int>& add_aborted_;
  FileDescriptor inotify_;
  Mutex mutex_;
  WatchNode* root_ GUARDED_BY(mutex_) = nullptr;
  WatchIndex index_ GUARDED_BY(mutex_);
  // Root-level lists that a new root-level node or a root-level removal put
  // out of the trie. Their watches stay indexed, so the nodes live on until
  // the table is destroyed.
  std::vector<WatchNode*> dropped_ GUARDED_BY(mutex_);
};

}  // namespace zibd
