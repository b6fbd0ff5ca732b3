// A killed committer: commits of a written group survive, others are lost whole; the database stays sound.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <cstdio>
#include "common/file_descriptor.h"
#include "tests/support/wait_for.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {
constexpr int kIdleFiles = 100;
constexpr int kBetweenMarks = 300;
constexpr const char* kWriterEnv = "KORD_TEST_WRITER";  // role:report descriptor:directory

std::string fileAt(const std::string& base, int i) { return base + "/f" + std::to_string(i) + ".mkv"; }
std::string tagsFor(int i) {
  return ".s.batchidx=" + std::to_string(i) + " .s.filetype=STDVIDEO .s.hash=" + std::to_string(i) + " .s.tbp=1";
}

// "idle": kIdleFiles commits, one change uncommitted, reports '1' and waits. "stream": commits
// without end, ending its group every kBetweenMarks files (by fini, by a view operation) with an 'm'.
[[noreturn]] void write(const std::string& role, int fd, const std::string& base) {
  const bool idle = role == "idle";
  kord_bulk_t* h = kord_bulk_init();
  int i = 0;
  for (; h && (!idle || i < kIdleFiles); ++i) {
    const std::string n = std::to_string(i);
    if (kord_bulk_setpath(h, fileAt(base, i).c_str()) || kord_bulk_settag(h, ".s.hash", n.c_str()) ||
        kord_bulk_settag(h, ".s.tbp", "1") || kord_bulk_settag(h, ".s.filetype", "STDVIDEO") ||
        kord_bulk_settag(h, ".s.batchidx", n.c_str()) || kord_bulk_commit(h))
      break;
    if (idle || (i + 1) % kBetweenMarks) continue;
    const bool by_fini = (i + 1) / kBetweenMarks % 2;
    if (by_fini) kord_bulk_fini(h);
    if (by_fini ? !(h = kord_bulk_init()) : kord_view_create("mark") != 0) break;
    if (::write(fd, "m", 1) != 1) break;
  }
  const bool ok = idle && i == kIdleFiles && kord_bulk_setpath(h, (base + "/uncommitted.mkv").c_str()) == 0 &&
                  kord_bulk_settag(h, ".s.tbp", "1") == 0;
  if (::write(fd, ok ? "1" : "0", 1) != 1) ::_exit(1);
  for (;;) ::pause();
}

// A writer is this program re-executed (TSan: no flusher thread after a bare fork); it writes before main().
[[maybe_unused]] const bool kStartedAsWriter = [] {
  const char* request = ::getenv(kWriterEnv);
  char role[8] = ""; int fd = -1, end = 0;
  if (!request) return false;
  if (std::sscanf(request, "%7[a-z]:%d:%n", role, &fd, &end) != 2 || end == 0) ::_exit(2);
  write(role, fd, request + end);
}();

class KordDurabilityTest : public KordTest {
 protected:
  void TearDown() override { if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0); }
  // Starts this program as a writer that reports on the pipe.
  void spawn(const char* role) {
    configure();
    ASSERT_TRUE(pipe_.open().ok());
    const std::string request = std::string(role) + ":" + std::to_string(pipe_.write_end.get()) + ":" + base_;
    if ((pid_ = ::fork()) == 0) {
      ::fcntl(pipe_.write_end.get(), F_SETFD, 0);  // kept across exec
      ::setenv(kWriterEnv, request.c_str(), 1);
      ::execl("/proc/self/exe", "kord_test", static_cast<char*>(nullptr));
      write(role, pipe_.write_end.get(), base_);  // no exec under qemu-mips without binfmt_misc
    }
    pipe_.write_end.reset();
  }
  char report() { char byte = 0; return ::read(pipe_.read_end.get(), &byte, 1) == 1 ? byte : 'x'; }
  // Kills the writer; the database must then pass integrity_check and take a write at once.
  void killAndExpectSoundAndWritable() {
    int status = 0;
    ASSERT_TRUE(pid_ > 0 && ::kill(pid_, SIGKILL) == 0 && ::waitpid(std::exchange(pid_, -1), &status, 0) > 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    sqlite3* db = nullptr; std::string verdict;
    ASSERT_EQ(::sqlite3_open_v2(database().c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    ::sqlite3_exec(db, "PRAGMA integrity_check", [](void* out, int, char** row, char**) {
      *static_cast<std::string*>(out) = row[0] ? row[0] : "";
      return 0;
    }, &verdict, nullptr);
    ::sqlite3_close(db);
    EXPECT_EQ(verdict, "ok");
    known_ = files().size();
    tag(base_ + "/after.mkv", {{".s.tbp", "1"}});
    EXPECT_EQ(tagsOf(base_ + "/after.mkv"), ".s.tbp=1");
  }
  const std::string base_ = at("p1/Media");
  Pipe pipe_;
  pid_t pid_ = -1;
  std::size_t known_ = 0;  // files known right after the kill
};

// A group left alone is written once its window has passed; the change after the last commit is not.
TEST_F(KordDurabilityTest, AnIdleGroupIsWrittenWithoutTheChangesAfterItsLastCommit) {
  spawn("idle");
  ASSERT_EQ(report(), '1') << "the child could not tag";
  EXPECT_TRUE(waitFor([&] { return files().size() == kIdleFiles; })) << files().size() << " files written";
  killAndExpectSoundAndWritable();
  EXPECT_EQ(known_, static_cast<std::size_t>(kIdleFiles));
  EXPECT_EQ(tagsOf(fileAt(base_, kIdleFiles - 1)), tagsFor(kIdleFiles - 1));
  EXPECT_EQ(tagsOf(base_ + "/uncommitted.mkv"), "unknown");
}

// Killed mid-stream: what came before a fini or view operation survives, and the survivors are the first files, whole.
TEST_F(KordDurabilityTest, AKillMidStreamLosesWholeFilesAfterTheLastWrittenGroup) {
  spawn("stream");
  for (int marks = 0; marks < 4; ++marks) ASSERT_EQ(report(), 'm') << "the child failed to tag";
  killAndExpectSoundAndWritable();
  EXPECT_GE(known_, static_cast<std::size_t>(4 * kBetweenMarks));
  for (std::size_t i = 0; i < known_; ++i)
    ASSERT_EQ(tagsOf(fileAt(base_, static_cast<int>(i))), tagsFor(static_cast<int>(i))) << "survivor " << i;
}
}  // namespace
}  // namespace zibd::test
