// zibd-profile: zibd's media profiler. zibd runs it once per batch of files
// of one type, with the map's arguments and then the batch's view directory
// (one symbolic link per file to the file's absolute path):
//
//   zibd-profile [--log=FILE] [--parse-speed=S] VIEW
//
// It reads every file of the view in this one process and stores the
// "media.*" tags it found through the tag store's bulk API, one commit per
// file (docs/sample-gateway.md lists them). The daemon's own ".s." tags are
// never touched: zibd marks the batch profiled once this program has exited.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "platform/kord.h"
#include "tools/zibd-profile/media_tags.h"

namespace {

constexpr int kExitUsage = 2;  // also: the view cannot be read
constexpr const char* kUsage =
    "usage: zibd-profile [--log=FILE] [--parse-speed=S] VIEW\n"
    "Reads the metadata of every file that the view directory VIEW links to and\n"
    "stores it as media.* tags in the tag store, one commit per file.\n"
    "  --log=FILE       append one line per file to FILE (default: $ZIBD_PROFILER_LOG,\n"
    "                   else /tmp/zibd-profilers.log)\n"
    "  --parse-speed=S  MediaInfoLib's ParseSpeed, 0 (headers only, the default) to 1\n"
    "Exit status: 0 once the view was read, 2 on a usage error or an unreadable view.\n";

// One line per file: "TIME zibd-profile PID: NAME WHAT", the name quoted as
// the shell's printf %q does, so a newline or a stray byte cannot break it.
class Log {
 public:
  explicit Log(const std::string& path) : fd_(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)) {}
  ~Log() {
    if (fd_ >= 0) ::close(fd_);
  }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  void note(const std::string& name, const std::string& what) const {
    if (fd_ < 0) return;
    char stamp[32] = "";
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (::localtime_r(&now, &local) != nullptr) std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    const std::string line =
        std::string(stamp) + " zibd-profile " + std::to_string(::getpid()) + ": " + quoted(name) + " " + what + "\n";
    // One write per line: several profilers may share the file.
    if (::write(fd_, line.data(), line.size()) < 0) return;
  }

 private:
  static std::string quoted(const std::string& name) {
    bool plain = !name.empty();
    for (unsigned char c : name)
      if (!(std::isalnum(c) || std::strchr("/._-+,:@%=", c) != nullptr)) plain = false;
    if (plain) return name;
    std::string out = "$'";
    for (unsigned char c : name) {
      if (c == '\'' || c == '\\') {
        out += '\\';
        out += static_cast<char>(c);
      } else if (c == '\n') {
        out += "\\n";
      } else if (c == '\t') {
        out += "\\t";
      } else if (c < 0x20 || c >= 0x7f) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02x", c);
        out += hex;
      } else {
        out += static_cast<char>(c);
      }
    }
    return out + "'";
  }

  int fd_;
};

// The targets of the view's links, read exactly as stored (any byte but NUL).
// Read whole before the first file is parsed: a view that goes away meanwhile
// leaves the batch as it was given. False when the view cannot be read.
bool readView(const std::string& view, std::vector<std::string>* targets) {
  const int fd = ::open(view.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    ::close(fd);
    return false;
  }
  std::vector<char> target(PATH_MAX + 1);
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN) continue;
    // A link removed since the directory was listed fails here and is passed over.
    const ssize_t n = ::readlinkat(fd, entry->d_name, target.data(), target.size());
    if (n <= 0 || static_cast<size_t>(n) >= target.size()) continue;
    targets->emplace_back(target.data(), static_cast<size_t>(n));
  }
  ::closedir(dir);
  return true;
}

struct BulkCloser {
  void operator()(kord_bulk_t* handle) const { kord_bulk_fini(handle); }
};
using Bulk = std::unique_ptr<kord_bulk_t, BulkCloser>;

// All of one file's tags in one commit. A failure leaves nothing half done
// behind in the handle: it is replaced, dropping what was not committed.
bool store(Bulk* bulk, const std::string& path, const zibd::profile::Tags& tags) {
  bool ok = kord_bulk_setpath(bulk->get(), path.c_str()) == 0;
  for (size_t i = 0; ok && i < tags.size(); ++i)
    ok = kord_bulk_settag(bulk->get(), tags[i].first.c_str(), tags[i].second.c_str()) == 0;
  ok = ok && kord_bulk_commit(bulk->get()) == 0;
  if (!ok) bulk->reset(kord_bulk_init());
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  const char* env_log = std::getenv("ZIBD_PROFILER_LOG");
  std::string log_path = env_log != nullptr && *env_log != '\0' ? env_log : "/tmp/zibd-profilers.log";
  std::string parse_speed = "0";
  int arg = 1;
  for (; arg < argc - 1; ++arg) {
    const std::string option = argv[arg];
    if (option.rfind("--log=", 0) == 0) {
      log_path = option.substr(6);
    } else if (option.rfind("--parse-speed=", 0) == 0) {
      parse_speed = option.substr(14);
    } else {
      std::fprintf(stderr, "zibd-profile: unknown option '%s'\n%s", argv[arg], kUsage);
      return kExitUsage;
    }
  }
  if (arg != argc - 1 || std::strcmp(argv[arg], "--help") == 0 || std::strcmp(argv[arg], "-h") == 0) {
    std::fputs(kUsage, arg == argc - 1 ? stdout : stderr);
    return arg == argc - 1 ? 0 : kExitUsage;
  }
  const std::string view = argv[arg];

  std::vector<std::string> targets;
  if (!readView(view, &targets)) {
    std::fprintf(stderr, "zibd-profile: cannot read the view %s: %s\n", view.c_str(), std::strerror(errno));
    return kExitUsage;
  }
  const Log log(log_path);
  Bulk bulk(kord_bulk_init());
  if (bulk == nullptr) {
    std::fprintf(stderr, "zibd-profile: the tag store cannot be used\n");
    return kExitUsage;
  }
  zibd::profile::MediaReader reader(parse_speed);
  int profiled = 0;
  for (const std::string& path : targets) {
    // Non-blocking, so that a FIFO put where a media file was cannot stop the batch.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
      if (errno == ENOENT || errno == ENOTDIR) {
        log.note(path, "is gone: skipped");
      } else {
        log.note(path, std::string("cannot be opened (") + std::strerror(errno) + "): no metadata");
        ++profiled;
      }
      continue;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      ::close(fd);
      log.note(path, "is not a regular file: skipped");
      continue;
    }
    const size_t dot = path.rfind('.'), slash = path.rfind('/');
    const std::string extension = dot != std::string::npos && dot > slash ? path.substr(dot + 1) : "";
    const zibd::profile::Tags tags = reader.read(fd, st.st_size, extension);
    ::close(fd);
    ++profiled;
    if (tags.empty())
      log.note(path, "no metadata");
    else if (store(&bulk, path, tags))
      log.note(path, std::to_string(tags.size()) + " tags");
    else
      log.note(path, "its tags could not be stored");
  }
  log.note(view, "batch done: " + std::to_string(profiled) + " profiled");
  return 0;
}
