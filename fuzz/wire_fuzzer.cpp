// The bus wire: a payload that decodes re-encodes to itself, and a stream is
// cut into the frames put into it.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/rill/wire.h"

namespace rill = zibd::rill;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  auto message = rill::decode(payload);
  if (message) {
    const std::string frame = rill::encode(*message);
    FUZZ_CHECK(frame.size() == rill::kFrameHeader + size);
    FUZZ_CHECK(frame.compare(rill::kFrameHeader, std::string::npos, payload) == 0);
    const auto* header = reinterpret_cast<const unsigned char*>(frame.data());
    FUZZ_CHECK(((uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) | (uint32_t{header[2]} << 8) |
                header[3]) == size);
    FUZZ_CHECK(rill::decode(payload) == message);
  }

  // The same bytes as a stream, in two pieces: the reader cuts the frames
  // its headers announce, or stops at a bad header, never past the end.
  rill::FrameReader reader;
  const size_t half = size / 2;
  reader.append(payload.data(), half);
  std::string got, cut;
  size_t offset = 0;
  bool appended = false;
  for (;;) {
    auto result = reader.next(&cut);
    if (result == rill::FrameReader::Result::kNeedMore && !appended) {
      reader.append(payload.data() + half, size - half);
      appended = true;
      continue;
    }
    if (result != rill::FrameReader::Result::kFrame) break;
    FUZZ_CHECK(offset + rill::kFrameHeader + cut.size() <= size);
    FUZZ_CHECK(payload.substr(offset + rill::kFrameHeader, cut.size()) == cut);
    offset += rill::kFrameHeader + cut.size();
  }
  if (appended) FUZZ_CHECK(reader.buffered() == size - offset);
  return 0;
}
