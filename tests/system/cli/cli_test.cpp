// The daemon's command line, start-up failures, signals and daemon mode, seen from outside.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <sstream>

#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"
#include "tests/support/wait_for.h"

namespace zibd {
namespace {

using test::binary, test::Process, test::readFile, test::run;

std::string usage(const std::string& program) {
  return "\n\nUsage: " + program + " -t <file-type-INI-file> [-n <nice>] [-d] [-h]\nOptions are as follows:\n"
         "  -t <path>   path of the INI file mapping file extensions to type/category\n  -d          run as a daemon\n"
         "  -n <nice>   run at non-default nice value (priority)\n  -w <delay>  wait for <delay> seconds before "
         "initiating cold scan actions\n  -h          print this help text and exit\n\n";
}

// /proc/PID/stat after the command name: [3] the session, [16] the nice value.
std::vector<std::string> statFields(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
  std::istringstream in(stat.substr(stat.rfind(')') + 1));
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

// True once pid catches SIGINT, SIGQUIT and SIGTERM: its handlers are set up.
bool handlesTerminationSignals(pid_t pid) {
  const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find("\nSigCgt:");
  const unsigned long long wanted = (1ull << (SIGINT - 1)) | (1ull << (SIGQUIT - 1)) | (1ull << (SIGTERM - 1));
  return at != std::string::npos && (std::stoull(status.substr(at + 8), nullptr, 16) & wanted) == wanted;
}

class CliTest : public test::SandboxTest {
 protected:
  void SetUp() override {
    sandbox_.write("types.ini", "# test map\nmp4,avi:STDVIDEO:/usr/lib/zibd/profile-video:\n"
                                "mp3:STDAUDIO:/usr/lib/zibd/profile-audio:-q\n");
    sandbox_.write("bad.ini", "# comment\n\n   mp4:STDVIDEO:/p:\nmp3:STDAUDIO:prof\n");
    sandbox_.write("long.ini", "#" + std::string(399, '-') + "\nmp4:STDVIDEO:/p:\n");  // read in two pieces
    sandbox_.mkdirs("directory.ini");
  }
  void TearDown() override {  // a daemon left behind by a failed test
    if (daemon_pid_ > 0 && ::waitpid(daemon_pid_, nullptr, WNOHANG) == 0 && ::kill(daemon_pid_, SIGKILL) == 0)
      ::waitpid(daemon_pid_, nullptr, 0);
  }
  // Runs script in a shell in a private mount namespace with $0 the daemon and $1 the map.
  test::Result inNamespace(const std::string& script) {
    std::vector<std::string> argv = {"/usr/bin/env", "unshare", "--mount", "--propagation", "private"};
    if (::geteuid() != 0) argv.insert(argv.begin() + 2, {"--user", "--map-root-user"});
    argv.insert(argv.end(), {"sh", "-c", script, binary("zibd"), map_});
    return run(argv);
  }
  std::string map_ = sandbox_ / "types.ini";
  pid_t daemon_pid_ = -1;
};

TEST_F(CliTest, BadCommandLinesAndMapsFailWithTheirMessage) {
  std::filesystem::create_symlink(binary("zibd"), sandbox_ / "mediad");
  const std::string zibd = binary("zibd"), mediad = sandbox_ / "mediad";
  const std::string getopt_then_usage = "<a line of getopt's, then the usage>";
  for (const auto& [argv, status, err] : std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
           {{zibd, "-h"}, 0, usage("zibd")},
           {{mediad, "-h"}, 0, usage("mediad")},                           // the name as invoked
           {{zibd, "-t", map_, "-h", "-x", "-n", "3"}, 0, usage("zibd")},  // -h ends the scan
           {{zibd}, 1, usage("zibd")}, {{zibd, "-d"}, 1, usage("zibd")},
           {{zibd, "-n", "3", "-t", map_}, 1, getopt_then_usage},  // in the usage, yet not accepted
           {{zibd, "-t", map_, "-w", "5"}, 1, getopt_then_usage},
           {{zibd, "-x", "-t", map_}, 1, getopt_then_usage}, {{zibd, "-t"}, 1, getopt_then_usage},
           {{zibd, "-t", sandbox_ / "directory.ini"}, 1,
            "Could not open " + (sandbox_ / "directory.ini") + " for reading\n"},  // as a missing file
           {{zibd, "-t", sandbox_ / "bad.ini"}, 1, "Parse error on line 4 of " + (sandbox_ / "bad.ini") + "\n"},
           {{zibd, "-t", sandbox_ / "long.ini"}, 1, "Parse error on line 2 of " + (sandbox_ / "long.ini") + "\n"},
       }) {
    SCOPED_TRACE(testing::PrintToString(argv));
    const test::Result r = run(argv);
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.out, "");
    const std::string want = err == getopt_then_usage ? usage("zibd") : err;
    EXPECT_TRUE(r.err.ends_with(want)) << r.err;
    EXPECT_EQ(r.err.size() > want.size(), err == getopt_then_usage) << r.err;
  }
}

class StopSignalTest : public CliTest, public ::testing::WithParamInterface<int> {};

TEST_P(StopSignalTest, RunsAtNiceTenAndStopsCleanly) {
  Process daemon({binary("zibd"), "-t", map_});
  ASSERT_TRUE(test::waitFor([&] { return handlesTerminationSignals(daemon.pid()); })) << daemon.err();
  EXPECT_EQ(statFields(daemon.pid()).at(16), "10");
  daemon.signal(GetParam());
  const auto status = daemon.wait();
  ASSERT_TRUE(status.has_value()) << "still running after the signal";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "raw status " << *status;
  EXPECT_EQ(daemon.err(), "");
}

INSTANTIATE_TEST_SUITE_P(Signals, StopSignalTest, ::testing::Values(SIGTERM, SIGINT, SIGQUIT),
                         [](const auto& p) { return std::string(sigabbrev_np(p.param)); });

// Daemon mode writes /run/NAME.pid: it runs in a private mount namespace with its own /run.
TEST_F(CliTest, DaemonModeDetachesWritesItsPidFileAndStopsOnSigtermButNeedsThePidFile) {
  if (inNamespace("mount -t tmpfs none /run").status != 0) GTEST_SKIP() << "no private mount namespace here";
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // the detached daemon becomes our child
  const test::Result ro = inNamespace("mount -t tmpfs -o ro none /run && exec \"$0\" -d -t \"$1\"");
  EXPECT_EQ(ro.status, 1);
  EXPECT_EQ(ro.err, "proc_lib_daemonize() failed\n");
  const test::Result r = inNamespace("mount -t tmpfs none /run && \"$0\" -d -t \"$1\" && cat /run/zibd.pid");
  ASSERT_EQ(r.status, 0) << r.err;
  daemon_pid_ = std::stoi(r.out);
  ASSERT_TRUE(test::waitFor([&] { return handlesTerminationSignals(daemon_pid_); }));
  const std::string proc = "/proc/" + std::to_string(daemon_pid_);
  const auto fields = statFields(daemon_pid_);
  EXPECT_EQ(fields.at(3), std::to_string(daemon_pid_)) << "not a session leader";
  EXPECT_EQ(fields.at(16), "10");
  EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), "/");
  for (const char* fd : {"/fd/0", "/fd/1", "/fd/2"}) EXPECT_EQ(std::filesystem::read_symlink(proc + fd), "/dev/null");
  ASSERT_EQ(::kill(daemon_pid_, SIGTERM), 0);
  int status = 0;
  ASSERT_TRUE(test::waitFor([&] { return ::waitpid(daemon_pid_, &status, WNOHANG) == daemon_pid_; }));
  daemon_pid_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "raw status " << status;
}

}  // namespace
}  // namespace zibd
