#include "scan/kord_bulk.h"

namespace zibd {

bool renewBulk(KordBulk& bulk) {
  bool stored = true;
  if (bulk) {
    // Both are asked: the second one writes what the first may have left.
    stored = kord_bulk_commit(bulk.get()) == 0;
    stored = kord_bulk_commit(bulk.get()) == 0 && stored;
  }
  bulk.reset();
  bulk.reset(kord_bulk_init());
  return stored;
}

}  // namespace zibd
