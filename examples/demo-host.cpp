// A small X11 application that shares itself through the library: a window with a text field
// and two buttons that show what they receive, whether from the user or from the agent.
//
//   quorvix-demo-host --api http://127.0.0.1:PORT/ --license KEY [--display :N]
//
// Prints "session code: CODE" once the service made a session, then one line per session change
// and per click or key the window receives, and ends when the session ends.
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include <cairo-xcb.h>
#include <cairo.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "quorvix/Log.h"
#include "quorvix/Quorvix.h"

namespace {

using namespace quorvix;

std::atomic<bool> sessionEnded{false};

const char* consentName(QRVConsentState s) {
  switch (s) {
    case QRVConsentState::off:
      return "off";
    case QRVConsentState::requested:
      return "requested";
    case QRVConsentState::rejected:
      return "rejected";
    case QRVConsentState::on:
      return "on";
  }
  return "?";
}

class Delegate : public QuorvixDelegate {
 public:
  void quorviSessionDidUpdate(const std::shared_ptr<QRVSession>& s) override {
    std::printf("session %s, full device %s, remote control %s\n", s->state().value_or("?").c_str(),
                consentName(s->fullDevice()), consentName(s->remoteControl()));
    std::fflush(stdout);
  }
  void quorviSessionDidEnd(const std::shared_ptr<QRVSession>&) override {
    std::printf("session ended\n");
    std::fflush(stdout);
    sessionEnded = true;
  }
};

struct Button {
  const char* label;
  int x, y, width, height;
  bool contains(int px, int py) const {
    return px >= x && py >= y && px < x + width && py < y + height;
  }
};

// The window and what it shows. Runs on the main thread of the program.
class DemoWindow {
 public:
  explicit DemoWindow(const char* display) {
    connection_ = xcb_connect(display, &screenNumber_);
    if (xcb_connection_has_error(connection_))
      return;
    auto it = xcb_setup_roots_iterator(xcb_get_setup(connection_));
    for (int i = 0; i < screenNumber_; ++i)
      xcb_screen_next(&it);
    screen_ = it.data;
    window_ = xcb_generate_id(connection_);
    const std::uint32_t values[] = {screen_->white_pixel,
                                    XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_BUTTON_PRESS |
                                        XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                                        XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen_->root, 100, 100, kWidth,
                      kHeight, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
    setProperty("WM_NAME", XCB_ATOM_STRING, 8, "Quorvix demo", 12);
    const std::uint32_t pid = static_cast<std::uint32_t>(getpid());
    setProperty("_NET_WM_PID", XCB_ATOM_CARDINAL, 32, &pid, 1);
    xcb_map_window(connection_, window_);
    xcb_flush(connection_);

    xkb_x11_setup_xkb_extension(connection_, XKB_X11_MIN_MAJOR_XKB_VERSION,
                                XKB_X11_MIN_MINOR_XKB_VERSION, XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS,
                                nullptr, nullptr, nullptr, nullptr);
    context_ = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    const int keyboard = xkb_x11_get_core_keyboard_device_id(connection_);
    keymap_ = xkb_x11_keymap_new_from_device(context_, connection_, keyboard,
                                             XKB_KEYMAP_COMPILE_NO_FLAGS);
    if (keymap_)
      state_ = xkb_x11_state_new_from_device(keymap_, connection_, keyboard);
  }
  ~DemoWindow() {
    if (state_)
      xkb_state_unref(state_);
    if (keymap_)
      xkb_keymap_unref(keymap_);
    if (context_)
      xkb_context_unref(context_);
    xcb_disconnect(connection_);
  }
  bool ok() const { return screen_ && state_; }

  // Handles events until the session ends or the window goes.
  void run() {
    while (!sessionEnded) {
      xcb_generic_event_t* raw = xcb_poll_for_event(connection_);
      if (!raw) {
        if (xcb_connection_has_error(connection_))
          return;
        usleep(10000);
        continue;
      }
      std::unique_ptr<xcb_generic_event_t, decltype(&std::free)> event(raw, &std::free);
      switch (event->response_type & 0x7F) {
        case XCB_EXPOSE:
          draw();
          break;
        case XCB_BUTTON_PRESS: {
          auto* press = reinterpret_cast<xcb_button_press_event_t*>(raw);
          // A click gives the window the keyboard, as a text field's window takes it.
          xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_POINTER_ROOT, window_, press->time);
          xcb_flush(connection_);
          click(press->event_x, press->event_y);
          break;
        }
        case XCB_KEY_PRESS:
        case XCB_KEY_RELEASE: {
          auto* key = reinterpret_cast<xcb_key_press_event_t*>(raw);
          const bool down = (event->response_type & 0x7F) == XCB_KEY_PRESS;
          if (down)
            type(key->detail);
          xkb_state_update_key(state_, key->detail, down ? XKB_KEY_DOWN : XKB_KEY_UP);
          break;
        }
        case XCB_DESTROY_NOTIFY:
          return;
        default:
          break;
      }
    }
  }

