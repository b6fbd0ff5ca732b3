// Watch benchmark: how long fsAddWatchTree takes over a tree shaped like a
// media library and how much heap each watched directory costs, beside
// `inotifywait -r` on the same tree; and the time from a file's close to its
// directory's scan request. Prints figures; asserts nothing.
//
//   watch_bench [--dirs N] [--files N] [--root DIR] [--probe LIB]
//
// --probe names heap_probe's library: with it (and inotifywait on the PATH)
// the same tree is watched by `inotifywait -r` and its heap read the same way.

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/file_descriptor.h"
#include "storage/storage_queries.h"
#include "watch/change_handler.h"
#include "watch/event_loop.h"
#include "watch/watch_table.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Artists with 1 to 12 albums each, plus three wide directories (photo
// events, a podcast archive, a flat video folder) of 1000 subdirectories;
// exactly `dirs` directories below root, root included.
int makeLibrary(const std::string& root, int dirs) {
  int made = 0;
  auto mk = [&](const std::string& path) {
    if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) ++made;
  };
  mk(root);
  if (made == 0) return 0;  // no tree to make
  for (const char* d : {"/Media", "/Media/Music", "/Media/Photos", "/Media/Podcasts", "/Media/Videos"})
    mk(root + d);
  for (const char* wide : {"/Media/Photos", "/Media/Podcasts", "/Media/Videos"})
    for (int i = 0; i < 1000 && made < dirs; ++i) mk(root + wide + "/" + std::to_string(i));
  unsigned seed = 12345;
  for (int artist = 0, failed = 0; made < dirs && failed < 100; ++artist) {
    const int before = made;
    const std::string a = root + "/Media/Music/Artist " + std::to_string(artist);
    mk(a);
    seed = seed * 1103515245u + 12345u;
    const int albums = 1 + static_cast<int>((seed >> 16) % 12);
    for (int album = 0; album < albums && made < dirs; ++album) mk(a + "/Album " + std::to_string(album));
    if (made == before) ++failed;
  }
  return made;
}

struct NoScans : zibd::ScanRequests {
  void enqueue(const std::string&, uint32_t) override {}
};

struct ReadyStorage : zibd::StorageQueries {
  bool storageReady() const override { return true; }
  bool pathIsOnPartition(const std::string&) const override { return true; }
  std::optional<std::string> managedPartitionPath() const override { return std::nullopt; }
  void sendChangeEvent(const std::string&) override {}
  void markInitialScanDone() override {}
};

void benchAddTree(const std::string& root, int dirs) {
  std::atomic<int> aborted{0};
  zibd::WatchTable table(aborted);
  (void)table.fsInitWatch();
  const std::size_t before = mallinfo2().uordblks;
  const auto start = Clock::now();
  const zibd::Status result = table.fsAddWatchTree(root.c_str(), true);
  const double ms = msSince(start);
  const std::size_t after = mallinfo2().uordblks;
  const std::size_t watched = table.indexedDescriptors().size();
  std::printf("zibd fsAddWatchTree: %d directories, %zu watched (%s) in %.1f ms; heap %zu bytes = %.1f bytes per directory\n",
              dirs, watched, result.message().c_str(), ms, after - before,
              watched ? static_cast<double>(after - before) / static_cast<double>(watched) : 0.0);
}

// Starts inotifywait -r on path with the probe preloaded, waits for its
// "Watches established." and returns {milliseconds, heap bytes}.
std::pair<double, long> inotifywait(const std::string& path, const std::string& probe) {
  int err[2];
  if (::pipe2(err, O_CLOEXEC) != 0) return {-1, -1};
  zibd::FileDescriptor read_end(err[0]);
  const auto start = Clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(err[1], STDERR_FILENO);
    ::setenv("LD_PRELOAD", probe.c_str(), 1);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::execlp("inotifywait", "inotifywait", "-r", "-m", "-e", "close_write", path.c_str(),
             static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(err[1]);
  if (pid < 0) return {-1, -1};
  std::string text;
  double ms = -1;
  long heap = -1;
  char buf[256];
  for (;;) {
    const ssize_t n = ::read(read_end.get(), buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<std::size_t>(n));
    if (ms < 0 && text.find("Watches established.") != std::string::npos) {
      ms = msSince(start);
      ::kill(pid, SIGUSR1);
    }
    const auto at = text.find("heap ");
    if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
      heap = std::atol(text.c_str() + at + 5);
      break;
    }
  }
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  std::printf("inotifywait -r %s: watches established after %.1f ms (from fork), heap %ld bytes\n", path.c_str(), ms,
              heap);
  return {ms, heap};
}

