#include "tests/support/subprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/sandbox.h"
#include "tests/support/wait_for.h"

namespace zibd::test {

std::string binary(const std::string& name) {
  // ZIBD_PROGRAMS is "name=path|name=path|..." from the build's own targets.
  const std::string programs = std::string("|") + ZIBD_PROGRAMS + "|", key = "|" + name + "=";
  const size_t at = programs.find(key);
  if (at == std::string::npos) throw std::runtime_error("program not built: " + name);
  const size_t from = at + key.size();
  return programs.substr(from, programs.find('|', from) - from);
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
  if (int fd = ::open(in_path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC); fd >= 0) {
    if (::write(fd, stdin_text.data(), stdin_text.size()) < 0) {
    }
    ::close(fd);
  }
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  // Prepared before the fork: a child of a threaded test may not allocate.
  std::map<std::string, std::string> environment = env.set;  // over the test's own
  for (char** e = environ; *e; ++e) {
    const std::string entry(*e);
    if (const size_t eq = entry.find('='); eq != std::string::npos)
      environment.emplace(entry.substr(0, eq), entry.substr(eq + 1));
  }
  std::vector<std::string> env_entries;
  for (auto& [k, v] : environment) env_entries.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& e : env_entries) envp.push_back(e.data());
  envp.push_back(nullptr);
  int in = ::open(in_path.c_str(), O_RDONLY | O_CLOEXEC);
  int out = ::open(out_path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  int err = ::open(err_path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);

  pid_ = ::fork();
  if (pid_ == 0) {
    ::setpgid(0, 0);
    if (in < 0 || out < 0 || err < 0) ::_exit(126);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::execve(args[0], args.data(), envp.data());
    ::_exit(127);
  }
  for (int fd : {in, out, err})
    if (fd >= 0) ::close(fd);
  ::unlink(in_path.c_str());
  if (pid_ < 0) throw std::runtime_error("fork failed");
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
  const auto st = p.wait(timeout);
  if (!st) {
    p.signal(SIGKILL);
    p.wait();
  }
  return Result{st ? exitCode(*st) : -1, p.out(), p.err()};
}

}  // namespace zibd::test
