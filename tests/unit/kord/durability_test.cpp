// What kord_bulk_commit promises when the committing process is killed: a
// commit survives once its group was written (the window passed, or fini or
// a view operation followed it); the others are lost whole, never half a
// file's tags; the database stays sound.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "tests/support/wait_for.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

constexpr int kCommittedFiles = 100;
constexpr int kBetweenMarks = 300;
constexpr const char* kWriterEnv = "KORD_TEST_WRITER";  // "idle" or "stream"
constexpr const char* kReportEnv = "KORD_TEST_REPORT";  // the descriptor to report on
constexpr const char* kBaseEnv = "KORD_TEST_BASE";      // the directory of the files

void idleWriter(int fd, const std::string& base);
void streamWriter(int fd, const std::string& base);

// The writers run in this test program started anew (a fork without exec of
// a process with threads could not start the library's flusher thread under
// ThreadSanitizer): when started as one, it writes and waits to be killed
// before main() runs.
[[maybe_unused]] const bool kStartedAsWriter = [] {
  const char* role = ::getenv(kWriterEnv);
  const char* fd = ::getenv(kReportEnv);
  const char* base = ::getenv(kBaseEnv);
  if (!role || !fd || !base) return false;
  if (std::string(role) == "idle")
    idleWriter(std::atoi(fd), base);
  else
    streamWriter(std::atoi(fd), base);
  for (;;) ::pause();  // killed here
}();

class KordDurabilityTest : public KordTest {
 protected:
  // Starts this program as a writer that reports on `report`; its pid.
  pid_t spawn(Pipe& report, const char* role, const std::string& base) {
    EXPECT_EQ(report.open(), 0);
    const std::string fd = std::to_string(report.write_end.get());
    pid_t pid = ::fork();
    if (pid == 0) {
      ::fcntl(report.write_end.get(), F_SETFD, 0);  // kept across exec
      ::setenv(kWriterEnv, role, 1);
      ::setenv(kReportEnv, fd.c_str(), 1);
      ::setenv(kBaseEnv, base.c_str(), 1);
      ::execl("/proc/self/exe", "kord_test", static_cast<char*>(nullptr));
      // No exec under an emulator without binfmt_misc (qemu-mips): this
      // forked copy writes instead.
      if (std::string(role) == "idle")
        idleWriter(report.write_end.get(), base);
      else
        streamWriter(report.write_end.get(), base);
      for (;;) ::pause();
    }
    report.write_end.reset();
    return pid;
  }

