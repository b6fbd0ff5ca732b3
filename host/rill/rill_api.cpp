// The C client library of platform/rill.h on top of zibd::rill::Client.

#include "host/rill/api_types.h"
#include "host/rill/conn.h"
#include "host/rill/path.h"
#include "platform/rill.h"

using zibd::rill::call;
using zibd::rill::guarded;
using zibd::rill::kInvalid;
using zibd::rill::kLost;
using zibd::rill::Op;
using zibd::rill::Reply;
using zibd::rill::Request;
using zibd::rill::Status;

namespace {

// The only pool there is (dynstr_fromstring ignores it).
constexpr int kPool = 1;

struct Command {
  std::vector<Request> requests;
  std::unique_ptr<llist> answers;  // of the last invoke
};

Command* commandOf(rill_ccmd_t* cmd) {
  if (!cmd->impl) cmd->impl = new Command;
  return static_cast<Command*>(cmd->impl);
}

int statusCode(Status status) { return static_cast<int>(status); }

// One request's answer turned into answer items: reads answer their values;
// other requests one item with what was asked and the error word.
void addAnswers(llist* answers, const Request& request, const Reply& reply) {
  if (request.op == Op::kGetValues && reply.status == Status::kOk) {
    zibd::rill::appendItems(answers, reply.items);
    return;
  }
  zibd::rill::Item item;
  item.path = request.path;
  item.name = request.name;
  if (request.op == Op::kSubscribe && reply.status == Status::kOk) item.value = std::to_string(reply.number);
  item.error = static_cast<uint32_t>(reply.status);
  zibd::rill::appendItems(answers, {item});
}

// Calls the reply callback for a read's answer. The connection is not locked
// here, so the callback may use it.
int deliverRead(const Reply& reply, rill_reply_fn reply_fn, void* context) {
  const bool ok = reply.status == Status::kOk;
  if (!reply_fn) return ok ? 0 : statusCode(reply.status);
  const int rc = zibd::rill::deliverReply(ok, reply.items, reply_fn, context);
  return ok ? 0 : rc;
}

// Runs every request of the command in order. Errors of requests other than
// reads count only when errors_fail (subscription commands report them in
// their answer items instead).
int runCommand(rill_conn_t* conn, rill_ccmd_t* cmd, rill_reply_fn reply_fn, void* context,
               bool errors_fail) {
  Command* command = commandOf(cmd);
  command->answers = std::make_unique<llist>();
  int result = 0;
  for (const Request& request : command->requests) {
    std::optional<Reply> reply = call(conn, request);
    if (!reply) return kLost;
    addAnswers(command->answers.get(), request, *reply);
    int rc = 0;
    if (request.op == Op::kGetValues) {
      rc = deliverRead(*reply, reply_fn, context);
    } else if (errors_fail) {
      rc = statusCode(reply->status);
    }
    if (result == 0) result = rc;
  }
  return result;
}

int addRequest(rill_ccmd_t* cmd, Request request) {
  commandOf(cmd)->requests.push_back(std::move(request));
  return 0;
}

}  // namespace

