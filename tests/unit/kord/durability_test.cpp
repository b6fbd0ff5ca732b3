// What kord_bulk_commit promises when the committing process is killed: a
// commit survives once its group was written (the window passed, or fini or
// a view operation followed it); the others are lost whole, never half a
// file's tags; the database stays sound and the next writer gets the lock.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>

#include "common/file_descriptor.h"
#include "tests/support/wait_for.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

constexpr int kCommittedFiles = 100;
constexpr int kBetweenMarks = 300;
constexpr const char* kWriterEnv = "KORD_TEST_WRITER";  // "idle" or "stream", the report descriptor, the directory

std::string fileAt(const std::string& base, int i) { return base + "/f" + std::to_string(i) + ".mkv"; }
std::string tagsFor(int i) {
  const std::string n = std::to_string(i);
  return ".s.batchidx=" + n + " .s.filetype=STDVIDEO .s.hash=" + n + " .s.invisible=0 .s.tbp=1";
}

// One file the way the scanner tags a new one.
bool tagFile(kord_bulk_t* h, const std::string& base, int i) {
  const std::string n = std::to_string(i);
  return kord_bulk_setpath(h, fileAt(base, i).c_str()) == 0 && kord_bulk_settag(h, ".s.hash", n.c_str()) == 0 &&
         kord_bulk_settag(h, ".s.invisible", "0") == 0 && kord_bulk_settag(h, ".s.tbp", "1") == 0 &&
         kord_bulk_settag(h, ".s.filetype", "STDVIDEO") == 0 && kord_bulk_settag(h, ".s.batchidx", n.c_str()) == 0 &&
         kord_bulk_commit(h) == 0;
}

// "idle": commits kCommittedFiles files, changes one more without a commit,
// reports and stays idle. "stream": commits files without end, and after
// every kBetweenMarks ends the group (by fini, or by a view operation) and
// reports a mark. Either is killed while it waits.
[[noreturn]] void write(const std::string& role, int fd, const std::string& base) {
  kord_bulk_t* h = kord_bulk_init();
  char byte = '0';
  if (role == "idle") {
    bool ok = h != nullptr;
    for (int i = 0; ok && i < kCommittedFiles; ++i) ok = tagFile(h, base, i);
    byte = ok && kord_bulk_setpath(h, (base + "/uncommitted.mkv").c_str()) == 0 &&
                   kord_bulk_settag(h, ".s.tbp", "1") == 0
               ? '1'
               : '0';
  }
  for (int i = 0; role == "stream" && h && tagFile(h, base, i); ++i) {
    if ((i + 1) % kBetweenMarks != 0) continue;
    if ((i + 1) / kBetweenMarks % 2 != 0) {
      kord_bulk_fini(h);
      h = kord_bulk_init();
    } else if (kord_view_create("mark") != 0) {
      break;
    }
    if (h && ::write(fd, "m", 1) != 1) break;
  }
  if (::write(fd, &byte, 1) != 1) ::_exit(1);
  for (;;) ::pause();
}

// The writers run in this test program started anew (a fork without exec of
// a process with threads could not start the library's flusher thread under
// ThreadSanitizer): started as one, it writes before main() runs.
[[maybe_unused]] const bool kStartedAsWriter = [] {
  const char* env = ::getenv(kWriterEnv);
  if (!env) return false;
  const std::string spec = env;
  const std::size_t a = spec.find(':'), b = spec.find(':', a + 1);
  write(spec.substr(0, a), std::atoi(spec.substr(a + 1, b - a - 1).c_str()), spec.substr(b + 1));
}();

class KordDurabilityTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
  }
  void TearDown() override {
    if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
  }

  // Starts this program as a writer that reports on the pipe.
  void spawn(const char* role) {
    ASSERT_EQ(pipe_.open(), 0);
    const std::string spec = std::string(role) + ":" + std::to_string(pipe_.write_end.get()) + ":" + base_;
    pid_ = ::fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      ::fcntl(pipe_.write_end.get(), F_SETFD, 0);  // kept across exec
      ::setenv(kWriterEnv, spec.c_str(), 1);
      ::execl("/proc/self/exe", "kord_test", static_cast<char*>(nullptr));
      write(role, pipe_.write_end.get(), base_);  // no exec under qemu-mips without binfmt_misc
    }
    pipe_.write_end.reset();
  }
  char report() {
    char byte = 0;
    return ::read(pipe_.read_end.get(), &byte, 1) == 1 ? byte : 'x';
  }
  void kill() {
    int status = 0;
    ASSERT_TRUE(::kill(pid_, SIGKILL) == 0 && ::waitpid(pid_, &status, 0) == pid_);
    pid_ = -1;
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  }
  // PRAGMA integrity_check through a connection of our own; then a write by
  // this process, which must get the dead writer's lock at once.
  void expectSoundAndWritable() {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(::sqlite3_open_v2(database().c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    ASSERT_EQ(::sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &stmt, nullptr), SQLITE_OK);
    ASSERT_EQ(::sqlite3_step(stmt), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(::sqlite3_column_text(stmt, 0)), "ok");
    ::sqlite3_finalize(stmt);
    ::sqlite3_close(db);
    tag(base_ + "/after.mkv", {{".s.tbp", "1"}});
    EXPECT_EQ(tagsOf(base_ + "/after.mkv"), ".s.tbp=1");
  }

  const std::string base_ = at("p1/Media");
  Pipe pipe_;
  pid_t pid_ = -1;
};

// A group left alone is written once its window has passed, without any
// further call; the change the handle made after its last commit is not.
TEST_F(KordDurabilityTest, AnIdleGroupIsWrittenWithoutTheChangesAfterItsLastCommit) {
  spawn("idle");
  ASSERT_EQ(report(), '1') << "the child could not tag";
  EXPECT_TRUE(waitFor([&] { return files().size() == kCommittedFiles; })) << files().size() << " files written";
  kill();
  EXPECT_EQ(files().size(), static_cast<std::size_t>(kCommittedFiles));
  EXPECT_EQ(tagsOf(fileAt(base_, kCommittedFiles - 1)), tagsFor(kCommittedFiles - 1));
  EXPECT_EQ(tagsOf(base_ + "/uncommitted.mkv"), "unknown");
  expectSoundAndWritable();
}

// Killed in a stream of commits: what came before a fini or a view operation
// survives, and the survivors are the first files in commit order, whole.
TEST_F(KordDurabilityTest, AKillMidStreamLosesWholeFilesAfterTheLastWrittenGroup) {
  spawn("stream");
  for (int marks = 0; marks < 4; ++marks) ASSERT_EQ(report(), 'm') << "the child failed to tag";
  kill();
  const std::size_t known = files().size();
  EXPECT_GE(known, static_cast<std::size_t>(4 * kBetweenMarks));
  for (std::size_t i = 0; i < known; ++i)
    ASSERT_EQ(tagsOf(fileAt(base_, static_cast<int>(i))), tagsFor(static_cast<int>(i)))
        << "file " << i << " of " << known << " survivors";
  expectSoundAndWritable();
}

}  // namespace
}  // namespace zibd::test