 private:
  static constexpr int kWidth = 480;
  static constexpr int kHeight = 220;

  void setProperty(const char* name,
                   xcb_atom_t type,
                   std::uint8_t format,
                   const void* data,
                   std::uint32_t length) {
    auto cookie =
        xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name);
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> atom(
        xcb_intern_atom_reply(connection_, cookie, nullptr), &std::free);
    if (atom)
      xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window_, atom->atom, type, format,
                          length, data);
  }

  void click(int x, int y) {
    for (const Button& button : buttons_) {
      if (button.contains(x, y)) {
        if (std::strcmp(button.label, "Clear") == 0)
          text_.clear();
        else
          text_ += " Hello!";
        std::printf("clicked \"%s\"\n", button.label);
        std::fflush(stdout);
        draw();
        return;
      }
    }
  }

  void type(xcb_keycode_t keycode) {
    const xkb_keysym_t sym = xkb_state_key_get_one_sym(state_, keycode);
    if (sym == XKB_KEY_BackSpace) {
      // Drop the last character, however many bytes it takes.
      while (!text_.empty() && (static_cast<unsigned char>(text_.back()) & 0xC0) == 0x80)
        text_.pop_back();
      if (!text_.empty())
        text_.pop_back();
    } else {
      char utf8[8] = {};
      if (xkb_state_key_get_utf8(state_, keycode, utf8, sizeof utf8) <= 0 ||
          static_cast<unsigned char>(utf8[0]) < 0x20)
        return;
      text_ += utf8;
      std::printf("typed \"%s\"\n", utf8);
      std::fflush(stdout);
    }
    draw();
  }

  void draw() {
    xcb_visualtype_t* visual = nullptr;
    for (auto d = xcb_screen_allowed_depths_iterator(screen_); d.rem && !visual;
         xcb_depth_next(&d)) {
      for (auto v = xcb_depth_visuals_iterator(d.data); v.rem; xcb_visualtype_next(&v)) {
        if (v.data->visual_id == screen_->root_visual) {
          visual = v.data;
          break;
        }
      }
    }
    cairo_surface_t* surface =
        cairo_xcb_surface_create(connection_, window_, visual, kWidth, kHeight);
    cairo_t* cr = cairo_create(surface);
    cairo_set_source_rgb(cr, 0.96, 0.96, 0.98);
    cairo_paint(cr);
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, 16);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    cairo_move_to(cr, 20, 36);
    cairo_show_text(cr, "Type here:");
    cairo_set_source_rgb(cr, 1, 1, 1);
    cairo_rectangle(cr, 20, 50, kWidth - 40, 40);
    cairo_fill_preserve(cr);
    cairo_set_source_rgb(cr, 0.4, 0.4, 0.5);
    cairo_stroke(cr);
    cairo_set_source_rgb(cr, 0.1, 0.1, 0.1);
    cairo_move_to(cr, 28, 76);
    cairo_show_text(cr, text_.c_str());
    for (const Button& b : buttons_) {
      cairo_set_source_rgb(cr, 0.2, 0.45, 0.85);
      cairo_rectangle(cr, b.x, b.y, b.width, b.height);
      cairo_fill(cr);
      cairo_set_source_rgb(cr, 1, 1, 1);
      cairo_move_to(cr, b.x + 16, b.y + 26);
      cairo_show_text(cr, b.label);
    }
    cairo_destroy(cr);
    cairo_surface_flush(surface);
    cairo_surface_destroy(surface);
    xcb_flush(connection_);
  }

  xcb_connection_t* connection_ = nullptr;
  int screenNumber_ = 0;
  xcb_screen_t* screen_ = nullptr;
  xcb_window_t window_ = 0;
  xkb_context* context_ = nullptr;
  xkb_keymap* keymap_ = nullptr;
  xkb_state* state_ = nullptr;
  std::string text_;
  const Button buttons_[2] = {{"Say hello", 20, 120, 140, 40}, {"Clear", 180, 120, 100, 40}};
};

