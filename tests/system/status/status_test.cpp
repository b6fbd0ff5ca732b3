// zibd-status against a real broker, a real tag store filled with kordctl and
// written event logs: the one-shot figures, what it shows when pieces are
// missing or hostile, and the live view under a pseudo-terminal.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "common/file_descriptor.h"
#include "tests/support/gateway_sandbox.h"
#include "tests/support/sandbox.h"
#include "tests/support/subprocess.h"
#include "tests/support/wait_for.h"

extern char** environ;

namespace zibd::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kStatus = ZIBD_STATUS_PROGRAM;

// Bytes that must never reach a terminal from the one-shot output: C0
// controls but the line end, DEL, and C1 controls in their UTF-8 form.
std::string controlBytesIn(const std::string& text) {
  std::string found;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool c1 = c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                    static_cast<unsigned char>(text[i + 1]) <= 0x9f;
    if ((c < 0x20 && c != '\n') || c == 0x7f || c1) found += "[" + std::to_string(c) + " at " + std::to_string(i) + "]";
  }
  return found;
}

// The part of a sandbox script's output after the line "== NAME", up to the next "== ".
std::string section(const std::string& out, const std::string& name) {
  const std::string marker = "== " + name + "\n";
  const std::size_t start = out.find(marker);
  if (start == std::string::npos) return "";
  const std::size_t body = start + marker.size();
  const std::size_t end = out.find("\n== ", body - 1);
  return out.substr(body, end == std::string::npos ? std::string::npos : end + 1 - body);
}

Env sandboxEnv() {
  return Env{{{"STATUS", kStatus}, {"KORDCTL", binary("kordctl")}}};
}

bool haveSandbox() { return ::geteuid() == 0 || ::access("/usr/bin/unshare", X_OK) == 0; }

constexpr char kFiguresScript[] = R"sh(
set -u
export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
mkdir -p /var/uuidmount/aaaa/Media /var/uuidmount/bbbb
printf '%s\n' VFS.MetaDataService.ForceRescan=0 VFS.MetaDataService.MetaDataStorageStatus=OK \
  VFS.MetaDataService.ProfilingStatus=Profiling \
  Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/bbbb \
  Storage.Disk.2.Partition.3.MountPoint=/var/uuidmount/aaaa >/tmp/gateway.model
"$RILLD" --model /tmp/gateway.model & broker=$!
for _ in $(seq 200); do [ -S "$RILL_SOCKET" ] && break; sleep 0.05; done
printf 'dms-metadata-db-1700000000:/var/uuidmount:/var/uuidmount/aaaa/.kord/tagdb\n' >/tmp/.kord/kord.ini
printf '/var/uuidmount/aaaa' >/rw/zib_metadata_location
m=/var/uuidmount/aaaa/Media
# Waiting files carry their type; profiled ones lost it for their mark.
for f in a.mkv b.mkv; do "$KORDCTL" set $m/$f .s.filetype STDVIDEO; "$KORDCTL" set $m/$f .s.tbp 1; done
"$KORDCTL" set $m/d.mp3 .s.filetype STDAUDIO; "$KORDCTL" set $m/d.mp3 .s.tbp 1
for f in c.mkv e.mp3 f.jpg; do "$KORDCTL" set $m/$f .s.mdt 20250101120000; done
"$KORDCTL" set /var/uuidmount/aaaa .s.invisible 1
for i in 1 2 3 4 5 6 7; do printf 'aaaa\t2\t/Media/file %s.mkv\n' $i; done >"$TOCK_EVENTS"
echo "== once"
"$STATUS" --once --events 3; echo "exit=$?"
echo "== afterwards"
"$STATUS" --once --events 3 >/tmp/second; echo "exit=$?"
echo "history=$("$RILLCTL" history VFS.MetaDataService.ProfilingStatus | wc -l)"
echo "views=$(ls -A /tmp/.kord/views 2>/dev/null | wc -l)"
"$RILLCTL" set VFS.MetaDataService.ProfilingStatus Ready
"$KORDCTL" del $m/a.mkv .s.tbp
"$STATUS" --once --events 0 | grep -E '^(profiling|waiting|progress|events|  STD)'
kill $broker; wait $broker 2>/dev/null
echo "== no broker"
"$STATUS" --once --events 0; echo "exit=$?"
)sh";

