#include "scan/kord_bulk.h"

namespace zibd {

void renewBulk(KordBulk& bulk) {
  if (bulk) {
    // A failed commit loses nothing that a later scan does not tag again.
    (void)kord_bulk_commit(bulk.get());
    (void)kord_bulk_commit(bulk.get());
  }
  bulk.reset();
  bulk.reset(kord_bulk_init());
}

}  // namespace zibd
