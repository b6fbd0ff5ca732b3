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
               {Item{"Storage.Disk.1", "CapacityInMBytes", "953869", 0}, Item{std::nullopt, std::nullopt, "v", 3}}};
}
Notification sampleNotification() {
  return Notification{kEventValue, 0xfffffffe, {Item{"ContentSharing.UPnPAV.IndexRules.3", "Enable", "0", 0}}};
}
const std::vector<Message> kSamples = {sampleRequest(), sampleReply(), sampleNotification()};

std::string payloadOf(const std::string& frame) { return frame.substr(kFrameHeader); }

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

TEST(RillWireTest, EveryMessageKindSurvivesARoundTripButNotTruncationOrExtension) {
  for (const Message& message : kSamples) {
    const std::string payload = payloadOf(encode(message));
    EXPECT_EQ(decode(payload), std::optional<Message>(message));
    for (size_t size = 0; size < payload.size(); ++size)
      EXPECT_FALSE(decode(payload.substr(0, size))) << "prefix of " << size << " bytes";
    EXPECT_FALSE(decode(payload + '\0'));
  }
}

TEST(RillWireTest, HostileFieldsAreRejected) {
  const std::string request = payloadOf(encode(sampleRequest()));
  Request with_nul = sampleRequest();  // a string with a NUL byte cannot be handed to C callers
  with_nul.path = std::string("Storage\0Disk", 12);
  std::string bad_flag = payloadOf(encode(sampleNotification()));
  bad_flag[13] = 2;  // the first item's optional-path flag, after kind, event, id and count
  for (const std::string& bad : {
           request.substr(0, 1) + static_cast<char>(kLastOp + 1) + request.substr(2),  // unknown op
           '\x09' + request.substr(1),                                                   // unknown kind
           payloadOf(encode(with_nul)), bad_flag,
           std::string("\x03\0\0\0\x03\0\0\0\x01\xff\xff\xff\xff", 13),  // a count far beyond the bytes: no allocation
           std::string("\x02\0\0\0\x01\0\0\0\0\x7f\xff\xff\xff", 13),    // a string length likewise
       }) {
    EXPECT_FALSE(decode(bad)) << testing::PrintToString(bad);
  }
}

TEST(RillFrameReaderTest, CutsFramesFromArbitraryChunksAndRefusesEmptyOrOversizedOnes) {
  const std::string stream = encode(sampleRequest()) + encode(sampleReply()) + encode(sampleNotification());
  FrameReader reader;
  std::vector<Message> received;
  std::string payload;
  for (char byte : stream) {  // one byte at a time: the worst split there is
    reader.append(&byte, 1);
    while (reader.next(&payload) == FrameReader::Result::kFrame) received.push_back(*decode(payload));
  }
  EXPECT_EQ(received, kSamples);
  EXPECT_EQ(reader.buffered(), 0u);
  reader.append(stream.data(), stream.size());  // all at once
  for (int i = 0; i < 3; ++i) EXPECT_EQ(reader.next(&payload), FrameReader::Result::kFrame);
  EXPECT_EQ(reader.next(&payload), FrameReader::Result::kNeedMore);

  const uint32_t size = kMaxFrame + 1;
  for (const auto& [bytes, result] : std::vector<std::pair<std::string, FrameReader::Result>>{
           {{static_cast<char>(size >> 24), static_cast<char>(size >> 16), static_cast<char>(size >> 8),
             static_cast<char>(size)}, FrameReader::Result::kBad},
           {std::string("\0\0\0\0", 4), FrameReader::Result::kBad},
           {std::string("\0\0\0\x05xy", 6), FrameReader::Result::kNeedMore}}) {
    FrameReader fresh;
    fresh.append(bytes.data(), bytes.size());
    EXPECT_EQ(fresh.next(&payload), result) << testing::PrintToString(bytes);
  }
}

}  // namespace
}  // namespace zibd::rill
