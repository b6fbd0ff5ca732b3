#include "host/rill/wire.h"

#include <gtest/gtest.h>

namespace zibd::rill {
namespace {

// An empty value is present, not absent; numbers take their full width.
Request sampleRequest() {
  return Request{Op::kAddObject, 0x01020304, "Storage.Disk.1.Partition.2", "Manageddisk", "", -2,
                 {{"MountPoint", "/var/uuidmount/ab12"}, {"Status", "1"}}};
}
Reply sampleReply() {
  return Reply{77, Status::kNoSuchObject, "no such object: X.1", int64_t{1} << 40,
               {Item{"Storage.Disk.1", "CapacityInMBytes", "953869", 0}, Item{std::nullopt, std::nullopt, "only a value", 3}}};
}
Notification sampleNotification() {
  return Notification{kEventValue, 0xfffffffe, {Item{"ContentSharing.UPnPAV.IndexRules.3", "Enable", "0", 0}}};
}
const std::vector<Message> kSamples = {sampleRequest(), sampleReply(), sampleNotification()};

std::string payloadOf(const std::string& frame) { return frame.substr(kFrameHeader); }

TEST(RillWireTest, EveryMessageKindSurvivesARoundTrip) {
  for (const Message& message : kSamples) {
    auto decoded = decode(payloadOf(encode(message)));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, message);
  }
}

TEST(RillWireTest, FramesAreBigEndianWhateverTheHost) {
  Reply reply;
  reply.id = 0x0a0b0c0d;
  const std::string frame = encode(reply);
  const uint32_t size = static_cast<uint32_t>(frame.size() - kFrameHeader);
  EXPECT_EQ(static_cast<uint8_t>(frame[0]), size >> 24);
  EXPECT_EQ(static_cast<uint8_t>(frame[3]), size & 0xff);
  EXPECT_EQ(frame[4], 2);  // kind: reply
  EXPECT_EQ(frame.substr(5, 4), std::string("\x0a\x0b\x0c\x0d", 4));
}

TEST(RillWireTest, TruncatedOrExtendedPayloadsAreRejected) {
  for (const Message& message : kSamples) {
    const std::string payload = payloadOf(encode(message));
    for (size_t size = 0; size < payload.size(); ++size)
      EXPECT_FALSE(decode(payload.substr(0, size))) << "prefix of " << size << " bytes";
    EXPECT_FALSE(decode(payload + '\0'));
  }
}

TEST(RillWireTest, HostileFieldsAreRejected) {
  std::string request = payloadOf(encode(sampleRequest()));
  std::string bad = request;
  bad[1] = static_cast<char>(kLastOp + 1);  // unknown op
  EXPECT_FALSE(decode(bad));
  bad = request;
  bad[0] = 9;  // unknown kind
  EXPECT_FALSE(decode(bad));

  // A string with a NUL byte cannot be handed to C callers.
  Request with_nul = sampleRequest();
  with_nul.path = std::string("Storage\0Disk", 12);
  EXPECT_FALSE(decode(payloadOf(encode(with_nul))));

  // An optional-string flag other than 0 or 1.
  Notification n = sampleNotification();
  std::string payload = payloadOf(encode(n));
  payload[13] = 2;  // first item's path flag: kind, event, id, count come before it
  EXPECT_FALSE(decode(payload));

  // A count far larger than the bytes that follow must fail, not allocate.
  std::string huge_count("\x03\0\0\0\x03\0\0\0\x01\xff\xff\xff\xff", 13);
  EXPECT_FALSE(decode(huge_count));
  std::string huge_string("\x02\0\0\0\x01\0\0\0\0\x7f\xff\xff\xff", 13);
  EXPECT_FALSE(decode(huge_string));
}

TEST(RillFrameReaderTest, CutsFramesFromArbitraryChunks) {
  const std::string stream = encode(sampleRequest()) + encode(sampleReply()) + encode(sampleNotification());
  FrameReader reader;
  std::vector<Message> received;
  std::string payload;
  for (char byte : stream) {  // one byte at a time: the worst split there is
    reader.append(&byte, 1);
    while (reader.next(&payload) == FrameReader::Result::kFrame) received.push_back(*decode(payload));
  }
  ASSERT_EQ(received.size(), 3u);
  EXPECT_EQ(received[0], Message(sampleRequest()));
  EXPECT_EQ(received[2], Message(sampleNotification()));
  EXPECT_EQ(reader.buffered(), 0u);

  reader.append(stream.data(), stream.size());  // all at once
  int frames = 0;
  while (reader.next(&payload) == FrameReader::Result::kFrame) ++frames;
  EXPECT_EQ(frames, 3);
}

TEST(RillFrameReaderTest, RejectsEmptyAndOversizedFrames) {
  std::string payload;
  FrameReader oversized;
  const uint32_t size = kMaxFrame + 1;
  const char header[4] = {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                          static_cast<char>(size >> 8), static_cast<char>(size)};
  oversized.append(header, 4);
  EXPECT_EQ(oversized.next(&payload), FrameReader::Result::kBad);

  FrameReader empty;
  empty.append("\0\0\0\0", 4);
  EXPECT_EQ(empty.next(&payload), FrameReader::Result::kBad);

  FrameReader partial;
  partial.append("\0\0\0\x05xy", 6);
  EXPECT_EQ(partial.next(&payload), FrameReader::Result::kNeedMore);
}

}  // namespace
}  // namespace zibd::rill
