#include "tools/zibd-profile/media_tags.h"

#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>
#include <unistd.h>

#include <MediaInfo/MediaInfo.h>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <initializer_list>

namespace zibd::profile {
namespace {

namespace mi = MediaInfoLib;

constexpr size_t kChunk = 64 * 1024;
constexpr int kMaxReads = 1 << 16;
// MediaInfoLib's Open_Buffer_Continue result: bit 3 set once it needs no more.
constexpr size_t kFinished = 0x08;
// A JPEG's EXIF block is its APP1 segment, at most 64 KiB, near the start.
constexpr long long kExifWindow = 256 * 1024;

std::string utf8(const std::wstring& text) {
  std::string out;
  out.reserve(text.size());
  for (wchar_t wc : text) {
    auto c = static_cast<unsigned long>(wc);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// "3056.000" -> "3056"; "" when it is no number.
std::string wholeMilliseconds(const std::string& value) {
  if (value.empty()) return "";
  char* end = nullptr;
  errno = 0;
  const double ms = std::strtod(value.c_str(), &end);
  if (errno != 0 || end == value.c_str() || *end != '\0' || !std::isfinite(ms) || ms < 0) return "";
  return std::to_string(std::llround(ms));
}

// The digits of a date, at most 14: "2025-06-14 15:30:00 UTC" -> "20250614153000".
std::string dateDigits(const std::string& value) {
  std::string digits;
  for (char c : value)
    if (c >= '0' && c <= '9' && digits.size() < 14) digits += c;
  return digits;
}

// EXIF DateTimeOriginal ("2025:07:04 18:30:12") as "%Y%m%d%H%M%S", or "".
std::string dateTaken(int fd) {
  ExifLoader* loader = exif_loader_new();
  if (loader == nullptr) return "";
  unsigned char buffer[16 * 1024];
  for (long long offset = 0; offset < kExifWindow;) {
    const ssize_t n = ::pread(fd, buffer, sizeof buffer, offset);
    if (n <= 0 || exif_loader_write(loader, buffer, static_cast<unsigned>(n)) == 0) break;
    offset += n;
  }
  ExifData* data = exif_loader_get_data(loader);
  exif_loader_unref(loader);
  if (data == nullptr) return "";
  std::string taken;
  if (ExifEntry* entry = exif_content_get_entry(data->ifd[EXIF_IFD_EXIF], EXIF_TAG_DATE_TIME_ORIGINAL)) {
    char value[64] = "";
    exif_entry_get_value(entry, value, sizeof value);
    taken = dateDigits(value);
    if (taken.size() != 14) taken.clear();
  }
  exif_data_unref(data);
  return taken;
}

// The parser that MediaInfoLib ends at, for the common extensions of the
// shipped map. Forcing it spares the library trying each of its ~150 parsers
// on every file; a file it does not fit is parsed again the usual way.
const wchar_t* likelyParser(const std::string& extension) {
  static const std::pair<const char*, const wchar_t*> kParsers[] = {
      {"mp4", L"Mpeg4"}, {"m4v", L"Mpeg4"}, {"mov", L"Mpeg4"}, {"qt", L"Mpeg4"}, {"3gp", L"Mpeg4"},
      {"3g2", L"Mpeg4"}, {"m4a", L"Mpeg4"}, {"m4b", L"Mpeg4"}, {"mkv", L"Mk"}, {"webm", L"Mk"},
      {"mka", L"Mk"}, {"mp3", L"Mpega"}, {"mp2", L"Mpega"}, {"mpa", L"Mpega"}, {"flac", L"Flac"},
      {"ogg", L"Ogg"}, {"oga", L"Ogg"}, {"ogv", L"Ogg"}, {"opus", L"Ogg"}, {"avi", L"Riff"},
      {"wav", L"Riff"}, {"wmv", L"Wm"}, {"wma", L"Wm"}, {"asf", L"Wm"}, {"flv", L"Flv"},
      {"jpg", L"Jpeg"}, {"jpeg", L"Jpeg"}, {"jpe", L"Jpeg"}, {"jfif", L"Jpeg"}, {"png", L"Png"},
      {"gif", L"Gif"}, {"bmp", L"Bmp"}, {"tif", L"Tiff"}, {"tiff", L"Tiff"}};
  std::string lower;
  for (char c : extension) lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  for (const auto& [ext, parser] : kParsers)
    if (lower == ext) return parser;
  return L"";
}

}  // namespace

struct MediaReader::Library {
  mi::MediaInfo info;

  std::string get(mi::stream_t kind, const wchar_t* field) {
    if (info.Count_Get(kind) == 0) return "";
    return utf8(info.Get(kind, 0, field));
  }
  // The first non-empty value of the fields, in order.
  std::string first(std::initializer_list<std::pair<mi::stream_t, const wchar_t*>> fields) {
    for (const auto& [kind, field] : fields)
      if (std::string value = get(kind, field); !value.empty()) return value;
    return "";
  }
};

MediaReader::MediaReader(const std::string& parse_speed) : library_(std::make_unique<Library>()) {
  library_->info.Option(L"ParseSpeed", std::wstring(parse_speed.begin(), parse_speed.end()));
  // Only raw values are read: no "/String" forms of every field for people.
  library_->info.Option(L"ReadByHuman", L"0");
}

MediaReader::~MediaReader() = default;

Tags MediaReader::read(int fd, long long size, const std::string& extension) {
  const wchar_t* parser = likelyParser(extension);
  library_->info.Option(L"File_ForceParser", parser);
  Tags tags = parse(fd, size);
  if (tags.empty() && *parser != L'\0') {
    library_->info.Option(L"File_ForceParser", L"");
    tags = parse(fd, size);
  }
  return tags;
}

Tags MediaReader::parse(int fd, long long size) {
  mi::MediaInfo& info = library_->info;
  // Fed from the descriptor: the library never sees the name, so every byte
  // of it is fine.
  info.Open_Buffer_Init(static_cast<ZenLib::int64u>(size), 0);
  static thread_local unsigned char buffer[kChunk];
  long long offset = 0;
  // A bound on the reads, for a file that keeps the library seeking back.
  for (int reads = 0; reads < kMaxReads; ++reads) {
    const ssize_t n = ::pread(fd, buffer, sizeof buffer, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    offset += n;
    if (info.Open_Buffer_Continue(buffer, static_cast<size_t>(n)) & kFinished) break;
    const ZenLib::int64u seek = info.Open_Buffer_Continue_GoTo_Get();
    if (seek != static_cast<ZenLib::int64u>(-1)) {
      offset = static_cast<long long>(seek);
      info.Open_Buffer_Init(static_cast<ZenLib::int64u>(size), seek);
    }
  }
  info.Open_Buffer_Finalize();

  Tags tags;
  Library& l = *library_;
  const std::string format = l.get(mi::Stream_General, L"Format");
  if (!format.empty()) {
    const auto add = [&tags](const char* name, std::string value) {
      if (!value.empty()) tags.emplace_back(name, std::move(value));
    };
    add("media.format", format);
    add("media.duration", wholeMilliseconds(l.get(mi::Stream_General, L"Duration")));
    add("media.width", l.first({{mi::Stream_Video, L"Width"}, {mi::Stream_Image, L"Width"}}));
    add("media.height", l.first({{mi::Stream_Video, L"Height"}, {mi::Stream_Image, L"Height"}}));
    add("media.videocodec", l.get(mi::Stream_Video, L"Format"));
    add("media.audiocodec", l.get(mi::Stream_Audio, L"Format"));
    add("media.channels", l.get(mi::Stream_Audio, L"Channel(s)"));
    add("media.samplerate", l.get(mi::Stream_Audio, L"SamplingRate"));
    add("media.title", l.first({{mi::Stream_General, L"Title"}, {mi::Stream_General, L"Track"},
                                {mi::Stream_General, L"Movie"}}));
    add("media.artist", l.first({{mi::Stream_General, L"Performer"}, {mi::Stream_General, L"Album/Performer"}}));
    add("media.album", l.get(mi::Stream_General, L"Album"));
    std::string date = dateDigits(l.get(mi::Stream_General, L"Recorded_Date"));
    add("media.date", date.empty() ? dateDigits(l.get(mi::Stream_General, L"Encoded_Date")) : date);
    if (format == "JPEG") add("media.datetaken", dateTaken(fd));
  }
  info.Close();
  return tags;
}

}  // namespace zibd::profile
