#include "tests/support/subprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace zibd::test {

std::string binary(const std::string& name) {
  for (const char* dir : {"/tools/", "/frame/", "/host/rill/", "/host/kord/", "/bench/", "/"}) {
    std::string p = std::string(ZIBD_BINARY_DIR) + dir + name;
    if (::access(p.c_str(), X_OK) == 0) return p;
  }
  throw std::runtime_error("program not built: " + name);
}

namespace {

std::string tempFile(const char* tag) {
  std::string tmpl = std::string("/tmp/zibd-") + tag + "-XXXXXX";
  int fd = ::mkstemp(tmpl.data());
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  ::close(fd);
  return tmpl;
}

}  // namespace

Process::Process(std::vector<std::string> argv, Env env, std::string stdin_text)
    : out_path_(tempFile("out")), err_path_(tempFile("err")) {
  std::string in_path = tempFile("in");
  {
    int fd = ::open(in_path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd >= 0) {
      if (::write(fd, stdin_text.data(), stdin_text.size()) < 0) {
      }
      ::close(fd);
    }
  }
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);

  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    ::setpgid(0, 0);
    int in = ::open(in_path.c_str(), O_RDONLY);
    int out = ::open(out_path_.c_str(), O_WRONLY | O_TRUNC);
    int err = ::open(err_path_.c_str(), O_WRONLY | O_TRUNC);
    if (in < 0 || out < 0 || err < 0) ::_exit(126);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    for (auto& [k, v] : env.set) ::setenv(k.c_str(), v.c_str(), 1);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::unlink(in_path.c_str());
}

Process::~Process() {
  if (running()) {
    ::kill(pid_, SIGKILL);
    wait(std::chrono::seconds(5));
  }
  ::unlink(out_path_.c_str());
  ::unlink(err_path_.c_str());
}

bool Process::running() {
  if (status_) return false;
  int st;
  pid_t r = ::waitpid(pid_, &st, WNOHANG);
  if (r == pid_) status_ = st;
  return !status_;
}

void Process::signal(int sig) {
  if (running()) ::kill(pid_, sig);
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
  waitFor([this] { return !running(); }, timeout, std::chrono::milliseconds(5));
  return status_;
}

std::string Process::out() const { return readFile(out_path_); }
std::string Process::err() const { return readFile(err_path_); }

int exitCode(int st) {
  if (WIFEXITED(st)) return WEXITSTATUS(st);
  if (WIFSIGNALED(st)) return 128 + WTERMSIG(st);
  return -1;
}

Result run(std::vector<std::string> argv, Env env, std::string stdin_text,
           std::chrono::milliseconds timeout) {
  Process p(std::move(argv), std::move(env), std::move(stdin_text));
  Result r;
  auto st = p.wait(timeout);
  if (!st) {
    p.signal(SIGKILL);
    p.wait();
  } else {
    r.status = exitCode(*st);
  }
  r.out = p.out();
  r.err = p.err();
  return r;
}

}  // namespace zibd::test