TEST(StatusOnce, ShowsTheGatewaysFiguresAndChangesNothing) {
  if (!haveSandbox()) GTEST_SKIP() << "no sandbox";
  const Result r = runInGatewaySandbox(kFiguresScript, std::chrono::seconds(60), sandboxEnv());
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::string once = section(r.out, "once");
  EXPECT_THAT(once, ContainsRegex("^bus: +reachable at /run/rill.sock\n"
                                  "storage: +OK\n"
                                  "profiling: +Profiling\n"
                                  "partition: +/var/uuidmount/aaaa \\(Storage.Disk.2.Partition.3\\), chosen "
                                  "20[0-9][0-9]-[0-9][0-9]-[0-9][0-9] [0-9:]{8}\n"
                                  "database: +/var/uuidmount/aaaa/.kord/tagdb\n"
                                  "remembered: +/var/uuidmount/aaaa\n"))
      << once;
  // Seven known paths (the partition root among them), three waiting. The
  // one-shot form has seen no run begin, so it draws no progress bar.
  EXPECT_THAT(once, HasSubstr("files:       7\n"
                              "waiting:     3\n"
                              "  STDAUDIO   1\n"
                              "  STDVIDEO   2\n"
                              "events:  "))
      << once;
  EXPECT_THAT(once, HasSubstr("events:      7 in /run/tock.events, latest last\n"
                              "  aaaa  2  /Media/file 5.mkv\n"
                              "  aaaa  2  /Media/file 6.mkv\n"
                              "  aaaa  2  /Media/file 7.mkv\n"
                              "exit=0\n"))
      << once;
  EXPECT_THAT(once, Not(HasSubstr("file 4.mkv")));
  EXPECT_EQ(controlBytesIn(once), "");

  // Reading wrote nothing on the bus (seeding is no history, a write would
  // be) and made no view in the tag store.
  const std::string after = section(r.out, "afterwards");
  EXPECT_THAT(after, HasSubstr("exit=0\nhistory=0\nviews=0\n")) << after;
  // Once profiling is over the bar goes; the counts follow the tag store.
  EXPECT_THAT(after, HasSubstr("profiling:   Ready\nwaiting:     2\n  STDAUDIO   1\n  STDVIDEO   2\nevents:      7 in"))
      << after;
  EXPECT_THAT(r.out, Not(HasSubstr("progress")));

  // Without the broker the rest is still shown.
  const std::string alone = section(r.out, "no broker");
  EXPECT_THAT(alone, HasSubstr("bus:         unreachable (cannot connect to /run/rill.sock)\n"
                               "storage:     unknown (no bus)\n"
                               "profiling:   unknown (no bus)\n"
                               "partition:   /var/uuidmount/aaaa, chosen "))
      << alone;
  EXPECT_THAT(alone, HasSubstr("files:       7\n")) << alone;
  EXPECT_THAT(alone, HasSubstr("exit=0\n")) << alone;
}

constexpr char kMissingScript[] = R"sh(
set -u
export RILL_SOCKET=/run/rill.sock TOCK_EVENTS=/run/tock.events
echo "== nothing"
"$STATUS" --once; echo "exit=$?"
echo "== database not created yet"
printf 'dms-metadata-db-1700000000:/var/uuidmount:/var/uuidmount/cccc/.kord/tagdb\n' >/tmp/.kord/kord.ini
mkdir -p /var/uuidmount/cccc
: >"$TOCK_EVENTS"
"$STATUS" --once; echo "exit=$?"
[ -e /var/uuidmount/cccc/.kord ] && echo "created" || echo "still absent"
echo "== metadata disk lost"
: >/tmp/.kord/kord.ini
printf '/var/uuidmount/cccc' >/rw/zib_metadata_location
"$STATUS" --once; echo "exit=$?"
echo "== not a database"
mkdir -p /var/uuidmount/cccc/.kord
printf 'dms-metadata-db-1700000000:/var/uuidmount:/var/uuidmount/cccc/.kord/tagdb\n' >/tmp/.kord/kord.ini
head -c 4096 /dev/zero | tr '\0' 'x' >/var/uuidmount/cccc/.kord/tagdb
"$STATUS" --once; echo "exit=$?"
echo "== no service object"
printf 'Storage.Disk.1.Partition.1.MountPoint=/var/uuidmount/cccc\n' >/tmp/gateway.model
"$RILLD" --model /tmp/gateway.model & broker=$!
for _ in $(seq 200); do [ -S "$RILL_SOCKET" ] && break; sleep 0.05; done
"$STATUS" --once; echo "exit=$?"
kill $broker; wait $broker 2>/dev/null
echo "== end"
)sh";

