// Configuration-service helpers of platform/cs.h.
#include "host/rill/api_types.h"
#include "host/rill/conn.h"
#include "platform/cs.h"

using zibd::rill::call;
using zibd::rill::guarded;
using zibd::rill::kInvalid;
using zibd::rill::kLost;
using zibd::rill::Op;
using zibd::rill::Reply;
using zibd::rill::Request;
using zibd::rill::Status;

namespace {

int changeRefcount(rill_conn_t* conn, const char* disk_path, int delta) {
  if (!conn || !disk_path) return kInvalid;
  return guarded(kLost, [&] {
    Request request;
    request.op = Op::kRefcount;
    request.path = disk_path;
    request.number = delta;
    auto reply = call(conn, std::move(request));
    return reply ? static_cast<int>(reply->status) : kLost;
  });
}

}  // namespace

extern "C" {

int cs_rill_init(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j, int k) {
  // Queue and time-out tuning of the gateway's library; the host bus has no
  // such knobs.
  (void)a, (void)b, (void)c, (void)d, (void)e, (void)f, (void)g, (void)h, (void)i, (void)j, (void)k;
  return 0;
}

int cs_find_parameters_of_obj_instances(rill_conn_t* conn, const char* object_path, int a, int b,
                                        rill_reply_fn reply_fn, void* context, int* error) {
  (void)a, (void)b;
  if (error) *error = kLost;
  if (!conn || !object_path) return kInvalid;
  return guarded(kLost, [&] {
    Request request;
    request.op = Op::kGetValues;
    request.path = object_path;
    request.number = zibd::rill::kMustExist;
    auto reply = call(conn, std::move(request));
    if (!reply) return kLost;
    if (error) *error = static_cast<int>(reply->status);
    if (reply_fn)
      zibd::rill::deliverReply(reply->status == Status::kOk, reply->items, reply_fn, context);
    return 0;
  });
}

int cs_incrementDiskRefcount(rill_conn_t* conn, const char* disk_path) {
  return changeRefcount(conn, disk_path, 1);
}

int cs_decrementDiskRefcount(rill_conn_t* conn, const char* disk_path) {
  return changeRefcount(conn, disk_path, -1);
}

int cs_unsubscribe_events(rill_conn_t* conn, const uint32_t* ids, int count, int* result) {
  if (result) *result = kLost;
  if (!conn || (!ids && count > 0) || count < 0) return kInvalid;
  return guarded(kLost, [&] {
    int failed = 0;
    for (int i = 0; i < count; ++i) {
      Request request;
      request.op = Op::kUnsubscribe;
      request.number = ids[i];
      auto reply = call(conn, std::move(request));
      if (!reply) return kLost;
      if (reply->status != Status::kOk) ++failed;
    }
    if (result) *result = failed;
    return 0;
  });
}

}  // extern "C"
