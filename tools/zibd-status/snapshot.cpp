#include "tools/zibd-status/snapshot.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <charconv>
#include <chrono>

#include "common/file_descriptor.h"
#include "platform/cs.h"
#include "platform/dynstr.h"

extern char** environ;

namespace zibd::status {

std::string envOr(const char* name, const char* fallback) {
  const char* value = ::getenv(name);
  return value && *value ? value : fallback;
}

namespace {

constexpr const char* kClientName = "zib_status";
constexpr const char* kDatabaseSuffix = "/.kord/tagdb";
constexpr std::size_t kMaxFileRead = 64 * 1024;  // kord.ini and the location file are one line
constexpr std::size_t kMaxEventLine = 8192;      // a longer line is kept cut
constexpr auto kKordctlTimeout = std::chrono::seconds(5);

std::string text(const dynstr_t* s) {
  const char* t = dynstr_getstring(s);
  return t ? t : "";
}

struct ReadContext {
  bool missing = false;  // the bus refused the read (no such object)
  std::vector<std::tuple<std::string, std::string, std::string>> items;  // path, name, value
};

int collect(rill_reply_t* reply, void* context) {
  auto* read = static_cast<ReadContext*>(context);
  if (!reply) {
    read->missing = true;
    return 1;
  }
  const llist_t* items = rill_reply_get_items(reply);
  for (int i = 0, n = llist_getlength(items); i < n; ++i) {
    const rill_cmddata_t* item = rill_cmddata_getat(items, i);
    if (!item || rill_cmddata_error_get(item) != 0) continue;
    read->items.emplace_back(text(rill_cmddata_path_get(item)), text(rill_cmddata_name_get(item)),
                             text(rill_cmddata_value_get(item)));
  }
  return 0;
}

// One read of PATH. Returns false when the connection failed (the bus is
// gone); a refused read returns true with read->missing set.
bool readPath(rill_conn_t* conn, const char* path, ReadContext* read) {
  rill_ccmd_t command{};
  int rc = rill_ccmd_add_getvalues_request(conn, &command, path, 0, 0, 0, 0);
  if (rc == 0) rc = rill_invoke_ccmd(conn, &command, collect, read);
  rill_ccmd_cleanup(&command);
  return rc == 0 || read->missing;
}

// Reads a small file whole; nullopt when it cannot be opened.
std::optional<std::string> readSmallFile(const std::string& path) {
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!fd) return std::nullopt;
  std::string content;
  char buffer[4096];
  while (content.size() < kMaxFileRead) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    content.append(buffer, static_cast<std::size_t>(n));
  }
  return content;
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::optional<std::uint64_t> parseNumber(std::string_view s) {
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
  return value;
}

// Runs argv with its standard output and error into one pipe; returns the
// exit status (or -1 when it could not run, was killed or did not finish in
// time) and what it printed.
int runCapturing(const std::vector<std::string>& argv, std::string* output) {
  Pipe pipe;
  if (!pipe.open().ok()) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipe.write_end.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, pipe.write_end.get(), 2);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int rc = argv[0].find('/') == std::string::npos
                     ? ::posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ)
                     : ::posix_spawn(&pid, args[0], &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  pipe.write_end.reset();
  if (rc != 0) {
    *output = argv[0] + ": " + ::strerror(rc);
    return -1;
  }
  const auto deadline = std::chrono::steady_clock::now() + kKordctlTimeout;
  bool timed_out = false;
  char buffer[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timed_out = true;
      break;
    }
    pollfd p{pipe.read_end.get(), POLLIN, 0};
    int ready = ::poll(&p, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) timed_out = true;
    if (ready <= 0) break;
    ssize_t n = ::read(pipe.read_end.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (output->size() < kMaxFileRead) output->append(buffer, static_cast<std::size_t>(n));
  }
  if (timed_out) ::kill(pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (timed_out) {
    *output = argv[0] + ": no answer within " + std::to_string(kKordctlTimeout.count()) + " seconds";
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string firstLine(const std::string& s) { return s.substr(0, s.find('\n')); }

}  // namespace

BusReader::BusReader() {
  static const bool initialised = [] {
    cs_rill_init(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    return true;
  }();
  (void)initialised;
}

BusReader::~BusReader() { drop(); }

void BusReader::drop() {
  if (!conn_) return;
  rill_ctx_reset(conn_);
  rill_ctx_free(conn_);
  conn_ = nullptr;
}

BusState BusReader::read() {
  BusState state;
  state.endpoint = envOr("RILL_SOCKET", kDefaultRillSocket);
  if (!conn_) conn_ = rill_ctx_create_client_connection(kClientName, 0);
  if (!conn_) {
    state.error = std::string("cannot connect to ") + state.endpoint;
    return state;
  }
  ReadContext service, partitions;
  if (!readPath(conn_, kMetaDataService, &service) ||
      !readPath(conn_, "Storage.Disk.Partition", &partitions)) {
    drop();
    state.error = "connection to " + state.endpoint + " lost";
    return state;
  }
  state.reachable = true;
  if (service.missing) state.error = std::string(kMetaDataService) + " is not on the bus";
  for (const auto& [path, name, value] : service.items) {
    if (name == "MetaDataStorageStatus") state.storage_status = value;
    if (name == "ProfilingStatus") state.profiling_status = value;
  }
  for (const auto& [path, name, value] : partitions.items)
    if (name == "MountPoint") state.partition_by_mount.emplace(value, path);
  return state;
}

void parseKordIni(const std::string& text, StorageFiles* files) {
  std::string line = firstLine(text);
  if (line.empty()) {
    files->config = StorageFiles::Config::kEmpty;
    return;
  }
  const std::size_t first = line.find(':');
  const std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
  if (second == std::string::npos || second + 1 >= line.size() || line[second + 1] != '/') {
    files->config = StorageFiles::Config::kMalformed;
    return;
  }
  files->config = StorageFiles::Config::kChosen;
  files->database = line.substr(second + 1);
  const std::string_view instance(line.data(), first);
  constexpr std::string_view kPrefix = "dms-metadata-db-";
  if (instance.substr(0, kPrefix.size()) == kPrefix)
    files->chosen_at = parseNumber(instance.substr(kPrefix.size()));
  const std::string_view suffix(kDatabaseSuffix);
  files->mount = files->database;
  if (files->mount.size() > suffix.size() &&
      std::string_view(files->mount).substr(files->mount.size() - suffix.size()) == suffix)
    files->mount.resize(files->mount.size() - suffix.size());
}

StorageFiles readStorageFiles() {
  StorageFiles files;
  files.config_path = envOr("KORD_INI", kDefaultKordIni);
  if (auto ini = readSmallFile(files.config_path)) parseKordIni(*ini, &files);
  if (files.config == StorageFiles::Config::kChosen) files.database_exists = isRegularFile(files.database);
  if (auto location = readSmallFile(kLocationFile)) files.remembered = *location;
  return files;
}

std::uint64_t StoreCounts::typed() const {
  std::uint64_t sum = 0;
  for (const auto& [type, count] : by_type) sum += count;
  return sum;
}

StoreCounts readStoreCounts(const std::string& kordctl, const StorageFiles& files) {
  StoreCounts counts;
  if (files.config != StorageFiles::Config::kChosen || !files.database_exists) return counts;
  std::string output;
  const int status = runCapturing({kordctl, "--db", files.database, "stats"}, &output);
  counts.state = StoreCounts::State::kFailed;
  if (status != 0) {
    counts.error = output.empty() ? kordctl + " failed" : firstLine(output);
    return counts;
  }
  bool saw_files = false, saw_waiting = false;
  std::size_t start = 0;
  while (start < output.size()) {
    std::size_t end = output.find('\n', start);
    if (end == std::string::npos) end = output.size();
    const std::string line = output.substr(start, end - start);
    start = end + 1;
    const std::size_t space = line.rfind(' ');
    if (space == std::string::npos) continue;
    const std::string key = line.substr(0, space);
    const auto value = parseNumber(std::string_view(line).substr(space + 1));
    if (!value) continue;
    constexpr std::string_view kType = ".s.filetype=";
    if (key == "files") {
      counts.files = *value;
      saw_files = true;
    } else if (key == ".s.tbp") {
      counts.waiting = *value;
      saw_waiting = true;
    } else if (key.compare(0, kType.size(), kType) == 0) {
      counts.by_type.emplace_back(key.substr(kType.size()), *value);
    }
  }
  if (!saw_files || !saw_waiting) {
    counts.error = "unexpected answer from " + kordctl + ": " + firstLine(output);
    return counts;
  }
  counts.state = StoreCounts::State::kOk;
  return counts;
}

std::string findKordctl(const std::string& self) {
  std::string configured = envOr("KORDCTL", "");
  if (!configured.empty()) return configured;
  char exe[4096];
  ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  std::string here = n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : self;
  const std::size_t slash = here.rfind('/');
  if (slash != std::string::npos) {
    // In a build tree the tools sit side by side: tools/zibd-status, tools/kordctl.
    const std::string dir = here.substr(0, slash);
    for (const std::string& candidate : {dir + "/kordctl", dir + "/../kordctl/kordctl"})
      if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "kordctl";
}

EventLog::EventLog(std::string path, std::size_t keep) : path_(std::move(path)), keep_(keep) {}

void EventLog::reset() {
  offset_ = 0;
  partial_.clear();
  total_ = 0;
  latest_.clear();
}

void EventLog::addLine(std::string line) {
  ++total_;
  latest_.push_back(std::move(line));
  while (latest_.size() > keep_) latest_.pop_front();
}

void EventLog::refresh() {
  FileDescriptor fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    present_ = false;
    reset();
    return;
  }
  if (!present_ || st.st_dev != dev_ || st.st_ino != ino_ || st.st_size < offset_) reset();
  present_ = true;
  dev_ = st.st_dev;
  ino_ = st.st_ino;
  if (::lseek(fd.get(), offset_, SEEK_SET) < 0) return;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    offset_ += n;
    std::string_view chunk(buffer, static_cast<std::size_t>(n));
    for (;;) {
      const std::size_t newline = chunk.find('\n');
      const std::string_view piece = chunk.substr(0, newline);
      if (partial_.size() < kMaxEventLine)
        partial_.append(piece.substr(0, kMaxEventLine - partial_.size()));
      if (newline == std::string_view::npos) break;
      addLine(std::exchange(partial_, std::string()));
      chunk.remove_prefix(newline + 1);
    }
  }
}

}  // namespace zibd::status
