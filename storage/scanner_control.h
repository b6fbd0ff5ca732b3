// What the storage model asks of the scanner when storage goes away. The
// scanner implements it; frame/ wires it in.
#pragma once

#include <string>

namespace zibd {

class ScannerControl {
 public:
  virtual ~ScannerControl() = default;

  // Stops the work that concerns path: drops the queued requests at and below
  // it, stops a running database cleanup, aborts a scan inside path and kills
  // its profiler. Returns once the scanner is idle. Called with the storage
  // lock held (the scanner never takes it while the caller waits).
  virtual void stopBelow(const std::string& path) = 0;

  // Stops all scanning and profiling in progress, as stopBelow does for the
  // whole storage, when the metadata storage is lost. Returns once the
  // scanner is idle.
  virtual void stopAll() = 0;

  // The tag store's configuration has been emptied: the scanner closes its
  // handle on the database soon (on its own thread), so that nothing of this
  // process keeps the lost disk busy; it opens a new one for its next request.
  // Does not wait.
  virtual void releaseTagStore() = 0;
};

}  // namespace zibd
