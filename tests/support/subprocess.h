// Starts the project's programs from tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zibd::test {

// Path of a program built by this project, e.g. binary("zibd").
std::string binary(const std::string& name);

struct Env {
  std::map<std::string, std::string> set;  // added to (or replacing in) the test's environment
};

// A child whose output goes to files, readable at any time; killed and reaped
// by the destructor.
class Process {
 public:
  Process(std::vector<std::string> argv, Env env = {}, std::string stdin_text = "");
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  void signal(int sig);
  // Waits for the exit; the raw wait status, or nullopt at the time-out.
  std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::string out_path_, err_path_;
};

struct Result {
  int status = -1;  // exit status, or 128 + signal, or -1 when it timed out (then killed)
  std::string out, err;
};

Result run(std::vector<std::string> argv, Env env = {}, std::string stdin_text = "",
           std::chrono::milliseconds timeout = std::chrono::seconds(20));

// WEXITSTATUS, 128 + signal, or -1.
int exitCode(int wait_status);

}  // namespace zibd::test
