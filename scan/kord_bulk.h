// Ownership of the scanner's tag-store bulk handle.
#pragma once

#include <memory>

#include "common/status.h"
#include "platform/kord.h"

namespace zibd {

struct KordBulkCloser {
  void operator()(kord_bulk_t* handle) const noexcept { kord_bulk_fini(handle); }
};
// The one handle through which the scanner writes tags. Null when the tag
// store could not give one.
using KordBulk = std::unique_ptr<kord_bulk_t, KordBulkCloser>;

// Ends one phase of tag writing: commits the handle twice, closes it and opens
// a fresh one (null when that fails). A null handle is only reopened. Fails
// with EIO when a commit failed: what the phase wrote may be lost.
Status renewBulk(KordBulk& bulk);

}  // namespace zibd
