#include "scan/file_type_map.h"

#include <strings.h>

#include <cctype>
#include <cstring>
#include <string_view>

#include "common/tag_names.h"

namespace zibd {

namespace {

constexpr char kCommentMark = '#';
constexpr char kFieldSeparator = ':';
constexpr char kExtensionSeparator = ',';

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Trims trailing white space in place and returns the text after the leading
// white space.
char* trim(char* line) {
  std::size_t len = std::strlen(line);
  while (len > 0 && isSpace(line[len - 1])) line[--len] = '\0';
  while (isSpace(*line)) ++line;
  return line;
}

// Every piece between separators, empty ones included: "a,,b" gives three.
std::vector<std::string> splitAll(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  for (;;) {
    const std::size_t at = text.find(separator);
    pieces.emplace_back(text.substr(0, at));
    if (at == std::string_view::npos) return pieces;
    text.remove_prefix(at + 1);
  }
}

// Cuts the next field off text; false when no separator is left.
bool takeField(std::string_view& text, std::string_view& field) {
  const std::size_t at = text.find(kFieldSeparator);
  if (at == std::string_view::npos) return false;
  field = text.substr(0, at);
  text.remove_prefix(at + 1);
  return true;
}

// Fills record from one trimmed line; false on a parse error. Arguments are
// the fields after the third ':', an empty one after a final ':' not counted.
bool parseRecord(std::string_view line, FileTypeRecord& record) {
  std::string_view field;
  if (!takeField(line, field)) return false;
  record.extensions = splitAll(field, kExtensionSeparator);
  if (!takeField(line, field)) return false;
  record.type = field;
  if (!takeField(line, field)) return false;
  record.profiler_command = field;
  while (!line.empty()) {
    if (!takeField(line, field)) {
      record.profiler_arguments.emplace_back(line);
      break;
    }
    record.profiler_arguments.emplace_back(field);
  }
  return true;
}

bool listsExtension(const FileTypeRecord& record, const char* extension) {
  for (const std::string& candidate : record.extensions)
    if (::strcasecmp(candidate.c_str(), extension) == 0) return true;
  return false;
}

}  // namespace

Status FileTypeMap::load(std::FILE* file, const std::string& name) {
  char buffer[kLineBufferSize];
  int line_number = 0;
  while (std::fgets(buffer, sizeof buffer, file)) {
    ++line_number;
    const char* line = trim(buffer);
    if (*line == kCommentMark || *line == '\0') continue;
    // The record joins the map before its fields are read.
    records_.push_front(std::make_unique<FileTypeRecord>());
    if (!parseRecord(line, *records_.front()))
      return Status::error(EINVAL, "Parse error on line " + std::to_string(line_number) + " of " + name);
  }
  if (std::ferror(file) != 0) return Status::error(EIO, "Could not open " + name + " for reading");
  return Status();
}

FileTypeRecord* FileTypeMap::find(const char* extension) {
  if (last_hit_ && listsExtension(*last_hit_, extension)) return last_hit_;
  for (const auto& record : records_) {
    if (record.get() == last_hit_) continue;
    if (listsExtension(*record, extension)) {
      last_hit_ = record.get();
      return last_hit_;
    }
  }
  return nullptr;
}

void FileTypeMap::clear() {
  last_hit_ = nullptr;
  records_.clear();
}

const char* extensionOf(const char* path) {
  const char* dot = std::strrchr(path, '.');
  if (!dot) return nullptr;
  const char* slash = std::strrchr(path, '/');
  if (slash && slash > dot) return nullptr;
  return dot + 1;
}

bool typeEnabled(const FileTypeRecord& record, unsigned mask) {
  unsigned bit = 0;
  if (record.type == kTypeVideo)
    bit = kCategoryMovies;
  else if (record.type == kTypeAudio)
    bit = kCategoryMusic;
  else if (record.type == kTypeImage)
    bit = kCategoryPictures;
  return (mask & bit) != 0;
}

}  // namespace zibd
