// Figures for the host tag store:
//  1. tagging N new files the way the scanner does (per file: setpath, a
//     failing gettag of ".s.mdt", five settags, commit), against inserting the
//     same rows straight into SQLite in one transaction;
//  2. making a view of one batch (100 files) and marking all its files the
//     way the profiler run does (at most 50 links a pass, one commit per file,
//     the directory opened again for every pass).
//
// usage: kord_bench [--files N] [--batches N] [--repeat N] [--dir DIR]
// Each of the N rounds (default 3) runs in a fresh scratch directory below DIR
// (default /dev/shm, else $TMPDIR or /tmp), removed afterwards; the medians
// are reported.
#include <dirent.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "host/kord/kord_host.h"
#include "host/kord/sqlite.h"
#include "host/kord/store.h"
#include "platform/kord.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kBatchSize = 100;
constexpr std::size_t kLinksPerPass = 50;
constexpr std::size_t kViewPathSize = 100;

struct Options {
  int files = 100000;
  int batches = 10;
  int repeat = 3;
  std::string dir;
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void die(const std::string& what) {
  fprintf(stderr, "kord_bench: %s: %s\n", what.c_str(), zibd::kord::lastError().message.c_str());
  exit(1);
}

std::string filePath(const std::string& root, int i) {
  return root + "/p1/Media/d" + std::to_string(i / 500) + "/f" + std::to_string(i) + ".mp4";
}

// The five tags the scanner gives a new file; batch numbers as it counts them.
struct NewFileTags {
  char hash[17];
  std::string batch;
  explicit NewFileTags(int i) : batch(std::to_string((i + 1) / kBatchSize)) {
    snprintf(hash, sizeof hash, "%016llx", 5381ULL * 33 + static_cast<unsigned long long>(i));
  }
};

double tagThroughTheApi(const std::string& root, int files) {
  kord_bulk_t* h = kord_bulk_init();
  if (!h) die("kord_bulk_init");
  char mdt[20];
  auto start = Clock::now();
  for (int i = 0; i < files; ++i) {
    std::string path = filePath(root, i);
    NewFileTags t(i);
    if (kord_bulk_setpath(h, path.c_str()) != 0) die("setpath");
    if (kord_bulk_gettag(h, ".s.mdt", mdt, sizeof mdt) == 0) die("gettag of a new file succeeded");
    if (kord_bulk_settag(h, ".s.hash", t.hash) != 0 ||
        kord_bulk_settag(h, ".s.invisible", "0") != 0 || kord_bulk_settag(h, ".s.tbp", "1") != 0 ||
        kord_bulk_settag(h, ".s.filetype", "STDVIDEO") != 0 ||
        kord_bulk_settag(h, ".s.batchidx", t.batch.c_str()) != 0)
      die("settag");
    if (kord_bulk_commit(h) != 0) die("commit");
  }
  double seconds = secondsSince(start);
  kord_bulk_fini(h);
  return seconds;
}

// A running daemon's database has the indexes its profiler views asked for.
void indexLikeARunningDaemon() {
  const char* name = "zibprof.1.STDVIDEO.0.0";
  if (kord_view_create(name) != 0 ||
      kord_view_set_cond(name,
                         "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and "
                         "@.s.batchidx@='0'") != 0 ||
      kord_view_delete(name) != 0)
    die("view");
}

// The same rows, same schema, indexes and settings, no library: in one
// transaction (the reference), or one transaction per file (what the per-file
// commits alone cost).
double insertDirectly(const std::string& database, const std::string& model,
                      const std::string& root, int files, bool commit_each) {
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
  auto start = Clock::now();
  Statement begin(db, "BEGIN");
  Statement commit(db, "COMMIT");
  if (!commit_each) Query(begin).run();
  for (int i = 0; i < files; ++i) {
    if (commit_each) Query(begin).run();
    std::string path = filePath(root, i);
    NewFileTags t(i);
    Query(file).bind(1, path).run();
    std::int64_t id = sqlite3_last_insert_rowid(db.get());
    const std::pair<const char*, std::string> tags[] = {{".s.hash", t.hash},
                                                        {".s.invisible", "0"},
                                                        {".s.tbp", "1"},
                                                        {".s.filetype", "STDVIDEO"},
                                                        {".s.batchidx", t.batch}};
    for (const auto& [name, value] : tags)
      Query(tag).bind(1, id).bind(2, name).bind(3, value).run();
    if (commit_each) Query(commit).run();
  }
  if (!commit_each) Query(commit).run();
  return secondsSince(start);
}

std::string modificationTime(const struct stat& st) {
  struct tm tm;
  char text[15];
  localtime_r(&st.st_mtime, &tm);
  strftime(text, sizeof text, "%Y%m%d%H%M%S", &tm);
  return text;
}

// Makes the view of one batch and marks its files as the profiler run does.
// Returns the number of files marked.
int viewAndMark(int batch, int run) {
  std::string name = "zibprof.1.STDVIDEO." + std::to_string(batch) + "." + std::to_string(run);
  std::string condition = "@.s.tbp@ exists and @.s.filetype@='STDVIDEO' and @.s.batchidx@='" +
                          std::to_string(batch) + "'";
  char dir[kViewPathSize];
  if (kord_view_create(name.c_str()) != 0 ||
      kord_view_set_cond(name.c_str(), condition.c_str()) != 0 ||
      kord_view_get_path(name.c_str(), dir, sizeof dir) == 0)
    die("view");
  kord_bulk_t* h = kord_bulk_init();
  int marked = 0;
  for (bool ran_out = false; !ran_out;) {
    std::vector<std::string> paths;
    DIR* d = opendir(dir);
    if (!d) die("opendir");
    while (paths.size() < kLinksPerPass) {
      const struct dirent* e = readdir(d);
      if (!e) {
        ran_out = true;
        break;
      }
      if (e->d_type != DT_LNK) continue;
      char resolved[PATH_MAX];
      std::string link = std::string(dir) + "/" + e->d_name;
      if (realpath(link.c_str(), resolved)) paths.push_back(resolved);
    }
    closedir(d);
    for (const auto& path : paths) {
      struct stat st;
      if (stat(path.c_str(), &st) != 0) continue;
      std::string mdt = modificationTime(st);
      kord_bulk_setpath(h, path.c_str());
      kord_bulk_deltag(h, ".s.tbp");
      kord_bulk_deltag(h, ".s.filetype");
      kord_bulk_settag(h, ".s.mdt", mdt.c_str());
      kord_bulk_deltag(h, ".s.batchidx");
      if (kord_bulk_commit(h) != 0) die("commit");
      ++marked;
    }
  }
  kord_bulk_fini(h);
  if (kord_view_delete(name.c_str()) != 0) die("view delete");
  return marked;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if ((a == "--files" || a == "--batches" || a == "--repeat" || a == "--dir") && i + 1 < argc) {
      std::string v = argv[++i];
      if (a == "--dir")
        o.dir = v;
      else if (a == "--files")
        o.files = atoi(v.c_str());
      else if (a == "--batches")
        o.batches = atoi(v.c_str());
      else
        o.repeat = atoi(v.c_str());
    } else {
      fprintf(stderr, "usage: kord_bench [--files N] [--batches N] [--repeat N] [--dir DIR]\n");
      exit(2);
    }
  }
  if (o.dir.empty()) {
    const char* tmp = getenv("TMPDIR");
    o.dir = fs::is_directory("/dev/shm") ? "/dev/shm" : tmp && *tmp ? tmp : "/tmp";
  }
  if (o.files < kBatchSize || o.batches < 1 || o.batches >= o.files / kBatchSize || o.repeat < 1) {
    fprintf(stderr, "kord_bench: need --files >= 100, 1 <= --batches < files/100, --repeat >= 1\n");
    exit(2);
  }
  return o;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct Round {
  double api_seconds;
  double direct_seconds;
  double direct_each_seconds;
  std::vector<double> view_ms;
};

// One measurement in a fresh scratch directory, pointed at like the daemon
// does: a configuration line, and the signal file opened after writing it.
Round measure(const Options& o) {
  std::string scratch = o.dir + "/kord-bench-XXXXXX";
  if (!mkdtemp(scratch.data())) die("mkdtemp");
  const std::string root = scratch + "/uuidmount";
  fs::create_directories(root + "/p1");
  setenv(zibd::kord::kIniEnv, (scratch + "/kord.ini").c_str(), 1);
  setenv(zibd::kord::kUpdateEnv, (scratch + "/update").c_str(), 1);
  setenv(zibd::kord::kViewsEnv, (scratch + "/views").c_str(), 1);
  std::ofstream(scratch + "/update");
  std::ofstream(scratch + "/kord.ini")
      << "dms-metadata-db-1:" << root << ":" << root << "/p1/.kord/tagdb\n";
  std::ifstream(scratch + "/update");

  Round r;
  indexLikeARunningDaemon();
  r.api_seconds = tagThroughTheApi(root, o.files);
  const std::string model = root + "/p1/.kord/tagdb";
  r.direct_seconds = insertDirectly(scratch + "/direct.db", model, root, o.files, false);
  r.direct_each_seconds = insertDirectly(scratch + "/each.db", model, root, o.files, true);

  // The files of the measured batches exist, so that the marking can resolve
  // and stat them like the daemon does.
  for (int batch = 1; batch <= o.batches; ++batch) {
    for (int i = batch * kBatchSize - 1; i < (batch + 1) * kBatchSize - 1 && i < o.files; ++i) {
      std::string path = filePath(root, i);
      fs::create_directories(fs::path(path).parent_path());
      std::ofstream{path};
    }
  }
  for (int batch = 1; batch <= o.batches; ++batch) {
    auto start = Clock::now();
    int marked = viewAndMark(batch, 1);
    r.view_ms.push_back(secondsSince(start) * 1000);
    if (marked != kBatchSize) {
      fprintf(stderr, "kord_bench: batch %d marked %d files, not %d\n", batch, marked, kBatchSize);
      exit(1);
    }
  }
  std::error_code ec;
  fs::remove_all(scratch, ec);
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  printf("kord_bench: %d files, %d view batches, %d rounds, in %s\n", o.files, o.batches, o.repeat,
         o.dir.c_str());
  std::vector<double> api, direct, each, ratio, floor_ratio, view_ms;
  for (int i = 0; i < o.repeat; ++i) {
    Round r = measure(o);
    printf(
        "round %d: bulk API %.3f s, SQLite one transaction %.3f s (ratio %.2f),"
        " SQLite one transaction per file %.3f s (ratio %.2f), view median %.1f ms\n",
        i + 1, r.api_seconds, r.direct_seconds, r.api_seconds / r.direct_seconds,
        r.direct_each_seconds, r.direct_each_seconds / r.direct_seconds, median(r.view_ms));
    fflush(stdout);
    api.push_back(r.api_seconds);
    direct.push_back(r.direct_seconds);
    each.push_back(r.direct_each_seconds);
    ratio.push_back(r.api_seconds / r.direct_seconds);
    floor_ratio.push_back(r.direct_each_seconds / r.direct_seconds);
    view_ms.insert(view_ms.end(), r.view_ms.begin(), r.view_ms.end());
  }
  printf("medians over %d rounds:\n", o.repeat);
  printf("  tagging through the bulk API, one commit per file: %7.3f s %9.0f files/s\n",
         median(api), o.files / median(api));
  printf("  same rows into SQLite directly, one transaction:   %7.3f s %9.0f files/s\n",
         median(direct), o.files / median(direct));
  printf("  ratio bulk API / direct: %.2f\n", median(ratio));
  printf("  for reference, SQLite directly with one transaction per file: %.3f s, ratio %.2f\n",
         median(each), median(floor_ratio));
  std::sort(view_ms.begin(), view_ms.end());
  printf(
      "  view of %d files created, all marked, deleted: median %.1f ms (min %.1f, max %.1f,"
      " %zu views)\n",
      kBatchSize, median(view_ms), view_ms.front(), view_ms.back(), view_ms.size());
  return 0;
}
