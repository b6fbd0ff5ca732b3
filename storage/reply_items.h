// Walks the parameter values of a bus reply, as the disk, partition and
// index-rule readers need them.
#pragma once

#include "platform/dynstr.h"
#include "platform/rill.h"

namespace zibd {

// Calls fn(name, value) for each item of a values reply that carries no error
// and has a name; value may be null. Does nothing for any other reply.
template <typename Fn>
void forEachReplyValue(rill_reply_t* reply, Fn&& fn) {
  if (!reply || rill_reply_get_kind(reply) != RILL_REPLY_VALUES) return;
  const llist_t* items = rill_reply_get_items(reply);
  for (int i = 0; i < llist_getlength(items); ++i) {
    const rill_cmddata_t* item = rill_cmddata_getat(items, i);
    if (!item || rill_cmddata_error_get(item) != 0) continue;
    const char* name = dynstr_getstring(rill_cmddata_name_get(item));
    if (!name) continue;
    fn(name, rill_cmddata_value_get(item));
  }
}

}  // namespace zibd
