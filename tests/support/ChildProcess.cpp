#include "ChildProcess.h"

#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quorvix::test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::string& workingDirectory) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return;
  pid_ = fork();
  if (pid_ == 0) {
    // Goes with the test process, even when that is killed.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(fds[1], STDOUT_FILENO);
    if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0)
      _exit(127);
    std::vector<char*> args;
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(fds[1]);
  out_ = fds[0];
}

ChildProcess::~ChildProcess() {
  stop();
  if (out_ >= 0)
    close(out_);
}

void ChildProcess::stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    // Give it a moment to go, then insist.
    for (int i = 0; i < 200 && waitpid(pid_, &status, WNOHANG) == 0; ++i)
      usleep(10000);
    if (waitpid(pid_, &status, WNOHANG) == 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
    }
    pid_ = -1;
  }
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (true) {
    auto nl = pending_.find('\n');
    if (nl != std::string::npos) {
      std::string line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return line;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (out_ < 0 || left.count() <= 0)
      return std::nullopt;
    pollfd p{out_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0)
      return std::nullopt;
    char buffer[512];
    const ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0)
      return std::nullopt;
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
}

int runCommand(const std::string& command) {
  return std::system(command.c_str());
}

}  // namespace quorvix::test