// The address a connected Unix socket's peer is bound to ("@" for the abstract namespace).
std::string unixPeer(int fd) {
  sockaddr_un address{};
  socklen_t length = sizeof address;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      length <= sizeof(sa_family_t))
    return "(unnamed)";
  std::string path(address.sun_path, length - sizeof(sa_family_t));
  if (!path.empty() && path[0] == '\0')
    path[0] = '@';
  return path.c_str();
}

// Open sockets of this process, each as "tcp port N" (its peer), "unix PEER" or "other".
std::vector<std::string> openSockets() {
  std::map<std::string, std::string> tcpPeers;  // inode -> peer
  for (const char* table : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
      fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
          timeout >> inode;
      const auto colon = remote.rfind(':');
      if (colon != std::string::npos)
        tcpPeers[inode] =
            "tcp port " + std::to_string(std::stoi(remote.substr(colon + 1), nullptr, 16));
    }
  }
  std::set<std::string> unixInodes;
  {
    std::ifstream in("/proc/self/net/unix");
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string skip, inode;
      for (int i = 0; i < 6; ++i)
        fields >> skip;
      fields >> inode;
      unixInodes.insert(inode);
    }
  }
  std::vector<std::string> sockets;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
    if (error || target.rfind("socket:[", 0) != 0)
      continue;
    const std::string inode = target.substr(8, target.size() - 9);
    if (auto found = tcpPeers.find(inode); found != tcpPeers.end())
      sockets.push_back(found->second);
    else
      sockets.push_back(unixInodes.count(inode)
                            ? "unix " + unixPeer(std::stoi(entry.path().filename()))
                            : "other");
  }
  return sockets;
}

}  // namespace

int main(int argc, char** argv) {
  std::string api, license, display;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--api")
      api = argv[i + 1];
    else if (flag == "--license")
      license = argv[i + 1];
    else if (flag == "--display")
      display = argv[i + 1];
  }
  if (api.empty() || license.empty()) {
    std::fprintf(stderr, "usage: %s --api URL --license KEY [--display :N]\n", argv[0]);
    return 2;
  }
  if (std::getenv("QUORVIX_DEMO_LOG"))
    addLogHandler([](const LogRecord& r) {
      std::fprintf(stderr, "[%.*s] %.*s\n", static_cast<int>(r.category.size()), r.category.data(),
                   static_cast<int>(r.message.size()), r.message.data());
    });
  // The library shares the display the window is on.
  if (!display.empty())
    setenv("DISPLAY", display.c_str(), 1);
  auto window = std::make_unique<DemoWindow>(display.empty() ? nullptr : display.c_str());
  if (!window->ok()) {
    std::fprintf(stderr, "no X display to show the demo on\n");
    return 1;
  }
  auto& quorvix = Quorvix::instance();
  quorvix.setApi(api);
  quorvix.setLicense(license);
  quorvix.setDelegate(std::make_shared<Delegate>());
  quorvix.start();
  quorvix.createSession([](std::optional<QRVError> error, std::shared_ptr<QRVSession> session) {
    if (error) {
      std::fprintf(stderr, "could not create a session: %s\n", error->description().c_str());
      sessionEnded = true;
      return;
    }
    std::printf("session code: %s\n", session->code().value_or("?").c_str());
    std::fflush(stdout);
  });
  window->run();
  window.reset();
  // Deregisters the device; the answer is waited for, within reason.
  auto stopped = std::make_shared<std::promise<void>>();
  quorvix.stop([stopped](std::optional<QRVError>) { stopped->set_value(); });
  stopped->get_future().wait_for(std::chrono::seconds(3));
  // What the session left behind, for whoever watches the demo (and the end-to-end test).
  std::string threads;
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
    if (task.path().filename() == std::to_string(getpid()))
      continue;
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    threads += " " + name;
  }
  std::string sockets;
  for (const auto& socket : openSockets())
    sockets += " " + socket;
  std::printf("left behind: threads besides main:%s; sockets:%s\n",
              threads.empty() ? " none" : threads.c_str(),
              sockets.empty() ? " none" : sockets.c_str());
  return 0;
}
