// Wire format of the host configuration bus, shared by the broker (rilld), the
// client library and rillctl.
//
// Every message is one frame: a 32-bit big-endian payload length (1 to
// kMaxFrame bytes), then the payload. The byte order is fixed so that a
// gateway build (big-endian) and a development host (little-endian) agree.
// Payload fields, all big-endian:
//   u8 kind (Request, Reply, Notification), then per kind:
//   Request:      u8 op, u32 id, str path, opt name, opt value, i64 number,
//                 u32 count, count x (str name, str value)
//   Reply:        u32 id, u32 status, str text, i64 number, u32 count, count x item
//   Notification: u32 event, u32 subscription, u32 count, count x item
//   item:         opt path, opt name, opt value, u32 error
//   str:          u32 length, bytes (no NUL byte);  opt: u8 0 (absent) or 1 + str
// A payload that does not decode exactly (unknown kind or op, a length past
// its end, trailing bytes) is rejected whole.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace zibd::rill {

// Largest frame payload either side sends or accepts.
inline constexpr uint32_t kMaxFrame = 1024 * 1024;
inline constexpr size_t kFrameHeader = 4;

enum class Op : uint8_t {
  kHello = 1,         // path = client name; reply number = client id, one item: value = attach token
  kAttachNotify = 2,  // number = client id, value = its attach token: this connection
                      // carries its notifications
  kGetValues = 3,     // path = pattern; number bit kMustExist; reply items
  kSetValue = 4,      // path = object, name, value
  kSubscribe = 5,     // path = pattern, name = parameter or absent, number = mask; reply number = id
  kUnsubscribe = 6,   // number = subscription id
  kLock = 7,          // number = 1 to wait for the write lock, 0 to fail at once when taken
  kLockCancel = 8,    // withdraws a waiting kLock (or releases it if just granted)
  kUnlock = 9,
  kRefcount = 10,     // path = object, number = +1, -1 or 0; reply number = count
  kStageGet = 11,     // reply number = stage
  kStageSet = 12,     // number = stage
  kStageWait = 13,    // number = stage; answered once the stage is at least that
  kGetSubtree = 14,   // path = pattern or parameter path; reply items at or below
  kAddObject = 15,    // path = object, params = its parameters
  kDelObject = 16,    // path = object, removed with everything below it
  kHistory = 17,      // path = object, name = parameter; reply items (value only)
};
inline constexpr uint8_t kLastOp = 17;

// Flag bit of kGetValues' number.
inline constexpr int64_t kMustExist = 1;

// Subscription mask bits.
inline constexpr uint32_t kMaskAdded = 32;
inline constexpr uint32_t kMaskRemoved = 64;
inline constexpr uint32_t kMaskValue = 128;

// Notification event types.
inline constexpr uint32_t kEventValue = 3;
inline constexpr uint32_t kEventAdded = 6;
inline constexpr uint32_t kEventRemoved = 8;

enum class Status : uint32_t {
  kOk = 0,
  kNoSuchObject = 1,
  kMalformed = 2,
  kExists = 3,
  kLockBusy = 4,
  kLockNotHeld = 5,
  kTooLarge = 6,
  kBadRequest = 7,
  kNoSuchSubscription = 8,
  kRefcountUnderflow = 9,
  kTimedOut = 10,
};

struct Item {
  std::optional<std::string> path, name, value;
  uint32_t error = 0;
  friend bool operator==(const Item&, const Item&) = default;
};

struct Request {
  Op op = Op::kHello;
  uint32_t id = 0;
  std::string path;
  std::optional<std::string> name, value;
  int64_t number = 0;
  std::vector<std::pair<std::string, std::string>> params;
  friend bool operator==(const Request&, const Request&) = default;
};

struct Reply {
  uint32_t id = 0;
  Status status = Status::kOk;
  std::string text;  // why, when status is not kOk
  int64_t number = 0;
  std::vector<Item> items;
  friend bool operator==(const Reply&, const Reply&) = default;
};

struct Notification {
  uint32_t event = 0;
  uint32_t subscription = 0;
  std::vector<Item> items;
  friend bool operator==(const Notification&, const Notification&) = default;
};

using Message = std::variant<Request, Reply, Notification>;

// A whole frame (header and payload) for the message.
std::string encode(const Message& message);
// The message of one frame payload; nullopt when it does not decode.
std::optional<Message> decode(std::string_view payload);

// Collects bytes from a stream and cuts whole frames out of them.
class FrameReader {
 public:
  enum class Result { kFrame, kNeedMore, kBad };

  void append(const char* data, size_t size) { buffer_.append(data, size); }
  // kFrame with the payload in *payload, kNeedMore, or kBad when the header
  // announces an empty or oversized frame (the stream is then unusable).
  Result next(std::string* payload);
  size_t buffered() const { return buffer_.size() - consumed_; }

 private:
  std::string buffer_;
  size_t consumed_ = 0;
};

}  // namespace zibd::rill
