// CPU cost of the two X11 capture sources per captured frame, at scale 1.0 and 0.5, beside the
// peers measured in the same run: ffmpeg's x11grab capturing alone, and the floors (a bare
// MIT-SHM grab loop, memcmp/memcpy of one frame). Run inside the reference scene, which exports
// DISPLAY and the X server's PID (the server does the MIT-SHM copy, so its CPU counts too):
//   scene.sh [--static] -- capture_bench PEERS_DIR [FRAMES]
// PEERS_DIR holds xshmgrab and memfloor built from their sources. With a static scene the figure
// that matters is the cost of a frame request that finds nothing changed.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cairo.h>
#include <future>

#include "annotations/QRVLinuxAnnotations.h"
#include "frameloop/DisplayGrabber.h"
#include "frameloop/linux/QRVX11DisplayFrameSource.h"
#include "frameloop/linux/QRVX11WindowFrameSource.h"
#include "frameloop/linux/XcbConnection.h"
#include "frameloop/linux/XcbShm.h"
#include "quorvix/Log.h"
#include "session-ui/linux/X11Overlay.h"

namespace {

using namespace quorvix;
using Clock = std::chrono::steady_clock;

// The frame loop's thread is this one.
class InlineExecutor final : public Executor, public quorvix::Clock {
 public:
  bool isCurrent() const override { return true; }
  void post(Task task) override { task(); }
  TaskHandle postAfter(Duration, Task) override { return {}; }
  const quorvix::Clock& clock() const override { return *this; }
  SteadyTime now() const override { return std::chrono::steady_clock::now(); }
  WallTime wallNow() const override { return std::chrono::system_clock::now(); }
};

double cpuMs(int who) {
  rusage r{};
  getrusage(who, &r);
  return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1e3 +
         (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e3;
}

// Time on CPU of every thread of the X server, from the scheduler's statistics.
double serverMs() {
  const char* pid = std::getenv("SCENE_XVFB_PID");
  if (!pid)
    return 0;
  const std::string dir = std::string("/proc/") + pid + "/task";
  double total = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] == '.')
        continue;
      std::ifstream in(dir + "/" + e->d_name + "/schedstat");
      double ns = 0;
      if (in >> ns)
        total += ns / 1e6;
    }
    closedir(d);
  }
  return total;
}

struct Row {
  std::string name;
  int frames = 0;     // frame requests at 10 a second, which the cost is divided by
  int newFrames = 0;  // of those, pictures that differed from the previous one
  double clientMs = 0;
  double serverMs = 0;
  double perFrame() const { return frames ? (clientMs + serverMs) / frames : 0; }
};

template <class Body>
Row measure(const std::string& name, int who, Body body) {
  Row row{name};
  const double c0 = cpuMs(who);
  const double s0 = serverMs();
  body(row);
  row.clientMs = cpuMs(who) - c0;
  row.serverMs = serverMs() - s0;
  return row;
}

// Frame requests at 10 a second, as the frame loop makes them.
template <class Request>
void paced(int frames, Request request) {
  const auto start = Clock::now();
  for (int i = 0; i < frames; ++i) {
    std::this_thread::sleep_until(start + std::chrono::milliseconds(100) * i);
    request();
  }
}

Row displaySource(const std::string& display, double scale, int frames) {
  auto queue = std::make_shared<InlineExecutor>();
  QRVX11DisplayFrameSource source(queue, display);
  source.capturingWillStart();
  source.newFrame(scale);  // connects and reads once, outside the figure
  std::shared_ptr<const QRVImage> last;
  char name[64];
  std::snprintf(name, sizeof name, "display source, scale %.1f", scale);
  return measure(name, RUSAGE_SELF, [&](Row& row) {
    paced(frames, [&] {
      auto frame = source.newFrame(scale);
      ++row.frames;
      if (frame && frame->image() != last) {
        ++row.newFrames;
        last = frame->image();
      }
    });
  });
}

