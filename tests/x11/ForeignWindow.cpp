// Another application's window for the x11 tests: shows one colour at a place on the display
// until stopped, and prints "ready WINDOW-ID" once the server has mapped it. With PID it claims
// that process as its owner through _NET_WM_PID, as a toolkit window of that process would.
//   x11_foreign_window DISPLAY X Y WIDTH HEIGHT RRGGBB [PID]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "x11/X11TestClient.h"

int main(int argc, char** argv) {
  if (argc != 7 && argc != 8)
    return 2;
  quorvix::test::X11TestClient client(argv[1]);
  if (!client.ok())
    return 1;
  const std::uint32_t colour = std::uint32_t(std::stoul(argv[6], nullptr, 16));
  std::uint32_t pid = 0;
  if (argc == 8)
    pid = std::uint32_t(std::stoul(argv[7]));
  const xcb_window_t window = client.createWindow(
      std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]),
      [colour](int, int) { return colour; }, false, pid);
  std::printf("ready %u\n", window);
  std::fflush(stdout);
  pause();
  return 0;
}
