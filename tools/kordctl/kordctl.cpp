// kordctl: reads and changes the tag database from the command line, through
// the same library as the daemon.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/kord/kord_host.h"
#include "platform/kord.h"

namespace {

namespace kord = zibd::kord;

constexpr int kExitOk = 0;
constexpr int kExitNotFound = 1;
constexpr int kExitUsage = 2;  // also: no database, bad condition, failures

constexpr const char* kUsage =
    "usage: kordctl [-0] [--db FILE] COMMAND [ARGUMENTS]\n"
    "Reads and changes the tags of media files in the tag database.\n"
    "\n"
    "Commands:\n"
    "  tags PATH            print PATH's tags as NAME=VALUE lines, sorted by name\n"
    "  files [DIR]          print the known paths equal to or below DIR (default: all), sorted\n"
    "  query CONDITION      print the known paths whose tags satisfy CONDITION, sorted;\n"
    "                       CONDITION joins terms \"@TAG@ exists\" and \"@TAG@='VALUE'\" with\n"
    "                       \" and \", e.g. \"@.s.tbp@ exists and @.s.filetype@='STDVIDEO'\"\n"
    "  set PATH NAME VALUE [NAME VALUE]...\n"
    "                       set the tag NAME of PATH to VALUE (several in one commit)\n"
    "  del PATH NAME        delete the tag NAME of PATH\n"
    "  stats                print the number of known files (\"files N\"), of files to\n"
    "                       be profiled (\".s.tbp N\") and of files per type\n"
    "                       (\".s.filetype=TYPE N\")\n"
    "\n"
    "Options:\n"
    "  --db FILE            use the database FILE for all paths instead of the configured one\n"
    "  -0, --null           end each path (files, query) or NAME=VALUE (tags) with a NUL\n"
    "                       byte instead of a newline, for names and values holding\n"
    "                       newlines (as find -print0 does)\n"
    "  -h, --help           print this help\n"
    "\n"
    "Without --db the database is the one the configuration file names\n"
    "(/tmp/.kord/kord.ini, or the file in KORD_INI).\n"
    "Exit status: 0 done, 1 unknown path or tag, 2 usage error, no database or failure.\n";

int usageError(const std::string& message) {
  ::fprintf(stderr, "kordctl: %s\nTry 'kordctl --help'.\n", message.c_str());
  return kExitUsage;
}

int failure(const std::string& message, int code = kExitUsage) {
  ::fprintf(stderr, "kordctl: %s\n", message.c_str());
  return code;
}

// The library's reason for the last failure, with the matching exit code.
int libraryFailure(const std::string& fallback) {
  kord::Error e = kord::lastError();
  return failure(e.message.empty() ? fallback : e.message,
                 e.status == kord::Status::kNotFound ? kExitNotFound : kExitUsage);
}

// Makes a path typed by hand absolute (against the working directory) and
// drops trailing slashes; the library refuses what is still not canonical.
std::string absolutePath(std::string path) {
  if (path.empty()) return path;
  if (path.front() != '/') {
    char cwd[PATH_MAX];
    if (::getcwd(cwd, sizeof cwd)) path = std::string(cwd) + (cwd[1] ? "/" : "") + path;
  }
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// What ends each item of a list: '\n', or '\0' with -0.
char g_terminator = '\n';

// One list item as it is (it may hold any byte but NUL), then the terminator.
void printItem(const std::string& item) {
  ::fwrite(item.data(), 1, item.size(), stdout);
  ::putchar(g_terminator);
}

void printLines(const std::vector<std::string>& lines) {
  for (const auto& line : lines) printItem(line);
}

int commandTags(const std::vector<std::string>& args) {
  std::vector<std::pair<std::string, std::string>> tags;
  kord::Status s = kord::listTags(absolutePath(args[0]), &tags);
  if (s != kord::Status::kOk) return libraryFailure("cannot read tags");
  for (const auto& [name, value] : tags) printItem(name + "=" + value);
  return kExitOk;
}

int commandFiles(const std::vector<std::string>& args) {
  std::vector<std::string> paths;
  if (kord::listFiles(args.empty() ? "/" : absolutePath(args[0]), &paths) != kord::Status::kOk)
    return libraryFailure("cannot list files");
  printLines(paths);
  return kExitOk;
}

int commandQuery(const std::vector<std::string>& args) {
  std::vector<std::string> paths;
  if (kord::query(args[0], &paths) != kord::Status::kOk) return libraryFailure("query failed");
  printLines(paths);
  return kExitOk;
}

struct HandleCloser {
  void operator()(kord_bulk_t* h) const { kord_bulk_fini(h); }
};

// Selects PATH on a fresh handle, applies change (a library call about the
// tag NAME) and commits. Returns the exit code.
int changeTag(const std::string& path, const std::string& name,
              const std::function<int(kord_bulk_t*)>& change) {
  std::unique_ptr<kord_bulk_t, HandleCloser> handle(kord_bulk_init());
  if (!handle) return libraryFailure("cannot use the tag library");
  std::string absolute = absolutePath(path);
  if (kord_bulk_setpath(handle.get(), absolute.c_str()) != 0) return libraryFailure("bad path");
  if (change(handle.get()) != 0) {
    if (kord::lastError().status == kord::Status::kNotFound)
      return failure(absolute + " has no tag " + name, kExitNotFound);
    return libraryFailure("cannot change the tag");
  }
  if (kord_bulk_commit(handle.get()) != 0) return libraryFailure("cannot commit");
  return kExitOk;
}

// set PATH NAME VALUE [NAME VALUE]...: all in one commit (a profiler stores
// a file's metadata with one call).
int commandSet(const std::vector<std::string>& args) {
  if (args.size() % 2 == 0) return usageError("usage: kordctl set PATH NAME VALUE [NAME VALUE]...");
  for (std::size_t i = 1; i < args.size(); i += 2)
    if (args[i].empty()) return usageError("empty tag name");
  return changeTag(args[0], args[1], [&](kord_bulk_t* h) {
    for (std::size_t i = 1; i < args.size(); i += 2) {
      if (kord_bulk_settag(h, args[i].c_str(), args[i + 1].c_str()) != 0) return -1;
    }
    return 0;
  });
}

int commandDel(const std::vector<std::string>& args) {
  return changeTag(args[0], args[1],
                   [&](kord_bulk_t* h) { return kord_bulk_deltag(h, args[1].c_str()); });
}

int commandStats(const std::vector<std::string>&) {
  kord::Stats stats;
  if (kord::stats(&stats) != kord::Status::kOk) return libraryFailure("cannot count");
  ::printf("files %llu\n", static_cast<unsigned long long>(stats.files));
  ::printf(".s.tbp %llu\n", static_cast<unsigned long long>(stats.to_be_profiled));
  for (const auto& [type, count] : stats.by_filetype)
    ::printf(".s.filetype=%s %llu\n", type.c_str(), static_cast<unsigned long long>(count));
  return kExitOk;
}

struct Command {
  std::size_t min_args;
  std::size_t max_args;
  const char* synopsis;
  int (*run)(const std::vector<std::string>&);
};

const std::map<std::string, Command>& commands() {
  static const std::map<std::string, Command> table = {
      {"tags", {1, 1, "tags PATH", commandTags}},
      {"files", {0, 1, "files [DIR]", commandFiles}},
      {"query", {1, 1, "query CONDITION", commandQuery}},
      {"set", {3, static_cast<std::size_t>(-1), "set PATH NAME VALUE [NAME VALUE]...", commandSet}},
      {"del", {2, 2, "del PATH NAME", commandDel}},
      {"stats", {0, 0, "stats", commandStats}},
  };
  return table;
}

// Points the library at --db FILE, which must exist: a typing error should
// not leave an empty database behind.
int useDatabaseFile(const std::string& file) {
  struct stat st;
  if (::stat(file.c_str(), &st) != 0)
    return failure("cannot use database " + file + ": " + ::strerror(errno));
  if (!S_ISREG(st.st_mode)) return failure("cannot use database " + file + ": not a regular file");
  char resolved[PATH_MAX];
  if (!::realpath(file.c_str(), resolved))
    return failure("cannot use database " + file + ": " + ::strerror(errno));
  kord::useDatabase(resolved);
  return kExitOk;
}

int run(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::size_t i = 0;
  for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; ++i) {
    const std::string& option = args[i];
    if (option == "-h" || option == "--help") {
      ::fputs(kUsage, stdout);
      return kExitOk;
    }
    if (option == "--") {
      ++i;
      break;
    }
    if (option == "-0" || option == "--null") {
      g_terminator = '\0';
      continue;
    }
    std::string file;
    if (option == "--db") {
      if (i + 1 >= args.size()) return usageError("--db needs a FILE");
      file = args[++i];
    } else if (option.rfind("--db=", 0) == 0) {
      file = option.substr(5);
    } else {
      return usageError("unknown option '" + option + "'");
    }
    if (file.empty()) return usageError("--db needs a FILE");
    if (int rc = useDatabaseFile(file); rc != kExitOk) return rc;
  }
  if (i >= args.size()) return usageError("no command given");
  auto it = commands().find(args[i]);
  if (it == commands().end()) return usageError("unknown command '" + args[i] + "'");
  const Command& command = it->second;
  std::vector<std::string> rest(args.begin() + static_cast<long>(i) + 1, args.end());
  if (rest.size() < command.min_args || rest.size() > command.max_args)
    return usageError(std::string("usage: kordctl ") + command.synopsis);
  return command.run(rest);
}

}  // namespace

int main(int argc, char** argv) {
  int rc;
  try {
    rc = run(argc, argv);
  } catch (const std::exception& e) {
    rc = failure(e.what());
  }
  if (::fflush(stdout) != 0 || ::ferror(stdout)) return failure("cannot write the output");
  return rc;
}