TEST(StatusOnce, SaysWhatIsMissingAndNeverCreatesTheDatabase) {
  if (!haveSandbox()) GTEST_SKIP() << "no sandbox";
  const Result r = runInGatewaySandbox(kMissingScript, std::chrono::seconds(60), sandboxEnv());
  ASSERT_EQ(r.status, 0) << r.out << r.err;

  EXPECT_EQ(section(r.out, "nothing"),
            "bus:         unreachable (cannot connect to /run/rill.sock)\n"
            "storage:     unknown (no bus)\n"
            "profiling:   unknown (no bus)\n"
            "partition:   none chosen (no /tmp/.kord/kord.ini)\n"
            "remembered:  none\n"
            "files:       no database\n"
            "events:      none (no /run/tock.events)\n"
            "exit=0\n");

  const std::string fresh = section(r.out, "database not created yet");
  EXPECT_THAT(fresh, HasSubstr("database:    /var/uuidmount/cccc/.kord/tagdb (not created yet)\n"
                               "remembered:  none\n"
                               "files:       no database\n"
                               "events:      0 in /run/tock.events\n"
                               "exit=0\n"
                               "still absent\n"))
      << fresh;

  // The daemon empties kord.ini when the metadata disk goes and keeps the
  // remembered location.
  EXPECT_THAT(section(r.out, "metadata disk lost"),
              HasSubstr("partition:   none chosen (/tmp/.kord/kord.ini is empty)\n"
                        "remembered:  /var/uuidmount/cccc\n"
                        "files:       no database\n"));

  // kordctl's own message explains a database it cannot read.
  const std::string broken = section(r.out, "not a database");
  EXPECT_THAT(broken, ContainsRegex("\nfiles: +unknown \\(kordctl: [^\n]+\\)\n")) << broken;
  EXPECT_THAT(broken, HasSubstr("exit=0\n")) << broken;

  // A broker without the service object (zibd has not published yet).
  const std::string bare = section(r.out, "no service object");
  EXPECT_THAT(bare, HasSubstr("bus:         reachable at /run/rill.sock\n"
                              "storage:     not published\n"
                              "profiling:   not published\n"
                              "partition:   /var/uuidmount/cccc (Storage.Disk.1.Partition.1), chosen "))
      << bare;
}

TEST(StatusOnce, ShowsHostileNamesEscapedNeverRaw) {
  TempDir dir;
  // What the event log holds: the producer's own escapes (\\, \t, \n) stay as
  // written; every other control byte and every byte that is not UTF-8 is
  // shown as \xHH; valid UTF-8 stays readable.
  dir.write("events",
            "aaaa\t2\t/Media/\x1b]0;owned\x07title.mkv\n"  // a title-setting escape sequence
            "aaaa\t2\t/Media/\xc2\x9b" "2J c1.mkv\n"         // CSI as a C1 control in UTF-8
            "aaaa\t2\t/Media/caf\xc3\xa9 \xf0\x9f\x8e\xac \xff\xfe.mp3\n"
            "aaaa\t2\t/Media/over\xc0\xaflong \xed\xa0\x80surrogate.mp3\n"
            "aaaa\t2\t/Media/tab\\there\\nnew\\\\.mkv\n"
            "odd line without fields \r\x7f\n"
            "aaaa\t2\t/Media/unfinished");
  dir.write("kord.ini", "dms-metadata-db-1:/var/uuidmount:/var/uuidmount/x\x1b[2J\\y/.kord/tagdb\n");
  const Result r = run({kStatus, "--once"}, Env{{{"RILL_SOCKET", dir / "no-broker"},
                                                 {"KORD_INI", dir / "kord.ini"},
                                                 {"TOCK_EVENTS", dir / "events"}}});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(controlBytesIn(r.out), "") << r.out;
  EXPECT_THAT(r.out, HasSubstr("partition:   /var/uuidmount/x\\x1b[2J\\\\y, chosen"));
  EXPECT_THAT(r.out, HasSubstr("events:      6 in " + dir.path() + "/events, latest last\n"
                               "  aaaa  2  /Media/\\x1b]0;owned\\x07title.mkv\n"
                               "  aaaa  2  /Media/\\xc2\\x9b2J c1.mkv\n"
                               "  aaaa  2  /Media/caf\xc3\xa9 \xf0\x9f\x8e\xac \\xff\\xfe.mp3\n"
                               "  aaaa  2  /Media/over\\xc0\\xaflong \\xed\\xa0\\x80surrogate.mp3\n"
                               "  aaaa  2  /Media/tab\\there\\nnew\\\\.mkv\n"
                               "  odd line without fields \\x0d\\x7f\n"))
      << r.out;
  EXPECT_THAT(r.out, Not(HasSubstr("unfinished")));
}

