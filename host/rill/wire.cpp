#include "host/rill/wire.h"

namespace zibd::rill {

namespace {

enum class Kind : uint8_t { kRequest = 1, kReply = 2, kNotification = 3 };

// Smallest encoded item: three absent strings and the error word.
constexpr size_t kMinItemSize = 3 + 4;
// Smallest encoded parameter: two empty strings.
constexpr size_t kMinParamSize = 4 + 4;

class Writer {
 public:
  void u8(uint8_t v) { out_.push_back(static_cast<char>(v)); }
  void u32(uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) u8(static_cast<uint8_t>(v >> shift));
  }
  void i64(int64_t v) {
    const auto u = static_cast<uint64_t>(v);
    u32(static_cast<uint32_t>(u >> 32));
    u32(static_cast<uint32_t>(u));
  }
  void str(std::string_view s) {
    u32(static_cast<uint32_t>(s.size()));
    out_.append(s);
  }
  void opt(const std::optional<std::string>& s) {
    u8(s ? 1 : 0);
    if (s) str(*s);
  }
  void item(const Item& it) {
    opt(it.path);
    opt(it.name);
    opt(it.value);
    u32(it.error);
  }
  std::string frame() {
    Writer header;
    header.u32(static_cast<uint32_t>(out_.size()));
    return header.out_ + out_;
  }

 private:
  std::string out_;
};

// Reads fields from a payload; any read past the end, or a string with a NUL
// byte, makes the reader fail and every later read fail too.
class Reader {
 public:
  explicit Reader(std::string_view in) : in_(in) {}

  bool ok() const { return ok_; }
  bool atEnd() const { return ok_ && pos_ == in_.size(); }
  size_t remaining() const { return in_.size() - pos_; }

  uint8_t u8() {
    if (!need(1)) return 0;
    return static_cast<uint8_t>(in_[pos_++]);
  }
  uint32_t u32() {
    if (!need(4)) return 0;
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | static_cast<uint8_t>(in_[pos_++]);
    return v;
  }
  int64_t i64() {
    const uint64_t hi = u32();
    const uint64_t lo = u32();
    return static_cast<int64_t>((hi << 32) | lo);
  }
  std::string str() {
    const uint32_t size = u32();
    if (!need(size)) return {};
    std::string_view s = in_.substr(pos_, size);
    pos_ += size;
    if (s.find('\0') != std::string_view::npos) ok_ = false;
    return std::string(s);
  }
  std::optional<std::string> opt() {
    const uint8_t present = u8();
    if (present == 0) return std::nullopt;
    if (present != 1) ok_ = false;
    return str();
  }
  Item item() {
    Item it;
    it.path = opt();
    it.name = opt();
    it.value = opt();
    it.error = u32();
    return it;
  }
  // An element count that cannot be larger than what is left can hold; a
  // hostile count must not make us reserve gigabytes.
  uint32_t count(size_t min_element_size) {
    const uint32_t n = u32();
    if (ok_ && n > remaining() / min_element_size) ok_ = false;
    return ok_ ? n : 0;
  }
  void fail() { ok_ = false; }

 private:
  bool need(size_t n) {
    if (!ok_ || n > in_.size() - pos_) ok_ = false;
    return ok_;
  }

  std::string_view in_;
  size_t pos_ = 0;
  bool ok_ = true;
};

std::string encodeRequest(const Request& r) {
  Writer w;
  w.u8(static_cast<uint8_t>(Kind::kRequest));
  w.u8(static_cast<uint8_t>(r.op));
  w.u32(r.id);
  w.str(r.path);
  w.opt(r.name);
  w.opt(r.value);
  w.i64(r.number);
  w.u32(static_cast<uint32_t>(r.params.size()));
  for (const auto& [name, value] : r.params) {
    w.str(name);
    w.str(value);
  }
  return w.frame();
}

std::string encodeReply(const Reply& r) {
  Writer w;
  w.u8(static_cast<uint8_t>(Kind::kReply));
  w.u32(r.id);
  w.u32(static_cast<uint32_t>(r.status));
  w.str(r.text);
  w.i64(r.number);
  w.u32(static_cast<uint32_t>(r.items.size()));
  for (const Item& it : r.items) w.item(it);
  return w.frame();
}

std::string encodeNotification(const Notification& n) {
  Writer w;
  w.u8(static_cast<uint8_t>(Kind::kNotification));
  w.u32(n.event);
  w.u32(n.subscription);
  w.u32(static_cast<uint32_t>(n.items.size()));
  for (const Item& it : n.items) w.item(it);
  return w.frame();
}

std::optional<Message> decodeRequest(Reader& in) {
  Request r;
  const uint8_t op = in.u8();
  if (op == 0 || op > kLastOp) in.fail();
  r.op = static_cast<Op>(op);
  r.id = in.u32();
  r.path = in.str();
  r.name = in.opt();
  r.value = in.opt();
  r.number = in.i64();
  const uint32_t n = in.count(kMinParamSize);
  for (uint32_t i = 0; i < n && in.ok(); ++i) {
    std::string name = in.str();
    std::string value = in.str();
    r.params.emplace_back(std::move(name), std::move(value));
  }
  if (!in.atEnd()) return std::nullopt;
  return r;
}

std::optional<Message> decodeReply(Reader& in) {
  Reply r;
  r.id = in.u32();
  r.status = static_cast<Status>(in.u32());
  r.text = in.str();
  r.number = in.i64();
  const uint32_t n = in.count(kMinItemSize);
  for (uint32_t i = 0; i < n && in.ok(); ++i) r.items.push_back(in.item());
  if (!in.atEnd()) return std::nullopt;
  return r;
}

std::optional<Message> decodeNotification(Reader& in) {
  Notification r;
  r.event = in.u32();
  r.subscription = in.u32();
  const uint32_t n = in.count(kMinItemSize);
  for (uint32_t i = 0; i < n && in.ok(); ++i) r.items.push_back(in.item());
  if (!in.atEnd()) return std::nullopt;
  return r;
}

}  // namespace

std::string encode(const Message& message) {
  struct Visitor {
    std::string operator()(const Request& r) const { return encodeRequest(r); }
    std::string operator()(const Reply& r) const { return encodeReply(r); }
    std::string operator()(const Notification& n) const { return encodeNotification(n); }
  };
  return std::visit(Visitor{}, message);
}

std::optional<Message> decode(std::string_view payload) {
  Reader in(payload);
  switch (static_cast<Kind>(in.u8())) {
    case Kind::kRequest:
      return decodeRequest(in);
    case Kind::kReply:
      return decodeReply(in);
    case Kind::kNotification:
      return decodeNotification(in);
  }
  return std::nullopt;
}

FrameReader::Result FrameReader::next(std::string* payload) {
  const size_t available = buffer_.size() - consumed_;
  if (available < kFrameHeader) return Result::kNeedMore;
  const auto* p = reinterpret_cast<const unsigned char*>(buffer_.data() + consumed_);
  const uint32_t size = (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
  if (size == 0 || size > kMaxFrame) return Result::kBad;
  if (available - kFrameHeader < size) return Result::kNeedMore;
  payload->assign(buffer_, consumed_ + kFrameHeader, size);
  consumed_ += kFrameHeader + size;
  // Drop what was consumed once it is most of the buffer, so that the buffer
  // stays bounded by about one frame without moving bytes on every frame.
  if (consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
  } else if (consumed_ > buffer_.size() / 2) {
    buffer_.erase(0, consumed_);
    consumed_ = 0;
  }
  return Result::kFrame;
}

}  // namespace zibd::rill