// Every mapped top-level window of the scene counts as the host's, so that the source reads
// what a busy application would show.
Row windowSource(const std::string& display, double scale, int frames) {
  QRVX11WindowFrameSource source(display);
  xcb_connection_t* c = xcb_connect(display.c_str(), nullptr);
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
  if (auto* tree = xcb_query_tree_reply(c, xcb_query_tree(c, screen->root), nullptr)) {
    const xcb_window_t* children = xcb_query_tree_children(tree);
    for (int i = 0; i < xcb_query_tree_children_length(tree); ++i)
      source.registerWindow(children[i]);
    std::free(tree);
  }
  xcb_disconnect(c);
  source.capturingWillStart();
  // Until the first picture, outside the figure.
  for (int i = 0; i < 200 && !source.newFrame(scale); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::shared_ptr<const QRVImage> last;
  char name[64];
  std::snprintf(name, sizeof name, "window source, scale %.1f", scale);
  return measure(name, RUSAGE_SELF, [&](Row& row) {
    // Captures run on their own thread about every 100 ms, as often as frames are asked for.
    paced(frames, [&] {
      auto frame = source.newFrame(scale);
      ++row.frames;
      if (frame && frame->image() != last) {
        ++row.newFrames;
        last = frame->image();
      }
    });
  });
}

// The floor again, paced as the sources are: a whole-screen MIT-SHM read every 100 ms. Between
// reads the scene's drawing pushes the framebuffer out of the caches, so each copy costs what it
// costs a source, which the back-to-back loop does not show.
Row pacedFloor(const std::string& display, int frames) {
  Row row{"floor: MIT-SHM grab, paced"};
  auto c = x11::XcbConnection::open(display, "capture_bench");
  const xcb_screen_t* screen = c ? xcb_setup_roots_iterator(xcb_get_setup(c->get())).data : nullptr;
  auto segment = c ? x11::ShmSegment::create(*c, std::size_t(1920) * 1080 * 4) : nullptr;
  if (!segment)
    return row;
  return measure(row.name, RUSAGE_SELF, [&](Row& r) {
    paced(frames, [&] {
      std::free(xcb_shm_get_image_reply(
          c->get(),
          xcb_shm_get_image(c->get(), screen->root, 0, 0, screen->width_in_pixels,
                            screen->height_in_pixels, ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment->id(),
                            0),
          nullptr));
      ++r.frames;
      ++r.newFrames;
    });
  });
}

// What a live session puts over the screen: the border, a drawing over the middle and the laser
// dot, made and dropped on a main queue of their own, as the library does.
class Overlays {
 public:
  explicit Overlays(const std::string& display) : queue_(makeThreadExecutor("bench-overlays")) {
    onQueue([&] {
      display_ = X11Display::open(display, queue_);
      if (!display_)
        return;
      const MainScreenFrame screen = [] { return QRVRect{0, 0, 1920, 1080}; };
      indicator_ = std::make_unique<QRVLinuxSessionIndicator>(display_, screen);
      indicator_->show();
      canvas_ = std::make_shared<X11AnnotationCanvas>(display_, screen);
      annotations_ = std::make_unique<QRVLinuxAnnotations>(canvas_, queue_);
      annotations_->setActive(true);
      annotations_->updateDrawnAnnotation(*QRVDrawing::from(Value::Map{{"type", "Drawing"},
                                                                       {"id", "d"},
                                                                       {"x", 0.3},
                                                                       {"y", 0.4},
                                                                       {"width", 0.25},
                                                                       {"height", 0.3},
                                                                       {"image", redPng()}}));
      annotations_->updateLaserAnnotation(*QRVLaser::from(Value::Map{{"type", "Laser"},
                                                                     {"id", "l"},
                                                                     {"state", "touchmove"},
                                                                     {"x", 0.5},
                                                                     {"y", 0.5},
                                                                     {"colour", "00ff00"}}));
    });
    // Time for the server to map and paint them.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  ~Overlays() {
    onQueue([&] {
      annotations_.reset();
      canvas_.reset();
      indicator_.reset();
      display_.reset();
    });
  }

 private:
  static std::vector<std::uint8_t> redPng() {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 64, 48);
    cairo_t* cr = cairo_create(surface);
    cairo_set_source_rgba(cr, 1, 0, 0, 1);
    cairo_set_line_width(cr, 4);
    cairo_rectangle(cr, 8, 8, 48, 32);
    cairo_stroke(cr);
    cairo_destroy(cr);
    std::vector<std::uint8_t> png;
    cairo_surface_write_to_png_stream(
        surface,
        [](void* closure, const unsigned char* data, unsigned int length) {
          auto* out = static_cast<std::vector<std::uint8_t>*>(closure);
          out->insert(out->end(), data, data + length);
          return CAIRO_STATUS_SUCCESS;
        },
        &png);
    cairo_surface_destroy(surface);
    return png;
  }
  template <class F>
  void onQueue(F f) {
    std::promise<void> done;
    queue_->post([&] {
      f();
      done.set_value();
    });
    done.get_future().wait();
  }

  std::shared_ptr<Executor> queue_;
  std::shared_ptr<X11Display> display_;
  std::unique_ptr<QRVLinuxSessionIndicator> indicator_;
  std::shared_ptr<X11AnnotationCanvas> canvas_;
  std::unique_ptr<QRVLinuxAnnotations> annotations_;
};

