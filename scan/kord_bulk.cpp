#include "scan/kord_bulk.h"

namespace zibd {

Status renewBulk(KordBulk& bulk) {
  bool stored = true;
  if (bulk) {
    // Both are asked: the second one writes what the first may have left.
    stored = kord_bulk_commit(bulk.get()) == 0;
    stored = kord_bulk_commit(bulk.get()) == 0 && stored;
  }
  bulk.reset();
  bulk.reset(kord_bulk_init());
  if (!stored) return Status::error(EIO, "kord_bulk_commit");
  return Status();
}

}  // namespace zibd
