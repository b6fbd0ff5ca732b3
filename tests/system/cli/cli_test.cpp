// The daemon's command line, start-up failures, signals and daemon mode, seen
// from outside by starting the built zibd.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"
#include "tests/support/wait_for.h"

namespace zibd {
namespace {

using test::binary;
using test::Process;
using test::readFile;
using test::run;

std::string usage(const std::string& program) {
  return "\n"
         "\nUsage: " +
         program +
         " -t <file-type-INI-file> [-n <nice>] [-d] [-h]\n"
         "Options are as follows:\n"
         "  -t <path>   path of the INI file mapping file extensions to type/category\n"
         "  -d          run as a daemon\n"
         "  -n <nice>   run at non-default nice value (priority)\n"
         "  -w <delay>  wait for <delay> seconds before initiating cold scan actions\n"
         "  -h          print this help text and exit\n"
         "\n";
}

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The fields of /proc/PID/stat after the command name: [0] is the state (field
// 3), [3] the session (field 6), [16] the nice value (field 19).
std::vector<std::string> statFields(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  std::vector<std::string> fields;
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return fields;
  std::istringstream in(stat.substr(close + 1));
  for (std::string f; in >> f;) fields.push_back(f);
  return fields;
}

int niceValue(pid_t pid) {
  const auto fields = statFields(pid);
  return fields.size() > 16 ? std::stoi(fields[16]) : -100;
}

// True once pid catches SIGINT, SIGQUIT and SIGTERM.
bool handlesTerminationSignals(pid_t pid) {
  std::istringstream in(readFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("SigCgt:", 0) != 0) continue;
    const unsigned long long caught = std::stoull(line.substr(7), nullptr, 16);
    const unsigned long long wanted =
        (1ull << (SIGINT - 1)) | (1ull << (SIGQUIT - 1)) | (1ull << (SIGTERM - 1));
    return (caught & wanted) == wanted;
  }
  return false;
}

class CliTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    sandbox_.write("types.ini",
                   "# test map\n"
                   "mp4,avi:STDVIDEO:/usr/lib/zibd/profile-video:\n"
                   "mp3:STDAUDIO:/usr/lib/zibd/profile-audio:-q\n");
    map_ = sandbox_ / "types.ini";
  }

  test::Result zibd(std::vector<std::string> args) {
    args.insert(args.begin(), binary("zibd"));
    return run(args);
  }

  std::string map_;
};

