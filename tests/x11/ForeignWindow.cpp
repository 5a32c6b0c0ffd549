// Another application's window for the x11 tests: shows one colour at a place on the display
// until stopped, and prints "ready" once the server has mapped it.
//   x11_foreign_window DISPLAY X Y WIDTH HEIGHT RRGGBB
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "x11/X11TestClient.h"

int main(int argc, char** argv) {
  if (argc != 7)
    return 2;
  quorvix::test::X11TestClient client(argv[1]);
  if (!client.ok())
    return 1;
  const std::uint32_t colour = std::uint32_t(std::stoul(argv[6], nullptr, 16));
  client.createWindow(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]),
                      std::atoi(argv[5]), [colour](int, int) { return colour; });
  std::printf("ready\n");
  std::fflush(stdout);
  pause();
  return 0;
}
