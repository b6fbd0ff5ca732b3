#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <charconv>

#include "host/rill/api_types.h"
#include "platform/dynstr.h"

namespace zibd::rill {

std::unique_ptr<dynstr> makeDynstr(const std::optional<std::string>& text) {
  if (!text) return nullptr;
  auto str = std::make_unique<dynstr>();
  str->text = *text;
  return str;
}

void appendItems(llist* list, const std::vector<Item>& items) {
  for (const Item& item : items) {
    auto data = std::make_unique<rill_cmddata>();
    data->path = makeDynstr(item.path);
    data->name = makeDynstr(item.name);
    data->value = makeDynstr(item.value);
    data->error = static_cast<int>(item.error);
    list->items.push_back(std::move(data));
  }
}

int deliverReply(bool ok, const std::vector<Item>& items, rill_reply_fn reply_fn, void* context) {
  if (!ok) return reply_fn(nullptr, context);
  llist list;
  appendItems(&list, items);
  rill_reply_t reply;
  reply.items = &list;
  return reply_fn(&reply, context);
}

namespace {

// The whole text as a decimal number of type T: no blanks, no "+", no
// trailing characters, within range. from_chars refuses a "-" for unsigned
// types.
template <typename T>
int parseDecimal(const dynstr_t* str, T* value) {
  if (!str || !value || str->text.empty()) return -1;
  const char* begin = str->text.data();
  const char* end = begin + str->text.size();
  T parsed{};
  auto [stop, ec] = std::from_chars(begin, end, parsed, 10);
  if (ec != std::errc() || stop != end) return -1;
  *value = parsed;
  return 0;
}

}  // namespace

}  // namespace zibd::rill

extern "C" {

const char* dynstr_getstring(const dynstr_t* str) { return str ? str->text.c_str() : nullptr; }

int dynstr_getbool(const dynstr_t* str, int* value) {
  if (!str || !value) return -1;
  const char* text = str->text.c_str();
  for (const char* word : {"1", "true", "yes", "on"}) {
    if (::strcasecmp(text, word) == 0) {
      *value = 1;
      return 0;
    }
  }
  for (const char* word : {"0", "false", "no", "off"}) {
    if (::strcasecmp(text, word) == 0) {
      *value = 0;
      return 0;
    }
  }
  return -1;
}

int dynstr_getlong(const dynstr_t* str, long* value) { return zibd::rill::parseDecimal(str, value); }

int dynstr_getulong(const dynstr_t* str, unsigned long* value) {
  return zibd::rill::parseDecimal(str, value);
}

char* dynstr_strdup(const dynstr_t* str) { return str ? ::strdup(str->text.c_str()) : nullptr; }

int dynstr_strcmp2(const dynstr_t* str, const char* s) {
  if (!str) return s ? -1 : 0;
  if (!s) return 1;
  return ::strcmp(str->text.c_str(), s);
}

dynstr_t* dynstr_fromstring(int pool, const char* text) {
  (void)pool;  // one heap serves every pool on the host
  if (!text) return nullptr;
  return zibd::rill::guarded<dynstr_t*>(nullptr, [&] { return new dynstr{text}; });
}

void dynstr_free(dynstr_t* str) { delete str; }

int llist_getlength(const llist_t* list) {
  return list ? static_cast<int>(list->items.size()) : 0;
}

}  // extern "C"