  static void killAndReap(pid_t pid) {
    ASSERT_EQ(::kill(pid, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  }

  // PRAGMA integrity_check through a connection of our own.
  std::string integrity() const {
    sqlite3* db = nullptr;
    std::string result = "cannot open";
    if (::sqlite3_open_v2(database().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_stmt* stmt = nullptr;
      if (::sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &stmt, nullptr) == SQLITE_OK &&
          ::sqlite3_step(stmt) == SQLITE_ROW)
        result = reinterpret_cast<const char*>(::sqlite3_column_text(stmt, 0));
      ::sqlite3_finalize(stmt);
    }
    ::sqlite3_close(db);
    return result;
  }
};

void report(int fd, char byte) {
  if (::write(fd, &byte, 1) != 1) ::_exit(1);
}

// One file the way the scanner tags a new one.
bool tagFile(kord_bulk_t* h, const std::string& path, int i) {
  const std::string index = std::to_string(i);
  return kord_bulk_setpath(h, path.c_str()) == 0 && kord_bulk_settag(h, ".s.hash", index.c_str()) == 0 &&
         kord_bulk_settag(h, ".s.invisible", "0") == 0 && kord_bulk_settag(h, ".s.tbp", "1") == 0 &&
         kord_bulk_settag(h, ".s.filetype", "STDVIDEO") == 0 &&
         kord_bulk_settag(h, ".s.batchidx", index.c_str()) == 0 && kord_bulk_commit(h) == 0;
}

std::string fileAt(const std::string& base, int i) {
  return base + "/f" + std::to_string(i) + ".mkv";
}

// Commits kCommittedFiles files, starts one more, and stays idle.
void idleWriter(int fd, const std::string& base) {
  kord_bulk_t* h = kord_bulk_init();
  bool ok = h != nullptr;
  for (int i = 0; ok && i < kCommittedFiles; ++i) ok = tagFile(h, fileAt(base, i), i);
  std::string pending = base + "/uncommitted.mkv";
  ok = ok && kord_bulk_setpath(h, pending.c_str()) == 0 && kord_bulk_settag(h, ".s.tbp", "1") == 0;
  report(fd, ok ? '1' : '0');
}

// Commits files without end, reporting a mark after every kBetweenMarks.
void streamWriter(int fd, const std::string& base) {
  kord_bulk_t* h = kord_bulk_init();
  for (int i = 0; h; ++i) {
    if (!tagFile(h, fileAt(base, i), i)) break;
    if ((i + 1) % kBetweenMarks != 0) continue;
    // Every mark ends the group, one way or the other.
    bool marked;
    if ((i + 1) / kBetweenMarks % 2 != 0) {
      kord_bulk_fini(h);
      h = kord_bulk_init();
      marked = h != nullptr;
    } else {
      marked = kord_view_create("mark") == 0;
    }
    report(fd, marked ? 'm' : '0');
  }
  report(fd, '0');
}

// A group left alone is written once its window has passed, without any
// further call; the change the handle made after its last commit is not.
TEST_F(KordDurabilityTest, AnIdleGroupIsWrittenWithoutTheChangesAfterItsLastCommit) {
  configure();
  const std::string base = at("p1/Media");
  Pipe pipe;
  pid_t pid = spawn(pipe, "idle", base);
  ASSERT_GT(pid, 0);
  char byte = 0;
  ASSERT_EQ(::read(pipe.read_end.get(), &byte, 1), 1);
  const bool written = waitFor([&] { return files().size() == kCommittedFiles; });
  killAndReap(pid);
  ASSERT_EQ(byte, '1') << "the child could not tag";
  EXPECT_TRUE(written) << files().size() << " files visible while the child was idle";

  EXPECT_EQ(files().size(), static_cast<std::size_t>(kCommittedFiles));
  EXPECT_EQ(tagsOf(fileAt(base, 99)),
            ".s.batchidx=99 .s.filetype=STDVIDEO .s.hash=99 .s.invisible=0 .s.tbp=1");
  EXPECT_EQ(tagsOf(base + "/uncommitted.mkv"), "unknown");
  EXPECT_EQ(integrity(), "ok");
  // The killed writer's lock is gone: writing works at once.
  tag(base + "/after.mkv", {{".s.tbp", "1"}});
  EXPECT_EQ(tagsOf(base + "/after.mkv"), ".s.tbp=1");
}

// A writer killed in the middle of a stream of commits: what came before a
// fini or a view operation survives, the files that survive are the first
// ones in commit order with all their tags, and the database is sound.
TEST_F(KordDurabilityTest, AKillMidStreamLosesWholeFilesAfterTheLastWrittenGroup) {
  configure();
  const std::string base = at("p1/Media");
  Pipe pipe;
  pid_t pid = spawn(pipe, "stream", base);
  ASSERT_GT(pid, 0);
  int marks = 0;
  char byte = 0;
  while (marks < 4 && ::read(pipe.read_end.get(), &byte, 1) == 1 && byte == 'm') ++marks;
  killAndReap(pid);
  ASSERT_EQ(marks, 4) << "the child failed to tag";

  EXPECT_EQ(integrity(), "ok");
  const std::vector<std::string> known = files();
  std::size_t survivors = 0;
  while (!tagsOf(fileAt(base, static_cast<int>(survivors))).starts_with("unknown")) ++survivors;
  EXPECT_GE(survivors, static_cast<std::size_t>(4 * kBetweenMarks));
  EXPECT_EQ(known.size(), survivors) << "the files that survived are not the first ones";
  for (std::size_t i = 0; i < survivors; ++i) {
    const std::string n = std::to_string(i);
    ASSERT_EQ(tagsOf(fileAt(base, static_cast<int>(i))),
              ".s.batchidx=" + n + " .s.filetype=STDVIDEO .s.hash=" + n + " .s.invisible=0 .s.tbp=1")
        << "file " << i << " of " << survivors;
  }
  // Reopened and written by another process (this one) at once.
  tag(base + "/after.mkv", {{".s.tbp", "1"}});
  EXPECT_EQ(tagsOf(base + "/after.mkv"), ".s.tbp=1");
  EXPECT_EQ(integrity(), "ok");
}

}  // namespace
}  // namespace zibd::test