TEST(StatusOnce, RefusesBadArguments) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--interval", "0"}, {"--interval", "x"}, {"--events", "-1"}, {"--events"}, {"--bogus"}}) {
    std::vector<std::string> argv{kStatus};
    argv.insert(argv.end(), args.begin(), args.end());
    const Result r = run(argv);
    EXPECT_EQ(r.status, 2) << args[0];
    EXPECT_THAT(r.err, HasSubstr("zibd-status: ")) << args[0];
    EXPECT_EQ(r.out, "") << args[0];
  }
}

// ---------------------------------------------------------------------------
// The live view on a pseudo-terminal.

class LiveView : public SandboxTest {
 protected:
  void SetUp() override {
    socket_ = sandbox_ / "rill.sock";
    events_ = sandbox_ / "events";
    sandbox_.write("model",
                   "VFS.MetaDataService.MetaDataStorageStatus=NoSuitableDisk\n"
                   "VFS.MetaDataService.ProfilingStatus=Ready\n");
    sandbox_.write("events", "aaaa\t2\t/Media/first.mkv\n");
    sandbox_.mkdirs("disk/Media");
    sandbox_.write("kord.ini", "dms-metadata-db-1700000000:" + sandbox_.path() + ":" + (sandbox_ / "disk/.kord/tagdb") + "\n");
    startBroker();

    master_.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(master_.valid());
    ASSERT_EQ(::grantpt(master_.get()), 0);
    ASSERT_EQ(::unlockpt(master_.get()), 0);
    const std::string slave_path = ::ptsname(master_.get());
    slave_.reset(::open(slave_path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(slave_.valid());
    resize(100, 30);
    ASSERT_EQ(::tcgetattr(slave_.get(), &before_), 0);

    // The view runs as a session leader whose controlling terminal is the
    // pseudo-terminal, as under a shell: a Ctrl-C typed there is its SIGINT.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, slave_path.c_str(), O_RDWR, 0);
    posix_spawn_file_actions_adddup2(&actions, 0, 1);
    posix_spawn_file_actions_adddup2(&actions, 0, 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    std::vector<std::string> env_text{"RILL_SOCKET=" + socket_, "TOCK_EVENTS=" + events_,
                                      "KORD_INI=" + (sandbox_ / "kord.ini"), "KORDCTL=" + binary("kordctl"),
                                      "TERM=xterm", "TZ=UTC"};
    if (const char* asan = ::getenv("ASAN_OPTIONS")) env_text.push_back(std::string("ASAN_OPTIONS=") + asan);
    std::vector<char*> envp;
    for (auto& e : env_text) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> argv_text{kStatus, "--interval", "0.2"};
    std::vector<char*> argv;
    for (auto& a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, kStatus.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ASSERT_EQ(rc, 0);
  }

  void TearDown() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  void startBroker() {
    ::unlink(socket_.c_str());  // a killed broker leaves its socket file behind
    broker_ = std::make_unique<Process>(std::vector<std::string>{binary("rilld"), "--model", sandbox_ / "model"},
                                        Env{{{"RILL_SOCKET", socket_}}});
    ASSERT_TRUE(waitFor([&] { return ::access(socket_.c_str(), F_OK) == 0; }));
  }

  void resize(unsigned short columns, unsigned short rows) {
    winsize ws{};
    ws.ws_col = columns;
    ws.ws_row = rows;
    ASSERT_EQ(::ioctl(master_.get(), TIOCSWINSZ, &ws), 0);
  }

  // Reads what the view drew until pred(output) holds; false after 20 s.
  template <typename Pred>
  bool readUntil(Pred pred) {
    return waitFor(
        [&] {
          pollfd p{master_.get(), POLLIN, 0};
          while (::poll(&p, 1, 0) > 0 && (p.revents & POLLIN)) {
            char buffer[4096];
            const ssize_t n = ::read(master_.get(), buffer, sizeof buffer);
            if (n <= 0) break;
            output_.append(buffer, static_cast<std::size_t>(n));
          }
          return pred(output_);
        },
        std::chrono::seconds(20));
  }

  // Frames start at the cursor's home and end with a clear below.
  std::size_t framesAfter(std::size_t offset) const {
    std::size_t count = 0;
    for (std::size_t at = output_.find("\x1b[J", offset); at != std::string::npos;
         at = output_.find("\x1b[J", at + 1))
      ++count;
    return count;
  }

  // The text lines of the last whole frame drawn after offset.
  std::vector<std::string> lastFrame(std::size_t offset) const {
    const std::size_t end = output_.rfind("\x1b[J");
    const std::size_t start = output_.rfind("\x1b[H", end);
    std::vector<std::string> lines;
    if (end == std::string::npos || start == std::string::npos || start < offset) return lines;
    std::string body = output_.substr(start + 3, end - start - 3);
    for (std::size_t at = 0; at <= body.size();) {
      std::size_t next = body.find("\x1b[K", at);
      if (next == std::string::npos) break;
      lines.push_back(body.substr(at, next - at));
      at = next + 3;
      while (at < body.size() && (body[at] == '\r' || body[at] == '\n')) ++at;  // the tty adds a CR
    }
    return lines;
  }

  // kordctl on this test's tag store.
  void kord(std::vector<std::string> args) {
    args.insert(args.begin(), binary("kordctl"));
    const Result r = run(args, Env{{{"KORD_INI", sandbox_ / "kord.ini"}}});
    ASSERT_EQ(r.status, 0) << r.err;
  }

  std::optional<int> waitExit() {
    int status = 0;
    if (!waitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, std::chrono::seconds(20)))
      return std::nullopt;
    pid_ = -1;
    return status;
  }

  std::string socket_, events_;
  std::unique_ptr<Process> broker_;
  FileDescriptor master_, slave_;
  termios before_{};
  pid_t pid_ = -1;
  std::string output_;
};

TEST_F(LiveView, RedrawsInPlaceFollowsTheGatewayAndRestoresTheTerminalOnCtrlC) {
  ASSERT_TRUE(readUntil([](const std::string& o) { return o.find("profiling:   Ready") != std::string::npos; }))
      << output_;
  // While it runs, keys are neither echoed nor buffered by lines.
  termios during{};
  ASSERT_EQ(::tcgetattr(slave_.get(), &during), 0);
  EXPECT_EQ(during.c_lflag & (ECHO | ICANON), 0u);

  // Four files wait, profiling starts and two are profiled: the bar follows.
  for (const char* name : {"a.mkv", "b.mkv", "c.mkv", "d.mkv"}) {
    const std::string file = sandbox_ / (std::string("disk/Media/") + name);
    kord({"set", file, ".s.filetype", "STDVIDEO"});
    kord({"set", file, ".s.tbp", "1"});
  }
  std::size_t mark = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string& o) { return o.find("waiting:     4", mark) != std::string::npos; }))
      << output_.substr(mark);
  ASSERT_EQ(run({binary("rillctl"), "set", "VFS.MetaDataService.ProfilingStatus", "Profiling"},
                Env{{{"RILL_SOCKET", socket_}}})
                .status,
            0);
  {
    FileDescriptor log(::open(events_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    const std::string line = "aaaa\t2\t/Media/second.mkv\n";
    ASSERT_EQ(::write(log.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  mark = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string& o) {
    const std::size_t at = o.find("profiling:   Profiling", mark);
    return at != std::string::npos && o.find("0 of 4 profiled", at) != std::string::npos &&
           o.find("/Media/second.mkv", at) != std::string::npos;
  })) << output_.substr(mark);
  EXPECT_THAT(output_, HasSubstr("events:      2 in "));
  for (const char* name : {"a.mkv", "b.mkv"}) {
    const std::string file = sandbox_ / (std::string("disk/Media/") + name);
    kord({"del", file, ".s.tbp"});
    kord({"del", file, ".s.filetype"});
  }
  // One frame with the new figures (kordctl's changes land one by one).
  mark = output_.size();
  const auto half = ContainsRegex("waiting: +2\x1b\\[K\r*\n  STDVIDEO   2\x1b\\[K\r*\n"
                        "progress: +\\[#{15}-{15}\\] 50%  2 of 4 profiled\x1b\\[K");
  ASSERT_TRUE(readUntil([&](const std::string& o) { return ::testing::Matches(half)(o.substr(mark)); }))
      << output_.substr(mark);

  // The broker goes away: the view says so and keeps refreshing.
  broker_.reset();
  mark = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string& o) {
    const std::size_t at = o.find("bus:         unreachable", mark);
    return at != std::string::npos && framesAfter(at) >= 3;
  })) << output_.substr(mark);
  // ...and finds it again when it returns.
  startBroker();
  mark = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string& o) {
    return o.find("bus:         reachable at", mark) != std::string::npos;
  })) << output_.substr(mark);

  // A narrower terminal: the next frame fits it.
  resize(40, 30);
  mark = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string&) { return framesAfter(mark) >= 2; }));
  const std::vector<std::string> frame = lastFrame(mark);
  ASSERT_GE(frame.size(), 8u) << output_.substr(mark);
  for (const std::string& line : frame) EXPECT_LE(line.size(), 39u) << line;
  // A shorter one: no more lines than rows, so nothing scrolls.
  resize(40, 5);
  mark = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string&) { return framesAfter(mark) >= 2; }));
  EXPECT_EQ(lastFrame(mark).size(), 5u) << output_.substr(mark);

  // Every redraw was made in place: the screen was cleared once, on entry.
  std::size_t clears = 0;
  for (std::size_t at = output_.find("\x1b[2J"); at != std::string::npos; at = output_.find("\x1b[2J", at + 1))
    ++clears;
  EXPECT_EQ(clears, 1u);
  EXPECT_GE(framesAfter(0), 8u);

  // Ctrl-C typed on the terminal.
  ASSERT_EQ(::write(master_.get(), "\x03", 1), 1);
  const auto status = waitExit();
  ASSERT_TRUE(status.has_value()) << "still running after Ctrl-C";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  readUntil([](const std::string& o) { return o.ends_with("\x1b[?25h\x1b[?1049l"); });
  EXPECT_TRUE(output_.ends_with("\x1b[?25h\x1b[?1049l")) << "cursor and screen not given back";
  termios after{};
  ASSERT_EQ(::tcgetattr(slave_.get(), &after), 0);
  EXPECT_EQ(after.c_lflag, before_.c_lflag);
}

