// zibd-status as a user sees it: one-shot figures for each gateway state, and the live view on a pseudo-terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include "common/file_descriptor.h"
#include "tests/support/gateway_sandbox.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace zibd::test {
namespace {
const std::string kStatus = ZIBD_STATUS_PROGRAM;

constexpr char kOnceScript[] = R"sh(
. "$GATEWAY_LIB"
export TZ=UTC
once() { echo "== $1"; "$STATUS" --once --events 3; echo "exit=$?"; }
once "nothing"
printf 'dms-metadata-db-1700000000:/var/uuidmount:/var/uuidmount/aaaa/.kord/tagdb\n' >/tmp/.kord/kord.ini
mkdir -p /var/uuidmount/aaaa/Media; : >"$TOCK_EVENTS"
{ gw_disk 1 bbbb; gw_disk 2 aaaa; } >/tmp/gateway.model
gw_start_broker /tmp/gateway.model
once "not published, no database"
[ -e /var/uuidmount/aaaa/.kord ] && echo "database created"
gw_stop_broker
{ gw_model; gw_disk 1 bbbb; gw_disk 2 aaaa; } | sed -e 's/=NoSuitableDisk/=OK/' -e 's/=Ready/=Profiling/' >/tmp/gateway.model
gw_start_broker /tmp/gateway.model
printf '/var/uuidmount/aaaa' >/rw/zib_metadata_location; m=/var/uuidmount/aaaa/Media
for f in a.mkv=VIDEO b.mkv=VIDEO d.mp3=AUDIO c.mkv e.mp3 f.jpg; do case $f in
  *=*) "$KORDCTL" set $m/${f%=*} .s.filetype STD${f#*=}; "$KORDCTL" set $m/${f%=*} .s.tbp 1;;
  *) "$KORDCTL" set $m/$f .s.mdt 20250101120000;; esac; done
"$KORDCTL" set /var/uuidmount/aaaa .s.invisible 1
for i in 1 2 3 4 5 6 7; do printf 'aaaa\t2\t/Media/file %s.mkv\n' $i; done >"$TOCK_EVENTS"
once "profiling"
echo "history=$("$RILLCTL" history VFS.MetaDataService.ProfilingStatus | wc -l) views=$(ls -A /tmp/.kord/views | wc -l)"
gw_stop_broker; "$KORDCTL" del $m/a.mkv .s.tbp
once "no broker"
: >/tmp/.kord/kord.ini
once "metadata disk lost"
)sh";

TEST(StatusOnce, ShowsEachStateOfTheGatewayAndChangesNothing) {
  const Result r = runInGatewaySandbox(kOnceScript, std::chrono::seconds(60), Env{{{"STATUS", kStatus}}});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::string bus = "bus:         reachable at /run/rill.sock\n";
  const std::string no_bus = "bus:         unreachable (cannot connect to /run/rill.sock)\n"
                             "storage:     unknown (no bus)\nprofiling:   unknown (no bus)\n";
  const std::string chosen = "/var/uuidmount/aaaa (Storage.Disk.2.Partition.1), chosen 2023-11-14 22:13:20\n";
  const std::string known = "database:    /var/uuidmount/aaaa/.kord/tagdb\nremembered:  /var/uuidmount/aaaa\n"
                            "files:       7\n";
  const std::string events = "events:      7 in /run/tock.events, latest last\n  aaaa  2  /Media/file 5.mkv\n"
                             "  aaaa  2  /Media/file 6.mkv\n  aaaa  2  /Media/file 7.mkv\nexit=0\n";
  // Reading creates no database, view or bus change; the one-shot form has seen no run
  // begin, so it draws no bar. The daemon empties kord.ini when the metadata disk goes.
  EXPECT_EQ(r.out, "== nothing\n" + no_bus + "partition:   none chosen (no /tmp/.kord/kord.ini)\nremembered:  none\n"
                   "files:       no database\nevents:      none (no /run/tock.events)\nexit=0\n"
                   "== not published, no database\n" + bus + "storage:     not published\nprofiling:   not published\n"
                   "partition:   " + chosen + "database:    /var/uuidmount/aaaa/.kord/tagdb (not created yet)\n"
                   "remembered:  none\nfiles:       no database\nevents:      0 in /run/tock.events\nexit=0\n"
                   "== profiling\n" + bus + "storage:     OK\nprofiling:   Profiling\npartition:   " + chosen + known +
                   "waiting:     3\n  STDAUDIO   1\n  STDVIDEO   2\n" + events + "history=0 views=0\n"
                   "== no broker\n" + no_bus + "partition:   /var/uuidmount/aaaa, chosen 2023-11-14 22:13:20\n" +
                   known + "waiting:     2\n  STDAUDIO   1\n  STDVIDEO   2\n" + events + "== metadata disk lost\n" +
                   no_bus + "partition:   none chosen (/tmp/.kord/kord.ini is empty)\n"
                   "remembered:  /var/uuidmount/aaaa\nfiles:       no database\n" + events);
}

