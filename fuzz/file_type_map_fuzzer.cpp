// The file-type map: every extension read is found again in either case, by
// the scanner's lookup, in a record that lists it.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <string>

#include "fuzz/check.h"
#include "scan/file_type_map.h"

namespace {

struct FileCloser {
  void operator()(FILE* f) const { ::fclose(f); }
};

bool lists(const zibd::FileTypeRecord& record, const char* extension) {
  return std::any_of(record.extensions.begin(), record.extensions.end(),
                     [&](const std::string& e) { return ::strcasecmp(e.c_str(), extension) == 0; });
}

std::string withCase(std::string text, int (*change)(int)) {
  for (char& c : text) c = static_cast<char>(change(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;  // fmemopen wants a buffer
  std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<FILE, FileCloser> file(::fmemopen(text.data(), text.size(), "r"));
  if (!file) return 0;
  zibd::FileTypeMap map;
  (void)map.load(file.get(), "map");  // a broken line keeps the records read so far, itself included

  for (const auto& record : map.records()) {
    for (const std::string& extension : record->extensions) {
      FUZZ_CHECK(extension.find('\0') == std::string::npos);
      for (const std::string& asked : {extension, withCase(extension, ::toupper), withCase(extension, ::tolower)}) {
        zibd::FileTypeRecord* found = map.find(asked.c_str());
        FUZZ_CHECK(found != nullptr);
        FUZZ_CHECK(lists(*found, asked.c_str()));
      }
    }
  }
  // Looking up a name as the scanner does gives the record of its extension.
  for (const auto& record : map.records()) {
    for (const std::string& extension : record->extensions) {
      if (extension.find('.') != std::string::npos || extension.find('/') != std::string::npos) continue;
      const std::string name = "/media/file." + extension;
      const char* ext = zibd::extensionOf(name.c_str());
      FUZZ_CHECK(ext != nullptr && extension == ext);
    }
  }
  return 0;
}
