// The records behind the opaque handles of platform/dynstr.h and
// platform/rill.h, shared by the C library's source files.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/rill/wire.h"
#include "platform/rill.h"

struct dynstr {
  std::string text;
};

struct rill_cmddata {
  std::unique_ptr<dynstr> path, name, value;  // null when absent
  int error = 0;
};

struct llist {
  std::vector<std::unique_ptr<rill_cmddata>> items;
};

// Replies and notifications live on the stack of the call that hands them to
// a callback; items point into a list owned by that call.
struct rill_reply {
  int kind = RILL_REPLY_VALUES;
  llist* items = nullptr;
};

struct rill_notification {
  int type = 0;
  uint32_t subid = 0;
  llist* items = nullptr;
};

namespace zibd::rill {

// Runs f, turning any exception into fallback: no exception may cross the C
// boundary.
template <typename T, typename F>
T guarded(T fallback, F&& f) noexcept {
  try {
    return f();
  } catch (...) {
    return fallback;
  }
}

std::unique_ptr<dynstr> makeDynstr(const std::optional<std::string>& text);
void appendItems(llist* list, const std::vector<Item>& items);

// Hands a read's answer to reply_fn: a reply holding items, or NULL when the
// read failed (ok false). Returns reply_fn's result.
int deliverReply(bool ok, const std::vector<Item>& items, rill_reply_fn reply_fn, void* context);

}  // namespace zibd::rill