extern "C" {

rill_conn_t* rill_ctx_create_client_connection(const char* client_name, int flags) {
  (void)flags;
  return guarded<rill_conn_t*>(nullptr, [&]() -> rill_conn_t* {
    auto conn = std::make_unique<rill_conn>();
    if (!conn->client.connect(client_name ? client_name : "")) return nullptr;
    return conn.release();
  });
}

int rill_ccmd_add_getvalues_request(rill_conn_t* conn, rill_ccmd_t* cmd, const char* path, int a,
                                    int b, int c, int d) {
  (void)a, (void)b, (void)c, (void)d;  // read tuning of the gateway's library
  if (!conn || !cmd || !path || !zibd::rill::parsePattern(path)) return kInvalid;
  return guarded(kInvalid, [&] {
    Request request;
    request.op = Op::kGetValues;
    request.path = path;
    return addRequest(cmd, std::move(request));
  });
}

int rill_ccmd_add_setvalues_request(rill_conn_t* conn, rill_ccmd_t* cmd, const char* object,
                                    const char* parameter, dynstr_t* value, int flags) {
  (void)flags;
  std::unique_ptr<dynstr> owned(value);
  if (!conn || !cmd || !object || !parameter || !owned || !zibd::rill::parseObjectPath(object) ||
      !zibd::rill::isName(parameter)) {
    return kInvalid;
  }
  return guarded(kInvalid, [&] {
    Request request;
    request.op = Op::kSetValue;
    request.path = object;
    request.name = parameter;
    request.value = std::move(owned->text);
    return addRequest(cmd, std::move(request));
  });
}

int rill_ccmd_add_subscribe_request(rill_conn_t* conn, rill_ccmd_t* cmd, const char* path,
                                    const char* parameter, int flags, unsigned mask) {
  (void)flags;
  const unsigned known = zibd::rill::kMaskAdded | zibd::rill::kMaskRemoved | zibd::rill::kMaskValue;
  if (!conn || !cmd || !path || !zibd::rill::parsePattern(path) || !(mask & known) ||
      (parameter && !zibd::rill::isName(parameter))) {
    return kInvalid;
  }
  return guarded(kInvalid, [&] {
    Request request;
    request.op = Op::kSubscribe;
    request.path = path;
    if (parameter) request.name = parameter;
    request.number = mask;
    return addRequest(cmd, std::move(request));
  });
}

int rill_invoke_ccmd(rill_conn_t* conn, rill_ccmd_t* cmd, rill_reply_fn reply_fn, void* context) {
  if (!conn || !cmd) return kInvalid;
  return guarded(kLost, [&] { return runCommand(conn, cmd, reply_fn, context, true); });
}

int rill_invoke_ccmd_subscribe(rill_conn_t* conn, rill_ccmd_t* cmd, int flags,
                               rill_notify_fn notify_fn, void* context) {
  (void)flags;
  if (!conn || !cmd) return kInvalid;
  return guarded(kLost, [&] {
    {
      // The notification connection exists before the first subscription,
      // so that no notification of it is lost.
      zibd::MutexLock request_lock(conn->request_mutex);
      zibd::MutexLock notify_lock(conn->notify_mutex);
      if (!conn->client.attachNotify()) return kLost;
      conn->notify_fn = notify_fn;
      conn->notify_context = context;
    }
    return runCommand(conn, cmd, nullptr, nullptr, false);
  });
}

llist_t* rill_ccmd_get_answers(rill_ccmd_t* cmd) {
  if (!cmd || !cmd->impl) return nullptr;
  return static_cast<Command*>(cmd->impl)->answers.get();
}

void rill_ccmd_cleanup(rill_ccmd_t* cmd) {
  if (!cmd) return;
  delete static_cast<Command*>(cmd->impl);
  cmd->impl = nullptr;
}

int rill_getnotifylistensocket(rill_conn_t* conn) {
  if (!conn) return -1;
  return guarded(-1, [&] {
    zibd::MutexLock request_lock(conn->request_mutex);
    zibd::MutexLock notify_lock(conn->notify_mutex);
    return conn->client.attachNotify() ? conn->client.notifications().fd() : -1;
  });
}

int rill_msg_parse(int socket, rill_conn_t* conn) {
  (void)socket;  // always the connection's own notification socket
  if (!conn) return kInvalid;
  return guarded(kLost, [&] {
    std::vector<zibd::rill::Notification> notifications;
    rill_notify_fn notify_fn;
    void* context;
    bool alive;
    {
      zibd::MutexLock lock(conn->notify_mutex);
      notifications = conn->client.notifications().takeNotifications(&alive);
      notify_fn = conn->notify_fn;
      context = conn->notify_context;
    }
    // Callbacks run unlocked: they may read from the bus on this connection.
    for (const auto& n : notifications) {
      if (!notify_fn) break;
      llist items;
      zibd::rill::appendItems(&items, n.items);
      rill_notification_t notification;
      notification.type = static_cast<int>(n.event);
      notification.subid = n.subscription;
      notification.items = &items;
      notify_fn(&notification, context);
    }
    return alive ? 0 : kLost;
  });
}

int rill_invoke_unregister(rill_conn_t* conn) {
  if (!conn) return kInvalid;
  zibd::MutexLock lock(conn->notify_mutex);
  conn->notify_fn = nullptr;
  conn->notify_context = nullptr;
  return 0;
}

void rill_ctx_reset(rill_conn_t* conn) {
  if (!conn) return;
  zibd::MutexLock request_lock(conn->request_mutex);
  zibd::MutexLock notify_lock(conn->notify_mutex);
  conn->client.close();
}

void rill_ctx_free(rill_conn_t* conn) { delete conn; }

int rill_invoke_get_client_writelock(rill_conn_t* conn, int timeout_s, int flags) {
  (void)flags;  // -1, the default, is all there is
  if (!conn) return kInvalid;
  return guarded(kLost, [&] {
    zibd::MutexLock lock(conn->request_mutex);
    auto status = conn->client.lock(timeout_s);
    return status ? statusCode(*status) : kLost;
  });
}

int rill_invoke_free_client_writelock(rill_conn_t* conn) {
  if (!conn) return kInvalid;
  return guarded(kLost, [&] {
    Request request;
    request.op = Op::kUnlock;
    auto reply = call(conn, request);
    return reply ? statusCode(reply->status) : kLost;
  });
}

int rill_dynstr_poolid(void) { return kPool; }

rill_cmddata_t* rill_cmddata_getat(const llist_t* items, int index) {
  if (!items || index < 0 || static_cast<size_t>(index) >= items->items.size()) return nullptr;
  return items->items[static_cast<size_t>(index)].get();
}

dynstr_t* rill_cmddata_path_get(const rill_cmddata_t* item) { return item ? item->path.get() : nullptr; }
dynstr_t* rill_cmddata_name_get(const rill_cmddata_t* item) { return item ? item->name.get() : nullptr; }
dynstr_t* rill_cmddata_value_get(const rill_cmddata_t* item) { return item ? item->value.get() : nullptr; }
int rill_cmddata_error_get(const rill_cmddata_t* item) { return item ? item->error : kInvalid; }

int rill_reply_get_kind(const rill_reply_t* reply) { return reply ? reply->kind : kInvalid; }
llist_t* rill_reply_get_items(const rill_reply_t* reply) { return reply ? reply->items : nullptr; }

int rill_notification_get_type(const rill_notification_t* notification) {
  return notification ? notification->type : kInvalid;
}
uint32_t rill_notification_get_subid(const rill_notification_t* notification) {
  return notification ? notification->subid : 0;
}
llist_t* rill_notification_get_items(const rill_notification_t* notification) {
  return notification ? notification->items : nullptr;
}

}  // extern "C"
