// A committed tag survives the death of the process that committed it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/file_descriptor.h"
#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

constexpr int kCommittedFiles = 100;

class KordDurabilityTest : public KordTest {};

// In the child: commits kCommittedFiles files one by one, the way the scanner
// does, then leaves one more change uncommitted. true when all went through.
bool tagThenHoldUncommitted(const std::string& base) {
  kord_bulk_t* h = kord_bulk_init();
  if (!h) return false;
  for (int i = 0; i < kCommittedFiles; ++i) {
    std::string path = base + "/f" + std::to_string(i) + ".mp4";
    if (kord_bulk_setpath(h, path.c_str()) != 0 || kord_bulk_settag(h, ".s.tbp", "1") != 0 ||
        kord_bulk_settag(h, ".s.batchidx", std::to_string(i).c_str()) != 0 ||
        kord_bulk_commit(h) != 0)
      return false;
  }
  std::string pending = base + "/uncommitted.mp4";
  return kord_bulk_setpath(h, pending.c_str()) == 0 && kord_bulk_settag(h, ".s.tbp", "1") == 0;
}

TEST_F(KordDurabilityTest, CommittedTagsSurviveKillOfTheCommittingProcess) {
  configure();
  const std::string base = at("p1/Media");
  Pipe ready;
  ASSERT_EQ(ready.open(), 0);
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ready.read_end.reset();
    char byte = tagThenHoldUncommitted(base) ? '1' : '0';
    if (::write(ready.write_end.get(), &byte, 1) != 1) ::_exit(1);
    for (;;) ::pause();  // killed here, holding the write lock of an open transaction
  }
  ready.write_end.reset();
  char byte = 0;
  ASSERT_EQ(::read(ready.read_end.get(), &byte, 1), 1);
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_EQ(byte, '1') << "the child could not tag";
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

  std::vector<std::string> paths = files();
  EXPECT_EQ(paths.size(), static_cast<std::size_t>(kCommittedFiles));
  EXPECT_EQ(tagsOf(base + "/f0.mp4"), ".s.batchidx=0 .s.tbp=1");
  EXPECT_EQ(tagsOf(base + "/f99.mp4"), ".s.batchidx=99 .s.tbp=1");
  EXPECT_EQ(tagsOf(base + "/uncommitted.mp4"), "unknown");
  // The killed writer's lock is gone: writing works at once.
  tag(base + "/after.mp4", {{".s.tbp", "1"}});
  EXPECT_EQ(tagsOf(base + "/after.mp4"), ".s.tbp=1");
}

}  // namespace
}  // namespace zibd::test
