#include "bus/notification_handler.h"

#include <optional>

#include "common/tag_names.h"
#include "platform/dynstr.h"
#include "platform/kord.h"
#include "scan/kord_bulk.h"

namespace zibd {
namespace {

constexpr char kMetadataService[] = "VFS.MetaDataService";

std::optional<std::string> text(const dynstr_t* value) {
  const char* s = dynstr_getstring(value);
  if (!s) return std::nullopt;
  return std::string(s);
}

}  // namespace

bool valueChangeBoolean(const char* value) {
  return value && value[0] != '\0' && value[0] != '0' && value[0] != 'f';
}

int NotificationHandler::callback(rill_notification_t* notification, void* context) noexcept {
  try {
    return static_cast<NotificationHandler*>(context)->handle(notification);
  } catch (...) {
    // Out of memory while handling: the rest of the notification is lost.
    return -1;
  }
}

int NotificationHandler::handle(rill_notification_t* notification) {
  if (!notification) return 0;
  const llist_t* items = rill_notification_get_items(notification);
  const int count = llist_getlength(items);
  const int type = rill_notification_get_type(notification);
  const uint32_t id = rill_notification_get_subid(notification);
  int result = 0;
  for (int i = 0; i < count; ++i) {
    const rill_cmddata_t* item = rill_cmddata_getat(items, i);
    if (!item) continue;
    const std::optional<std::string> path = text(rill_cmddata_path_get(item));
    if (id == ids_[kSlotForceRescan]) {
      result = forceRescan(item);
    } else if (id == ids_[kSlotDisks]) {
      if (!path) continue;
      if (type == RILL_EVENT_OBJECT_ADDED) storage_.addDisk(*path);
      if (type == RILL_EVENT_OBJECT_REMOVED) storage_.removeDisk(*path, false);
    } else if (id == ids_[kSlotUnmount]) {
      result = unmount(type, item);
    } else if (id == ids_[kSlotPartitions]) {
      if (path) partitions(type, *path);
    } else if (id == ids_[kSlotManaged]) {
      result = managed(item);
    } else if (id == ids_[kSlotIndexRules]) {
      indexRule(type, item);
    }
  }
  return result;
}

int NotificationHandler::forceRescan(const rill_cmddata_t* item) {
  long value = 0;
  const int result = dynstr_getlong(rill_cmddata_value_get(item), &value);
  if (result != 0 || value != 1) return result;
  storage_.queueForcedRescan(scans_);
  (void)storage_.setBusValue(kMetadataService, "ForceRescan", "0");
  return result;
}

int NotificationHandler::unmount(int type, const rill_cmddata_t* item) {
  if (type != RILL_EVENT_VALUE_CHANGED) return 0;
  long value = 0;
  const int result = dynstr_getlong(rill_cmddata_value_get(item), &value);
  const std::optional<std::string> path = text(rill_cmddata_path_get(item));
  if (result == 0 && value == 1 && path) storage_.removeDisk(*path, true);
  return result;
}

void NotificationHandler::partitions(int type, const std::string& path) {
  if (type == RILL_EVENT_OBJECT_ADDED) {
    storage_.addPartition(path);
  } else if (type == RILL_EVENT_OBJECT_REMOVED) {
    storage_.removePartition(path);
  }
}

int NotificationHandler::managed(const rill_cmddata_t* item) {
  long value = 0;
  const int result = dynstr_getlong(rill_cmddata_value_get(item), &value);
  if (result != 0) return result;
  const std::optional<std::string> path = text(rill_cmddata_path_get(item));
  const StorageModel::ManagedChange change = storage_.setManaged(path.value_or(""), value != 0);
  if (!change.now_managed && !change.no_longer_managed) return result;
  const bool switched = !profiling_.busy();
  if (switched) profiling_.set(1);
  setInvisible(change.now_managed, change.no_longer_managed);
  if (switched) profiling_.set(0);
  return result;
}

void NotificationHandler::setInvisible(const std::optional<std::string>& hidden,
                                       const std::optional<std::string>& shown) {
  KordBulk bulk(kord_bulk_init());
  if (!bulk) return;
  if (hidden) {
    // Everything on the managed disk is hidden from the media server except
    // its Media directory.
    const std::string media = *hidden + "/Media";
    if (kord_bulk_setpath(bulk.get(), hidden->c_str()) == 0 &&
        kord_bulk_settag_recursive(bulk.get(), kTagInvisible, "1") == 0 &&
        kord_bulk_setpath(bulk.get(), media.c_str()) == 0 &&
        kord_bulk_settag_recursive(bulk.get(), kTagInvisible, "0") == 0)
      kord_bulk_commit(bulk.get());
  }
  if (shown) {
    if (kord_bulk_setpath(bulk.get(), shown->c_str()) == 0 &&
        kord_bulk_settag_recursive(bulk.get(), kTagInvisible, "0") == 0)
      kord_bulk_commit(bulk.get());
  }
}

void NotificationHandler::indexRule(int type, const rill_cmddata_t* item) {
  const std::optional<std::string> path = text(rill_cmddata_path_get(item));
  const std::string& root = storage_.config().root;
  if (type == RILL_EVENT_OBJECT_ADDED) {
    if (!path) return;
    (void)rules_.readRule(storage_.connection(), *path);
    if (auto rule = rules_.findRule(*path); rule && rule->path) scans_.enqueue(*rule->path, kScanRuleDirectory);
  } else if (type == RILL_EVENT_OBJECT_REMOVED) {
    if (!path) return;
    auto rule = rules_.findRule(*path);
    if (!rule) return;
    rules_.removeRule(*path);
    scans_.enqueue(root, kScanStorageRoot);
    if (rule->path) scans_.enqueue(*rule->path, kScanRuleDirectory);
  } else if (type == RILL_EVENT_VALUE_CHANGED) {
    const std::optional<std::string> name = text(rill_cmddata_name_get(item));
    const std::optional<std::string> value = text(rill_cmddata_value_get(item));
    if (path && name && value) {
      rules_.changeRule(*path, [&](IndexRule& rule) {
        const auto setBit = [&](uint32_t bit) {
          if (valueChangeBoolean(value->c_str())) rule.categories |= bit;
          else rule.categories &= ~bit;
        };
        // "Enable" and "Status" write the same flag: the later one decides.
        if (*name == "Enable") rule.enabled = valueChangeBoolean(value->c_str()) ? 1 : 0;
        else if (*name == "Status") rule.enabled = *value == "Up" ? 1 : 0;
        else if (*name == "EnableMovie") setBit(kCategoryMovies);
        else if (*name == "EnableMusic") setBit(kCategoryMusic);
        else if (*name == "EnablePicture") setBit(kCategoryPictures);
      });
    }
    if (!path) return;
    if (auto rule = rules_.findRule(*path)) {
      scans_.enqueue(root, kScanStorageRoot);
      if (rule->path) scans_.enqueue(*rule->path, kScanRuleDirectory);
    }
  }
}

}  // namespace zibd
