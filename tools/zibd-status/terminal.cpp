#include "tools/zibd-status/terminal.h"

#include <errno.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "tools/zibd-status/render.h"

namespace zibd::status {

namespace {

constexpr const char* kEnter = "\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J";  // alternate screen, cursor hidden
constexpr const char* kLeave = "\x1b[?25h\x1b[?1049l";               // cursor shown, normal screen

// Global because the signal handler has no context: the write end of the
// signal pipe, and what it takes to give the terminal back when the main
// loop does not come round to it (a bus or terminal write that does not
// return): a second Ctrl-C then restores the terminal and exits at once.
int g_signal_write = -1;
std::atomic<int> g_quits{0};
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");
struct Emergency {
  int in = -1;
  int out = -1;
  bool have_saved = false;
  termios saved{};
  volatile sig_atomic_t entered = 0;  // written last, read first
};
Emergency g_emergency;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP};

void onSignal(int sig) {
  const int saved = errno;
  if ((sig == SIGINT || sig == SIGTERM || sig == SIGHUP) && g_quits.fetch_add(1) + 1 >= 2) {
    // Only async-signal-safe calls from here on.
    if (g_emergency.entered) {
      (void)!::write(g_emergency.out, kLeave, ::strlen(kLeave));
      if (g_emergency.have_saved) ::tcsetattr(g_emergency.in, TCSANOW, &g_emergency.saved);
    }
    ::_exit(0);
  }
  const unsigned char byte = static_cast<unsigned char>(sig);
  if (g_signal_write >= 0) (void)!::write(g_signal_write, &byte, 1);
  errno = saved;
}
constexpr const char* kHome = "\x1b[H";
constexpr const char* kClearLine = "\x1b[K";
constexpr const char* kClearBelow = "\x1b[J";

}  // namespace

SignalPipe::SignalPipe() {
  if (!pipe_.open(O_NONBLOCK).ok()) return;
  g_signal_write = pipe_.write_end.get();
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  for (int sig : kSignals) ::sigaction(sig, &action, nullptr);
}

SignalPipe::~SignalPipe() {
  if (!pipe_.read_end.valid()) return;
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (int sig : kSignals) ::sigaction(sig, &action, nullptr);
  g_signal_write = -1;
}

void SignalPipe::stopProcess() {
  struct sigaction action {}, previous{};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGTSTP, &action, &previous);
  ::raise(SIGTSTP);
  ::sigaction(SIGTSTP, &previous, nullptr);
}

std::vector<int> SignalPipe::take() {
  std::vector<int> signals;
  unsigned char buffer[64];
  for (;;) {
    ssize_t n = ::read(pipe_.read_end.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    signals.insert(signals.end(), buffer, buffer + n);
  }
  return signals;
}

Terminal::Terminal(int in, int out) : in_(in), out_(out) {}

Terminal::~Terminal() { leave(); }

void Terminal::enter() {
  if (entered_) return;
  if (in_ >= 0 && ::tcgetattr(in_, &saved_) == 0) {
    have_saved_ = true;
    termios raw = saved_;
    // Keys arrive one by one and are not echoed; Ctrl-C still raises SIGINT.
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    ::tcsetattr(in_, TCSADRAIN, &raw);
  }
  write(kEnter);
  entered_ = true;
  g_emergency.in = in_;
  g_emergency.out = out_;
  g_emergency.have_saved = have_saved_;
  g_emergency.saved = saved_;
  std::atomic_signal_fence(std::memory_order_release);
  g_emergency.entered = 1;
}

void Terminal::leave() {
  if (!entered_) return;
  g_emergency.entered = 0;
  write(kLeave);
  if (have_saved_) ::tcsetattr(in_, TCSADRAIN, &saved_);
  have_saved_ = false;
  entered_ = false;
}

void Terminal::size(std::size_t* columns, std::size_t* rows) const {
  winsize ws{};
  if (::ioctl(out_, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0 && ws.ws_row > 0) {
    *columns = ws.ws_col;
    *rows = ws.ws_row;
  } else {
    *columns = 80;
    *rows = 24;
  }
}

void Terminal::draw(const std::vector<std::string>& lines) {
  std::size_t columns, rows;
  size(&columns, &rows);
  std::string frame = kHome;
  const std::size_t count = std::min(lines.size(), rows);
  for (std::size_t i = 0; i < count; ++i) {
    // A line as wide as the terminal leaves the cursor in the last column,
    // where the clear would erase its last character: keep one column free.
    frame += fitWidth(lines[i], columns > 1 ? columns - 1 : columns);
    frame += kClearLine;
    if (i + 1 < count) frame += "\r\n";
  }
  frame += kClearBelow;
  write(frame);
}

void Terminal::write(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(out_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // the terminal is gone: nothing left to draw on
    done += static_cast<std::size_t>(n);
  }
}

}  // namespace zibd::status