TEST_F(CliTest, HelpPrintsTheUsageTextAndSucceeds) {
  const test::Result r = zibd({"-h"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, usage("zibd"));
  EXPECT_EQ(r.out, "");

  // -h ends the scan before a later unknown option is seen.
  const test::Result later = zibd({"-t", map_, "-h", "-x", "-n", "3"});
  EXPECT_EQ(later.status, 0);
  EXPECT_EQ(later.err, usage("zibd"));
}

TEST_F(CliTest, UsageNamesTheProgramAsInvoked) {
  std::filesystem::create_symlink(binary("zibd"), sandbox_ / "mediad");
  const test::Result r = run({sandbox_ / "mediad", "-h"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, usage("mediad"));
}

TEST_F(CliTest, UnknownOptionsPrintGetoptsComplaintThenTheUsage) {
  // -n and -w are in the usage text but not accepted.
  const std::vector<std::vector<std::string>> cases = {
      {"-n", "3", "-t", map_}, {"-t", map_, "-w", "5"}, {"-x", "-t", map_}, {"-x", "-h"}, {"-t"}};
  for (const auto& args : cases) {
    const test::Result r = zibd(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_TRUE(endsWith(r.err, usage("zibd"))) << r.err;
    EXPECT_GT(r.err.size(), usage("zibd").size()) << args[0] << ": getopt's own line is missing";
  }
}

TEST_F(CliTest, MissingMapOptionPrintsTheUsage) {
  for (const std::vector<std::string>& args : {std::vector<std::string>{}, {"-d"}}) {
    const test::Result r = zibd(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, usage("zibd"));
  }
}

TEST_F(CliTest, UnreadableMapFails) {
  sandbox_.mkdirs("directory.ini");
  for (const std::string& map : {sandbox_ / "missing.ini", sandbox_ / "directory.ini"}) {
    const test::Result r = zibd({"-t", map});
    EXPECT_EQ(r.status, 1) << map;
    EXPECT_EQ(r.err, "Could not open " + map + " for reading\n");
  }
}

TEST_F(CliTest, ParseErrorNamesLineAndFile) {
  sandbox_.write("bad.ini",
                 "# comment\n"
                 "\n"
                 "   mp4:STDVIDEO:/p:\n"
                 "mp3:STDAUDIO:prof\n");
  test::Result r = zibd({"-t", sandbox_ / "bad.ini"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Parse error on line 4 of " + (sandbox_ / "bad.ini") + "\n");

  // A 400-character comment is read in two pieces; the second is no comment.
  sandbox_.write("long.ini", "#" + std::string(399, '-') + "\nmp4:STDVIDEO:/p:\n");
  r = zibd({"-t", sandbox_ / "long.ini"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Parse error on line 2 of " + (sandbox_ / "long.ini") + "\n");
}

class StopSignalTest : public CliTest, public ::testing::WithParamInterface<int> {};

TEST_P(StopSignalTest, RunsAtNiceTenAndStopsCleanly) {
  Process daemon({binary("zibd"), "-t", map_});
  ASSERT_TRUE(test::waitFor([&] { return handlesTerminationSignals(daemon.pid()); }))
      << daemon.err();
  EXPECT_EQ(niceValue(daemon.pid()), 10);
  EXPECT_TRUE(daemon.running());

  daemon.signal(GetParam());
  const auto status = daemon.wait();
  ASSERT_TRUE(status.has_value()) << "still running after the signal";
  EXPECT_TRUE(WIFEXITED(*status)) << "raw status " << *status;
  EXPECT_EQ(test::exitCode(*status), 0);
  EXPECT_EQ(daemon.err(), "");
}

INSTANTIATE_TEST_SUITE_P(Signals, StopSignalTest, ::testing::Values(SIGTERM, SIGINT, SIGQUIT),
                         [](const auto& param_info) {
                           return std::string(sigabbrev_np(param_info.param));
                         });

// Daemon mode writes /run/NAME.pid, so it runs in a private mount namespace
// with its own /run.
class DaemonModeTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    // Process runs a path, not a name looked up in PATH.
    unshare_ = {"/usr/bin/env", "unshare", "--mount", "--propagation", "private"};
    if (::geteuid() != 0) unshare_.insert(unshare_.begin() + 2, {"--user", "--map-root-user"});
    std::vector<std::string> probe = unshare_;
    probe.insert(probe.end(), {"sh", "-c", "mount -t tmpfs none /run"});
    if (run(probe).status != 0) GTEST_SKIP() << "no private mount namespace here";
    // The daemon outlives its parent; it becomes this process's child.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  }

  void TearDown() override {
    if (daemon_pid_ > 0 && ::waitpid(daemon_pid_, nullptr, WNOHANG) == 0) {
      ::kill(daemon_pid_, SIGKILL);
      ::waitpid(daemon_pid_, nullptr, 0);
    }
  }

  // Runs script in a shell in the namespace with $0 the daemon and $1 the map.
  test::Result inNamespace(const std::string& script) {
    std::vector<std::string> argv = unshare_;
    argv.insert(argv.end(), {"sh", "-c", script, binary("zibd"), map_});
    return run(argv);
  }

  std::vector<std::string> unshare_;
  pid_t daemon_pid_ = -1;
};

TEST_F(DaemonModeTest, DetachesWritesItsPidFileAndStopsOnSigterm) {
  const test::Result r =
      inNamespace("mount -t tmpfs none /run && \"$0\" -d -t \"$1\" && cat /run/zibd.pid");
  ASSERT_EQ(r.status, 0) << r.err;
  ASSERT_TRUE(endsWith(r.out, "\n")) << r.out;
  daemon_pid_ = std::stoi(r.out);
  ASSERT_GT(daemon_pid_, 0);

  ASSERT_TRUE(test::waitFor([&] { return handlesTerminationSignals(daemon_pid_); }));
  const std::string proc = "/proc/" + std::to_string(daemon_pid_);
  const auto fields = statFields(daemon_pid_);
  ASSERT_GT(fields.size(), 16u);
  EXPECT_EQ(fields[3], std::to_string(daemon_pid_)) << "not a session leader";
  EXPECT_EQ(fields[16], "10");
  EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), "/");
  for (const char* fd : {"/fd/0", "/fd/1", "/fd/2"})
    EXPECT_EQ(std::filesystem::read_symlink(proc + fd), "/dev/null") << fd;

  ASSERT_EQ(::kill(daemon_pid_, SIGTERM), 0);
  int status = 0;
  ASSERT_TRUE(
      test::waitFor([&] { return ::waitpid(daemon_pid_, &status, WNOHANG) == daemon_pid_; }));
  daemon_pid_ = -1;
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(test::exitCode(status), 0);
}

TEST_F(DaemonModeTest, FailsWhenThePidFileCannotBeWritten) {
  const test::Result r = inNamespace("mount -t tmpfs -o ro none /run && exec \"$0\" -d -t \"$1\"");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "proc_lib_daemonize() failed\n");
}

}  // namespace
}  // namespace zibd
