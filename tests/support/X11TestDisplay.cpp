#include "X11TestDisplay.h"

#include <cstdlib>
#include <fstream>

#include "ChildProcess.h"

namespace quorvix::test {

std::string testDisplayName() {
  const char* envFile = std::getenv("QRV_TEST_X11_ENV");
  if (!envFile)
    return {};
  std::ifstream in(envFile);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("DISPLAY=", 0) == 0)
      return line.substr(8);
  }
  return {};
}

int runOnTestDisplay(const std::string& command) {
  const std::string display = testDisplayName();
  if (display.empty())
    return -1;
  return runCommand("DISPLAY=" + display + " " + command);
}

}  // namespace quorvix::test