// The live view leads a session on a pseudo-terminal, as under a shell: a Ctrl-C typed there is its SIGINT.
class LiveView : public SandboxTest {
 protected:
  void SetUp() override {
    sandbox_.write("model", "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
                            "VFS.MetaDataService.ProfilingStatus=Ready\n");
    sandbox_.mkdirs("disk/Media");
    sandbox_.write("kord.ini", "dms-metadata-db-1:" + sandbox_.path() + ":" + (sandbox_ / "disk/.kord/tagdb") + "\n");
    startBroker();
    master_.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(master_.valid() && ::grantpt(master_.get()) == 0 && ::unlockpt(master_.get()) == 0);
    const std::string slave = ::ptsname(master_.get());
    slave_.reset(::open(slave.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const winsize size{30, 100, 0, 0};
    ASSERT_EQ(::ioctl(master_.get(), TIOCSWINSZ, &size), 0);
    ASSERT_EQ(::tcgetattr(slave_.get(), &before_), 0);
    if ((pid_ = ::fork()) == 0) {  // a new session, whose first terminal opened becomes its controlling one
      ::setsid();
      for (int fd = 0, tty = ::open(slave.c_str(), O_RDWR); fd < 3; ++fd) ::dup2(tty, fd);
      for (const auto& [name, value] : env_.set) ::setenv(name.c_str(), value.c_str(), 1);
      ::setenv("TERM", "xterm", 1);
      ::execl(kStatus.c_str(), kStatus.c_str(), "--interval", "0.2", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ASSERT_TRUE(pid_ > 0 && shows("profiling:   Ready")) << output_;
  }
  void TearDown() override { if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0); }
  void startBroker() {
    ::unlink(socket_.c_str());  // a killed broker leaves its socket file behind
    broker_ = std::make_unique<Process>(std::vector<std::string>{binary("rilld"), "--model", sandbox_ / "model"}, env_);
    ASSERT_TRUE(waitFor([&] { return ::access(socket_.c_str(), F_OK) == 0; }));
  }
  // Runs a shell command with $K (kordctl), $R (rillctl) and $M (the media directory).
  void sh(const std::string& command) { ASSERT_EQ(run({"/bin/sh", "-ec", command}, env_).status, 0) << command; }
  // Appends what the view drew since the last call.
  void drain() {
    char buffer[4096];
    ssize_t n = 0;
    for (pollfd p{master_.get(), POLLIN, 0}; ::poll(&p, 1, 0) > 0 && (n = ::read(p.fd, buffer, sizeof buffer)) > 0;)
      output_.append(buffer, static_cast<std::size_t>(n));
  }
  // Reads what the view draws until it shows the text after what the last call found.
  bool shows(const std::string& text) {
    const std::size_t from = seen_;
    return waitFor([&] {
      drain();
      const std::size_t at = output_.find(text, from);
      return at != std::string::npos && (seen_ = at + text.size());
    }, std::chrono::seconds(20));
  }
  // Presses the key (every 200 ms when `again`) until the view ends, giving the terminal back.
  void pressUntilEnded(const char* key, bool again = false) {
    int status = 0;
    ASSERT_EQ(::write(master_.get(), key, 1), 1);
    ASSERT_TRUE(waitFor([&] {
      if (::waitpid(pid_, &status, WNOHANG) == pid_) return true;
      return again && ::write(master_.get(), key, 1) != 1;
    }, std::chrono::seconds(20), std::chrono::milliseconds(again ? 200 : 10))) << "still running";
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(shows("\x1b[?25h\x1b[?1049l")) << "cursor and screen not given back";
    termios after{};
    EXPECT_TRUE(::tcgetattr(slave_.get(), &after) == 0 && after.c_lflag == before_.c_lflag) << "terminal modes kept";
  }
  const std::string socket_ = sandbox_ / "rill.sock";
  const Env env_{{{"RILL_SOCKET", socket_}, {"TOCK_EVENTS", sandbox_ / "events"},
                  {"KORD_INI", sandbox_ / "kord.ini"}, {"KORDCTL", binary("kordctl")}, {"K", binary("kordctl")},
                  {"R", binary("rillctl")}, {"M", sandbox_ / "disk/Media"}}};
  std::unique_ptr<Process> broker_;
  FileDescriptor master_, slave_;
  termios before_{};
  pid_t pid_ = -1;
  std::string output_;
  std::size_t seen_ = 0;
};

// Four files wait, profiling starts and two are profiled: the bar follows.
TEST_F(LiveView, FollowsTheGatewayWithAProgressBar) {
  sh("for f in a b c d; do \"$K\" set \"$M/$f.mkv\" .s.filetype STDVIDEO; \"$K\" set \"$M/$f.mkv\" .s.tbp 1; done");
  EXPECT_TRUE(shows("waiting:     4")) << output_;
  sh("\"$R\" set VFS.MetaDataService.ProfilingStatus Profiling");
  sh("\"$K\" del \"$M/a.mkv\" .s.tbp; \"$K\" del \"$M/b.mkv\" .s.tbp");
  EXPECT_TRUE(shows("progress:    [###############---------------] 50%  2 of 4 profiled")) << output_;
  broker_.reset();
  EXPECT_TRUE(shows("bus:         unreachable")) << output_;
  startBroker();
  EXPECT_TRUE(shows("bus:         reachable at")) << output_;
  pressUntilEnded("q");
}

TEST_F(LiveView, EndsOnCtrlC) { pressUntilEnded("\x03"); }

// A stopped broker holds the view in its bus read, out of the first Ctrl-C's reach; pressed again, it ends.
TEST_F(LiveView, CtrlCEndsItWhileTheBusDoesNotAnswer) {
  broker_->signal(SIGSTOP);
  std::size_t size = 0;
  auto grew = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitFor([&] {  // held: no frame for five refresh intervals
    drain();
    if (std::exchange(size, output_.size()) != output_.size()) grew = std::chrono::steady_clock::now();
    return std::chrono::steady_clock::now() - grew > std::chrono::seconds(1);
  }, std::chrono::seconds(20)));
  pressUntilEnded("\x03", true);
}
}  // namespace
}  // namespace zibd::test
