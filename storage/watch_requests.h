// What the storage model asks of the filesystem watcher when partitions come
// and go. The watch request queue implements it; frame/ wires it in.
#pragma once

#include <string>

namespace zibd {

class WatchRequests {
 public:
  virtual ~WatchRequests() = default;

  // Queues a recursive add of watches over the tree at path. Any thread;
  // returns at once.
  virtual void fsQueueAddWatch(const std::string& path) = 0;

  // Queues the removal of the watches at and below path; when the tree being
  // added now lies there, stops that add and returns once it has stopped.
  virtual void fsQueueRemoveWatch(const std::string& path) = 0;
};

}  // namespace zibd