// The whole-screen read alone, as the display source makes it when something changed: wall time
// of each read (the server does the copy) and CPU of both sides.
struct GrabFigure {
  Row row;
  double wallMs = 0;
};

GrabFigure grabReads(const std::string& display, const char* name, int frames) {
  GrabFigure figure;
  auto grabber = DisplayGrabber::createX11(display);
  if (!grabber)
    return figure;
  const QRVScreenRect rect = grabber->mainScreen()->frame();
  for (int i = 0; i < 3; ++i) {  // redirection, first notifications: outside the figure
    grabber->takeDamage(rect);
    grabber->read(rect);
  }
  double wall = 0;
  figure.row = measure(name, RUSAGE_SELF, [&](Row& row) {
    for (int i = 0; i < frames; ++i) {
      grabber->takeDamage(rect);
      const auto start = Clock::now();
      if (!grabber->read(rect).empty())
        ++row.newFrames;
      wall += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      ++row.frames;
    }
  });
  figure.wallMs = frames ? wall / frames : 0;
  return figure;
}

int run(const std::vector<std::string>& argv) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> args;
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  setStderrLogging(false);
  const char* display = std::getenv("DISPLAY");
  if (argc < 2 || !display) {
    std::fprintf(stderr, "usage: scene.sh [--static] -- capture_bench PEERS_DIR [FRAMES]\n");
    return 2;
  }
  const std::string peers = argv[1];
  const int frames = argc > 2 ? std::atoi(argv[2]) : 100;

  // CAPTURE_BENCH_ONLY=[window]SCALE runs one source alone, for a profiler.
  if (const char* only = std::getenv("CAPTURE_BENCH_ONLY")) {
    const std::string which = only;
    const bool window = which.starts_with("window");
    const double scale = std::atof(which.c_str() + (window ? 6 : 0));
    const Row row =
        window ? windowSource(display, scale, frames) : displaySource(display, scale, frames);
    std::printf("%s: %d requests, %d new, %.3f ms client + %.3f ms X server per request\n",
                row.name.c_str(), row.frames, row.newFrames, row.clientMs / row.frames,
                row.serverMs / row.frames);
    return 0;
  }

  // The scene's own drawing loads the X server too: measured alone over as long as a paced run
  // takes, and taken off every paced row below.
  const Row scene = measure("scene alone", RUSAGE_SELF, [&](Row& row) {
    paced(frames, [] {});
    row.frames = frames;
  });
  const double sceneServerPerFrame = scene.serverMs / frames;
  auto netOfScene = [sceneServerPerFrame](Row row) {
    row.serverMs = std::max(0.0, row.serverMs - sceneServerPerFrame * row.frames);
    return row;
  };

  std::vector<Row> rows;
  rows.push_back(measure("ffmpeg x11grab, capture alone", RUSAGE_CHILDREN, [&](Row& row) {
    run({"ffmpeg",
         "-hide_banner",
         "-nostdin",
         "-loglevel",
         "error",
         "-f",
         "x11grab",
         "-draw_mouse",
         "0",
         "-framerate",
         "10",
         "-video_size",
         "1920x1080",
         "-i",
         display,
         "-frames:v",
         std::to_string(frames),
         "-c:v",
         "rawvideo",
         "-f",
         "null",
         "-"});
    row.frames = row.newFrames = frames;
  }));
  rows.back() = netOfScene(rows.back());
  rows.push_back(measure("floor: MIT-SHM grab loop", RUSAGE_CHILDREN, [&](Row& row) {
    run({peers + "/xshmgrab", std::to_string(frames), "shm"});
    row.frames = row.newFrames = frames;
  }));
  rows.push_back(netOfScene(pacedFloor(display, frames)));
  const double pacedFloorMs = rows.back().perFrame();
  for (double scale : {1.0, 0.5}) {
    rows.push_back(netOfScene(displaySource(display, scale, frames)));
    rows.push_back(netOfScene(windowSource(display, scale, frames)));
  }

  // The library's own overlays up: what leaving them out of the frames costs.
  const GrabFigure plain = grabReads(display, "root read", frames);
  GrabFigure repaired;
  {
    Overlays overlays(display);
    repaired = grabReads(display, "root read, overlays rebuilt", frames);
    rows.push_back(netOfScene(displaySource(display, 1.0, frames)));
    rows.back().name += ", overlays up";
  }

  const double peer = rows[0].perFrame();
  const double floor = rows[1].perFrame();
  std::printf("X server load of the scene alone: %.3f ms per 100 ms (taken off the paced rows)\n",
              sceneServerPerFrame);
  std::printf("%-40s %7s %7s %10s %10s %10s %8s %8s %8s\n", "pipeline", "frames", "new",
              "client ms", "server ms", "ms/frame", "x ffmpeg", "x floor", "x paced");
  for (const auto& r : rows)
    std::printf("%-40s %7d %7d %10.1f %10.1f %10.3f %8.2f %8.2f %8.2f\n", r.name.c_str(), r.frames,
                r.newFrames, r.clientMs, r.serverMs, r.perFrame(),
                peer > 0 ? r.perFrame() / peer : 0.0, floor > 0 ? r.perFrame() / floor : 0.0,
                pacedFloorMs > 0 ? r.perFrame() / pacedFloorMs : 0.0);
  std::fflush(stdout);

  std::printf("\nleaving the border, a drawing and the laser out of full-screen reads\n");
  std::printf("%-32s %10s %12s\n", "read", "wall ms", "cpu ms (c+s)");
  for (const GrabFigure* g : {&plain, static_cast<const GrabFigure*>(&repaired)})
    std::printf("%-32s %10.3f %12.3f\n", g->row.name.c_str(), g->wallMs, g->row.perFrame());
  const double extraWall = repaired.wallMs - plain.wallMs;
  const double extraCpu = repaired.row.perFrame() - plain.row.perFrame();
  std::printf(
      "extra per frame: %.3f ms wall (%.2f%% of the 100 ms budget, %.2fx the plain read), "
      "%.3f ms cpu (%.2f%%, %.2fx)\n",
      extraWall, extraWall, plain.wallMs > 0 ? extraWall / plain.wallMs : 0.0, extraCpu, extraCpu,
      plain.row.perFrame() > 0 ? extraCpu / plain.row.perFrame() : 0.0);
  std::fflush(stdout);
  std::printf("\nfloor: memcmp / memcpy of one 1920x1080 frame\n");
  std::fflush(stdout);
  run({peers + "/memfloor"});
  return 0;
}