// Closes `files` new files, each in a directory of its own, 20 ms apart, and
// reports the time from each close to its directory's scan request.
void benchLatency(const std::string& root, int files) {
  struct Timed : zibd::ScanRequests {
    std::map<std::string, Clock::time_point> at;
    void enqueue(const std::string& path, uint32_t) override { at.emplace(path, Clock::now()); }
  } scans;
  ReadyStorage storage;
  std::atomic<int> aborted{0}, running{1};
  zibd::WatchTable table(aborted);
  (void)table.fsInitWatch();
  const std::string base = root + "/latency";
  ::mkdir(base.c_str(), 0755);
  for (int i = 0; i < files; ++i) ::mkdir((base + "/" + std::to_string(i)).c_str(), 0755);
  (void)table.fsAddWatchTree(base.c_str(), true);
  zibd::ChangeHandler handler(scans, storage);
  zibd::WatchEventLoop loop(table, &handler, -1, nullptr, running);

  std::map<std::string, Clock::time_point> closed;
  std::thread writer([&] {
    for (int i = 0; i < files; ++i) {
      const std::string dir = base + "/" + std::to_string(i);
      zibd::FileDescriptor fd(::open((dir + "/f.mp3").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
      (void)::write(fd.get(), "x", 1);
      fd.reset();
      closed.emplace(dir, Clock::now());
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  // The loop runs while the files are written, as on the main thread.
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (scans.at.size() < static_cast<std::size_t>(files) && Clock::now() < deadline) loop.step();
  writer.join();
  std::vector<double> ms;
  for (const auto& [dir, when] : closed) {
    auto it = scans.at.find(dir);
    if (it != scans.at.end()) ms.push_back(std::chrono::duration<double, std::milli>(it->second - when).count());
  }
  std::sort(ms.begin(), ms.end());
  if (ms.empty()) return;
  std::printf("close to scan request: %zu of %d files; median %.0f ms, 95th percentile %.0f ms, max %.0f ms\n",
              ms.size(), files, ms[ms.size() / 2], ms[(ms.size() * 95) / 100 - (ms.size() * 95 % 100 == 0 ? 1 : 0)],
              ms.back());
}

}  // namespace

int main(int argc, char* argv[]) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  int dirs = 20000, files = 100;
  std::string root, probe;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string opt = argv[i];
    if (opt == "--dirs") dirs = std::atoi(argv[i + 1]);
    else if (opt == "--files") files = std::atoi(argv[i + 1]);
    else if (opt == "--root") root = argv[i + 1];
    else if (opt == "--probe") probe = argv[i + 1];
  }
  bool made_root = false;
  if (!root.empty() && ::mkdir(root.c_str(), 0755) == 0) made_root = true;
  if (root.empty()) {
    char tmpl[] = "/tmp/watch-bench-XXXXXX";
    if (!::mkdtemp(tmpl)) return 1;
    root = tmpl;
    made_root = true;
  }
  const std::string tree = root + "/library";
  const int made = makeLibrary(tree, dirs);
  std::printf("tree: %d directories below %s\n", made, tree.c_str());
  if (made < dirs) {
    std::fprintf(stderr, "watch_bench: could not make the tree under %s\n", tree.c_str());
    return 1;
  }
  // The first walk warms the dentry cache, so that both watchers find the
  // tree in memory.
  benchAddTree(tree, made);
  benchAddTree(tree, made);
  if (!probe.empty()) {
    const std::string empty = root + "/empty";
    ::mkdir(empty.c_str(), 0755);
    const auto base = inotifywait(empty, probe);
    const auto full = inotifywait(tree, probe);
    if (base.second >= 0 && full.second >= 0)
      std::printf("inotifywait -r heap over its idle heap: %ld bytes = %.1f bytes per directory\n",
                  full.second - base.second, static_cast<double>(full.second - base.second) / made);
  }
  if (files > 0) benchLatency(root, files);
  if (made_root) {
    std::error_code ec;
    fs::remove_all(root, ec);
  }
  return 0;
}
