// What zibd-profile stores about one media file: the "media.*" tags read from
// an open descriptor with MediaInfoLib (and a JPEG's date taken with libexif).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zibd::profile {

using Tags = std::vector<std::pair<std::string, std::string>>;  // name, value; in storing order

// One parser for a whole batch: the library's set-up is paid once.
class MediaReader {
 public:
  // parse_speed: MediaInfoLib's "ParseSpeed" (0 reads only the headers, 1
  // every frame); see docs/sample-gateway.md for what it changes.
  explicit MediaReader(const std::string& parse_speed);
  ~MediaReader();
  MediaReader(const MediaReader&) = delete;
  MediaReader& operator=(const MediaReader&) = delete;

  // The tags of the regular file open on fd (size bytes), whose name ends in
  // "." and extension; none when the library does not know its format.
  // Reads with pread, so fd's offset does not matter.
  Tags read(int fd, long long size, const std::string& extension);

 private:
  Tags parse(int fd, long long size);

  struct Library;
  std::unique_ptr<Library> library_;
};

}  // namespace zibd::profile
