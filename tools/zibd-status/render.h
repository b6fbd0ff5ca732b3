// The status as lines of text: the same lines for the one-shot form (plain,
// stable, for scripts) and for the live view (which adds a clock line, fits
// them to the terminal and draws them in place).
#pragma once

#include <time.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/zibd-status/snapshot.h"

namespace zibd::status {

// Text from the outside world made safe to print: printable ASCII and valid
// UTF-8 stay as they are; control characters (C0, DEL and C1), bytes that are
// not valid UTF-8 and, unless the text is already escaped (the event log
// escapes backslashes itself), a backslash are written as "\xHH" ("\\").
std::string displayText(std::string_view raw, bool already_escaped = false);

// The number of terminal columns a displayText result takes (one per
// character), and the line cut to at most `columns` of them.
std::size_t displayWidth(std::string_view text);
std::string fitWidth(std::string_view text, std::size_t columns);

// "NAME<TAB>CODE<TAB>PATH" as "NAME  CODE  PATH", every field displayable.
std::string formatEvent(std::string_view line);

// A bar of `width` characters for done out of total: "[#####-----]".
std::string progressBar(std::uint64_t done, std::uint64_t total, std::size_t width);

// How far profiling has come since the view first saw the current run.
struct Progress {
  std::uint64_t total = 0;  // the most files seen waiting during the run
  std::uint64_t done = 0;   // of those, no longer waiting
};

// Follows the waiting count from snapshot to snapshot. A run begins when
// files wait and ends when none wait and "ProfilingStatus" is "Ready";
// progress is shown only while the status is "Profiling". The daemon drops a
// file's ".s.tbp" (with its ".s.filetype") once profiled, so the tag store
// itself keeps no count of a run's profiled files: only a view that watched
// the run can draw a bar, which is why the one-shot form prints none.
class ProgressTracker {
 public:
  std::optional<Progress> update(const Snapshot& snapshot);

 private:
  std::uint64_t peak_ = 0;
};

struct RenderOptions {
  std::optional<time_t> clock;   // the live view's clock line
  std::optional<Progress> progress;
  std::size_t max_events = 10;   // the latest change events shown
  std::size_t bar_width = 30;
};

std::vector<std::string> renderLines(const Snapshot& snapshot, const EventLog& events,
                                     const RenderOptions& options);

// The number of lines renderLines gives before its event lines.
std::size_t linesBeforeEvents(const Snapshot& snapshot, const EventLog& events,
                              const RenderOptions& options);

}  // namespace zibd::status
