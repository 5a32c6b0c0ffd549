// A process started by a test, read line by line from its standard output, and stopped by its
// own PID when the object goes.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace quorvix::test {

class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const std::string& workingDirectory = "");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  // Stops the process by its PID now (what the destructor does); idempotent.
  void stop();
  // The next line of output, or nothing at the end or after `limit`.
  std::optional<std::string> readLine(std::chrono::milliseconds limit = std::chrono::seconds(10));

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string pending_;
};

// Runs a command through the shell and returns its exit status.
int runCommand(const std::string& command);

}  // namespace quorvix::test