TEST_F(LiveView, QuitsOnQ) {
  ASSERT_TRUE(readUntil([](const std::string& o) { return o.find("profiling:   Ready") != std::string::npos; }));
  ASSERT_EQ(::write(master_.get(), "q", 1), 1);
  const auto status = waitExit();
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  termios after{};
  ASSERT_EQ(::tcgetattr(slave_.get(), &after), 0);
  EXPECT_EQ(after.c_lflag, before_.c_lflag);
  readUntil([](const std::string& o) { return o.ends_with("\x1b[?25h\x1b[?1049l"); });
  EXPECT_TRUE(output_.ends_with("\x1b[?25h\x1b[?1049l"));
}

// A broker that stops answering (here: stopped) holds the view in its bus
// read, where the first Ctrl-C cannot reach the loop; the second ends it
// from the handler, terminal given back.
TEST_F(LiveView, ASecondCtrlCEndsItWhileTheBusDoesNotAnswer) {
  ASSERT_TRUE(readUntil([](const std::string& o) { return o.find("profiling:   Ready") != std::string::npos; }));
  broker_->signal(SIGSTOP);
  // Held: no frame for five refresh intervals.
  auto last_growth = std::chrono::steady_clock::now();
  std::size_t seen = output_.size();
  ASSERT_TRUE(readUntil([&](const std::string& o) {
    if (o.size() != seen) {
      seen = o.size();
      last_growth = std::chrono::steady_clock::now();
    }
    return std::chrono::steady_clock::now() - last_growth > std::chrono::seconds(1);
  }));
  // Pressed again and again, as a person would (two at once would make one
  // signal).
  int status_word = 0;
  int presses = 0;
  std::optional<int> status;
  waitFor(
      [&] {
        if (::waitpid(pid_, &status_word, WNOHANG) == pid_) {
          status = status_word;
          pid_ = -1;
          return true;
        }
        ++presses;
        return ::write(master_.get(), "\x03", 1) != 1;
      },
      std::chrono::seconds(20), std::chrono::milliseconds(200));
  broker_->signal(SIGCONT);
  EXPECT_GE(presses, 2);
  ASSERT_TRUE(status.has_value()) << "still running after two Ctrl-C";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  termios after{};
  ASSERT_EQ(::tcgetattr(slave_.get(), &after), 0);
  EXPECT_EQ(after.c_lflag, before_.c_lflag);
  readUntil([](const std::string& o) { return o.ends_with("\x1b[?25h\x1b[?1049l"); });
  EXPECT_TRUE(output_.ends_with("\x1b[?25h\x1b[?1049l"));
}

}  // namespace
}  // namespace zibd::test
