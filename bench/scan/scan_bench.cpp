// Figures for a cold scan: N new media files in D directories (one index
// rule, one type, a profiler that exits at once) scanned through the real
// scan queue and scanner for one kind-1 request, against `find` over the same
// tree plus inserting the same rows into SQLite in one transaction.
//
// usage: scan_bench [--files N] [--dirs D] [--repeat R] [--dir DIR]
// Defaults: 100000 files, 5000 directories, 1 round, DIR /dev/shm (else
// $TMPDIR or /tmp). Each round builds its tree and tag store in a fresh
// scratch directory and removes it afterwards.
//
// Run as `scan_bench --profiler FILE VIEW` it is the profiler: it appends the
// monotonic clock to FILE and exits, so the scan's phases can be timed.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/walk.h"
#include "host/kord/kord_host.h"
#include "host/kord/sqlite.h"
#include "scan/file_type_map.h"
#include "scan/scan_queue.h"
#include "scan/scanner_state.h"
#include "scan/scanner_thread.h"
#include "scan/tagging.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace zibd;

struct Options {
  int files = 100000;
  int dirs = 5000;
  int repeat = 1;
  std::string dir;
};

double now() {
  struct timespec ts {};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// CPU time of this process and its reaped children, in seconds: on a shared
// machine it tells more than the wall clock.
double cpuOf(int who) {
  struct rusage u {};
  getrusage(who, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double cpu() { return cpuOf(RUSAGE_SELF) + cpuOf(RUSAGE_CHILDREN); }

[[noreturn]] void die(const std::string& what) {
  fprintf(stderr, "scan_bench: %s: %s\n", what.c_str(), zibd::kord::lastError().message.c_str());
  exit(1);
}

class OneRule : public IndexRules {
 public:
  explicit OneRule(std::string dir) : dir_(std::move(dir)) {}
  uint32_t ruleCategories(const std::string& path) const override {
    return fsPathIsUnder(dir_.c_str(), path.c_str()) && path != dir_ ? uint32_t{kCategoryMovies} : 0U;
  }
  void resolveRulePaths() override {}

 private:
  std::string dir_;
};

class ReadyStorage : public StorageQueries {
 public:
  bool storageReady() const override { return true; }
  bool pathIsOnPartition(const std::string&) const override { return true; }
  std::optional<std::string> managedPartitionPath() const override { return std::nullopt; }
  void sendChangeEvent(const std::string&) override {}
  void markInitialScanDone() override {}
};

class NoReports : public ScanReports {
 public:
  void reportProfiling(bool) override {}
  void reportPartitionScanned(const std::string&) override {}
};

std::string filePath(const std::string& partition, const Options& o, int i) {
  return partition + "/d" + std::to_string(i % o.dirs) + "/f" + std::to_string(i) + ".mkv";
}

// Times one walk of the tree with a per-file callback.
template <typename PerFile>
double timeWalk(const std::string& root, PerFile per_file) {
  const double start = now();
  const zibd::Status walked = fsWalkTree(root.c_str(), {.file = per_file}, true);
  if (!walked.ok()) die("walk");
  return now() - start;
}

struct Times {
  double wall = 0, cpu = 0;
};

Times timeFind(const std::string& root) {
  const std::string command = "find '" + root + "' -type f > /dev/null";
  const double start = now(), start_cpu = cpu();
  if (system(command.c_str()) != 0) die("find");
  return {now() - start, cpu() - start_cpu};
}

// The rows the scan leaves (a path with its ".s.hash", ".s.invisible" and
// ".s.mdt"), inserted into a copy of
// the same schema in one transaction.
Times insertDirectly(const std::string& database, const std::string& model,
                      const std::string& partition, const Options& o) {
  using zibd::kord::Connection;
  using zibd::kord::Query;
  using zibd::kord::Statement;
  Connection db(database);
  db.exec("PRAGMA journal_mode=WAL");
  db.exec("PRAGMA synchronous=NORMAL");
  {
    Connection from(model);
    Statement schema(from, "SELECT sql FROM sqlite_master WHERE sql IS NOT NULL ORDER BY rowid");
    Query q(schema);
    while (q.next()) db.exec(std::string(q.text(0)));
  }
  Statement file(db, "INSERT INTO files(path) VALUES(?1)");
  Statement tag(db, "INSERT INTO tags(file, name, value) VALUES(?1, ?2, ?3)");
  const double start = now(), start_cpu = cpu();
  db.exec("BEGIN");
  for (int i = 0; i < o.files; ++i) {
    const std::string path = filePath(partition, o, i);
    char hash[17];
    snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(tagHash(path, "x")));
    Query(file).bind(1, path).run();
    const std::int64_t id = sqlite3_last_insert_rowid(db.get());
    const std::pair<const char*, std::string> tags[] = {{".s.hash", hash},
                                                        {".s.invisible", "0"},
                                                        {".s.mdt", "20240101000000"}};
    for (const auto& [name, value] : tags) Query(tag).bind(1, id).bind(2, name).bind(3, value).run();
  }
  db.exec("COMMIT");
  return {now() - start, cpu() - start_cpu};
}

struct Round {
  double walk = 0, stat = 0, select = 0, tagging = 0, batches = 0;
  Times scan, find, sqlite;
  double profiler_cpu = 0;  // of the scan's CPU, what its profiler children used
  int profilers = 0;
};

Round measure(const Options& o, const std::string& self) {
  std::string scratch = o.dir + "/scan-bench-XXXXXX";
  if (!mkdtemp(scratch.data())) die("mkdtemp");
  const std::string root = scratch + "/uuidmount";
  const std::string partition = root + "/p1";
  for (int d = 0; d < o.dirs; ++d) fs::create_directories(partition + "/d" + std::to_string(d));
  for (int i = 0; i < o.files; ++i) {
    int fd = ::open(filePath(partition, o, i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) die("create file");
    ::close(fd);
  }
  setenv(zibd::kord::kIniEnv, (scratch + "/kord.ini").c_str(), 1);
  setenv(zibd::kord::kUpdateEnv, (scratch + "/update").c_str(), 1);
  setenv(zibd::kord::kViewsEnv, (scratch + "/views").c_str(), 1);
  std::ofstream(scratch + "/update");
  std::ofstream(scratch + "/kord.ini")
      << "dms-metadata-db-1:" << root << ":" << partition << "/.kord/tagdb\n";
  std::ifstream(scratch + "/update");

  const std::string stamps = scratch + "/profiler-starts";
  FileTypeMap types;
  {
    const std::string map = scratch + "/types.ini";
    std::ofstream(map) << "mkv:STDVIDEO:" << self << ":--profiler:" << stamps << "\n";
    FILE* f = fopen(map.c_str(), "re");
    if (!f || !types.load(f, map).ok()) die("file-type map");
    fclose(f);
  }
  OneRule rules(partition);
  ReadyStorage storage;
  NoReports reports;
  std::atomic<int> running{1};

  Round r;
  // The parts, each on its own, before the scan while the database is empty.
  r.walk = timeWalk(partition, [](const char*) { return zibd::Status(); });
  r.stat = timeWalk(partition, [](const char* path) {
    struct stat st {};
    (void)::stat(path, &st);
    return zibd::Status();
  });
  {
    kord_bulk_t* bulk = kord_bulk_init();
    char value[20];
    r.select = timeWalk(partition, [&](const char* path) {
      if (kord_bulk_setpath(bulk, path) != 0) die("setpath");
      (void)kord_bulk_gettag(bulk, kTagModified, value, sizeof value);
      return zibd::Status();
    });
    kord_bulk_fini(bulk);
  }

  // The real scan: one kind-1 request through the queue and the scanner.
  ScanQueue queue(storage, reports, running);
  ScannerState state(queue);
  ScannerThread scanner(queue, state, types, rules, storage, reports, running);
  if (!scanner.open().ok()) die("kord_bulk_init");
  queue.enqueue(partition, kScanRuleDirectory);
  const double start = now(), start_cpu = cpu(), start_children = cpuOf(RUSAGE_CHILDREN);
  scanner.step();
  const double end = now();
  r.scan = {end - start, cpu() - start_cpu};
  r.profiler_cpu = cpuOf(RUSAGE_CHILDREN) - start_children;

  std::vector<double> starts;
  {
    std::ifstream in(stamps);
    for (double t; in >> t;) starts.push_back(t);
  }
  r.profilers = static_cast<int>(starts.size());
  if (starts.empty()) die("no profiler ran");
  std::sort(starts.begin(), starts.end());
  r.tagging = starts.front() - start;
  r.batches = end - starts.front();

  r.find = timeFind(partition);
  r.sqlite = insertDirectly(scratch + "/direct.db", partition + "/.kord/tagdb", partition, o);

  // Every file profiled and marked.
  std::vector<std::string> left;
  if (zibd::kord::query("@.s.tbp@ exists", &left) != zibd::kord::Status::kOk) die("query");
  if (!left.empty()) {
    fprintf(stderr, "scan_bench: %zu files left pending\n", left.size());
    exit(1);
  }
  std::error_code ec;
  fs::remove_all(scratch, ec);
  return r;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        fprintf(stderr, "scan_bench: %s needs a value\n", a.c_str());
        exit(2);
      }
      return argv[++i];
    };
    if (a == "--files") o.files = std::stoi(value());
    else if (a == "--dirs") o.dirs = std::stoi(value());
    else if (a == "--repeat") o.repeat = std::stoi(value());
    else if (a == "--dir") o.dir = value();
    else {
      fprintf(stderr, "usage: scan_bench [--files N] [--dirs D] [--repeat R] [--dir DIR]\n");
      exit(2);
    }
  }
  if (o.dir.empty()) {
    const char* tmp = getenv("TMPDIR");
    o.dir = fs::is_directory("/dev/shm") ? "/dev/shm" : (tmp && *tmp ? tmp : "/tmp");
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--profiler") {
    FILE* f = fopen(argv[2], "ae");
    if (!f) return 1;
    fprintf(f, "%.6f\n", now());
    fclose(f);
    return 0;
  }
  Options o = parse(argc, argv);
  const std::string self = fs::canonical("/proc/self/exe");
  printf("scan_bench: %d files in %d directories, %d rounds, in %s\n", o.files, o.dirs, o.repeat,
         o.dir.c_str());
  for (int i = 0; i < o.repeat; ++i) {
    const Round r = measure(o, self);
    const Times reference{r.find.wall + r.sqlite.wall, r.find.cpu + r.sqlite.cpu};
    printf("round %d (wall clock, CPU time of the process and its children):\n", i + 1);
    printf("  scanner, one kind-1 request:          %8.3f s %8.0f files/s   CPU %8.3f s %8.0f files/s\n",
           r.scan.wall, o.files / r.scan.wall, r.scan.cpu, o.files / r.scan.cpu);
    printf("    tagging phase (walk, select, settag, commit per file): %8.3f s\n", r.tagging);
    printf("    batch phase (%d views, profilers, marking):           %8.3f s\n", r.profilers,
           r.batches);
    printf("    CPU of the scanner's process %.3f s, of its %d profilers %.3f s\n",
           r.scan.cpu - r.profiler_cpu, r.profilers, r.profiler_cpu);
    printf("  parts alone: walk %.3f s, walk+stat %.3f s, walk+setpath+gettag %.3f s\n", r.walk,
           r.stat, r.select);
    printf("  find -type f:                         %8.3f s                   CPU %8.3f s\n",
           r.find.wall, r.find.cpu);
    printf("  SQLite, same rows, one transaction:   %8.3f s                   CPU %8.3f s\n",
           r.sqlite.wall, r.sqlite.cpu);
    printf("  reference (find + SQLite):            %8.3f s %8.0f files/s   CPU %8.3f s %8.0f files/s\n",
           reference.wall, o.files / reference.wall, reference.cpu, o.files / reference.cpu);
    printf("  ratio scanner / reference: wall %.2f, CPU %.2f (scanner's process alone %.2f)\n",
           r.scan.wall / reference.wall, r.scan.cpu / reference.cpu,
           (r.scan.cpu - r.profiler_cpu) / reference.cpu);
    fflush(stdout);
  }
  return 0;
}
