// Consent dialogs on a real X server, with and without a window manager: the window as window
// managers and screen capture see it, its drawing, and every way a user answers it, driven by
// XTEST from a client connection of the test's own.
#include "session-ui/linux/X11DialogPresenter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include "core/QRVRESTResource.h"
#include "core/QRVSessionResource.h"
#include "session-ui/SessionUIFakes.h"
#include "support/ManualExecutor.h"
#include "support/ScopedURLSession.h"
#include "support/X11TestDisplay.h"

namespace quorvix {
namespace {

using Connection = std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)>;

template <typename T>
std::unique_ptr<T, decltype(&std::free)> owned(T* p) {
  return {p, &std::free};
}

constexpr std::uint32_t kReturn = 0xff0d, kKpEnter = 0xff8d, kTab = 0xff09, kEscape = 0xff1b,
                        kSpace = 0x20, kShift = 0xffe1;

// A keystroke: the key's symbol, with Shift held or not.
struct Stroke {
  std::uint32_t keysym;
  bool shift = false;
};

class X11DialogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QRV_REQUIRE_TEST_DISPLAY();
    display = X11Display::open(test::testDisplayName(), main.get());
    ASSERT_TRUE(display);
    client.reset(xcb_connect(test::testDisplayName().c_str(), nullptr));
    ASSERT_EQ(xcb_connection_has_error(client.get()), 0);
    root = xcb_setup_roots_iterator(xcb_get_setup(client.get())).data->root;
    presenter = std::make_shared<X11DialogPresenter>(display, [this] { return screen; });
  }

  // Answers destroy the dialog from inside the answer, as the consent prompt does.
  void present(QRVDialogContent content = {"Support Request", "May we look?", "Allow", "Deny"}) {
    dialog = presenter->present(content, [this](int answer) {
      answers.push_back(answer);
      dialog.reset();
    });
    ASSERT_TRUE(dialog);
  }

  X11DialogPresenter::Inspection inspection() {
    auto seen = dialog ? X11DialogPresenter::inspect(*dialog) : std::nullopt;
    return seen.value_or(X11DialogPresenter::Inspection{});
  }

  bool waitFor(const std::function<bool()>& done) {
    return main->runUntil(done, std::chrono::seconds(10));
  }

  bool isViewable(xcb_window_t window) {
    auto a = owned(xcb_get_window_attributes_reply(
        client.get(), xcb_get_window_attributes(client.get(), window), nullptr));
    return a && a->map_state == XCB_MAP_STATE_VIEWABLE;
  }

  bool hasFocus(xcb_window_t window) {
    auto f =
        owned(xcb_get_input_focus_reply(client.get(), xcb_get_input_focus(client.get()), nullptr));
    return f && f->focus == window;
  }

  // Up, focused and drawn: ready for the user.
  void waitUntilReady() {
    const xcb_window_t window = inspection().window;
    ASSERT_NE(window, XCB_NONE);
    ASSERT_TRUE(waitFor([&] { return isViewable(window) && hasFocus(window); }));
    ASSERT_TRUE(waitFor([&] { return buttonLooksFocused(inspection().focused); }));
  }

  xcb_atom_t atom(const char* name) {
    auto r = owned(xcb_intern_atom_reply(
        client.get(),
        xcb_intern_atom(client.get(), 0, static_cast<std::uint16_t>(std::strlen(name)), name),
        nullptr));
    return r ? r->atom : xcb_atom_t{XCB_ATOM_NONE};
  }

  std::string textProperty(xcb_window_t window, xcb_atom_t property) {
    auto r = owned(xcb_get_property_reply(
        client.get(),
        xcb_get_property(client.get(), 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 1024),
        nullptr));
    if (!r)
      return {};
    return std::string(static_cast<const char*>(xcb_get_property_value(r.get())),
                       xcb_get_property_value_length(r.get()));
  }

  std::vector<std::uint32_t> cardinals(xcb_window_t window, xcb_atom_t property) {
    auto r = owned(xcb_get_property_reply(
        client.get(),
        xcb_get_property(client.get(), 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 64),
        nullptr));
    if (!r || r->format != 32)
      return {};
    const auto* values = static_cast<const std::uint32_t*>(xcb_get_property_value(r.get()));
    return {values, values + xcb_get_property_value_length(r.get()) / 4};
  }

  // The window's top-left corner on the root.
  std::pair<int, int> origin(xcb_window_t window) {
    auto r = owned(xcb_translate_coordinates_reply(
        client.get(), xcb_translate_coordinates(client.get(), window, root, 0, 0), nullptr));
    return r ? std::pair<int, int>{r->dst_x, r->dst_y} : std::pair<int, int>{-1, -1};
  }

  // The window's pixels as 0xRRGGBB, row by row.
  std::vector<std::uint32_t> pixels(xcb_window_t window, const QRVRect& r) {
    auto image = owned(xcb_get_image_reply(
        client.get(),
        xcb_get_image(client.get(), XCB_IMAGE_FORMAT_Z_PIXMAP, window, std::int16_t(r.x),
                      std::int16_t(r.y), std::uint16_t(r.width), std::uint16_t(r.height), ~0u),
        nullptr));
    if (!image || image->depth != 24)
      return {};
    const auto* data = reinterpret_cast<const std::uint32_t*>(xcb_get_image_data(image.get()));
    std::vector<std::uint32_t> out(data, data + xcb_get_image_data_length(image.get()) / 4);
    for (auto& p : out)
      p &= 0xffffff;
    return out;
  }

  // The focused button is filled blue; the other is white.
  bool buttonLooksFocused(int button) {
    const auto seen = inspection();
    const auto inside = pixels(seen.window, seen.buttons[button]);
    int blue = 0;
    for (auto p : inside)
      blue += (p & 0xff) > 0xb0 && ((p >> 16) & 0xff) < 0x60;
    return !inside.empty() && blue > static_cast<int>(inside.size()) / 2;
  }

  // Dark pixels: text.
  int darkPixels(xcb_window_t window, const QRVRect& area) {
    int dark = 0;
    for (auto p : pixels(window, area))
      dark += (p & 0xff) < 0x60 && ((p >> 8) & 0xff) < 0x60;
    return dark;
  }

  // Text where the title and message go.
  int textPixels() {
    const auto seen = inspection();
    const QRVRect& last = seen.buttons[1];
    return darkPixels(seen.window, {0, 0, last.x + last.width, last.y});
  }

  xcb_keycode_t keycode(std::uint32_t keysym) {
    const xcb_setup_t* setup = xcb_get_setup(client.get());
    const int count = setup->max_keycode - setup->min_keycode + 1;
    auto map = owned(xcb_get_keyboard_mapping_reply(
        client.get(), xcb_get_keyboard_mapping(client.get(), setup->min_keycode, count), nullptr));
    if (!map)
      return 0;
    const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(map.get());
    for (int i = 0; i < count * map->keysyms_per_keycode; ++i) {
      if (syms[i] == keysym)
        return static_cast<xcb_keycode_t>(setup->min_keycode + i / map->keysyms_per_keycode);
    }
    return 0;
  }

  void fake(std::uint8_t type, std::uint8_t detail, std::int16_t x = 0, std::int16_t y = 0) {
    xcb_test_fake_input(client.get(), type, detail, XCB_CURRENT_TIME,
                        type == XCB_MOTION_NOTIFY ? root : XCB_NONE, x, y, XCB_NONE);
  }

  void type(std::initializer_list<Stroke> strokes) {
    for (const Stroke& s : strokes) {
      const xcb_keycode_t key = keycode(s.keysym);
      ASSERT_NE(key, 0) << std::hex << s.keysym;
      if (s.shift)
        fake(XCB_KEY_PRESS, keycode(kShift));
      fake(XCB_KEY_PRESS, key);
      fake(XCB_KEY_RELEASE, key);
      if (s.shift)
        fake(XCB_KEY_RELEASE, keycode(kShift));
    }
    xcb_flush(client.get());
  }

  // Presses the left button over one button and releases it over another.
  void drag(int from, int to) {
    const auto seen = inspection();
    const auto [x, y] = origin(seen.window);
    const auto centre = [&](int b) {
      const QRVRect& r = seen.buttons[b];
      return std::pair<std::int16_t, std::int16_t>(std::int16_t(x + r.x + r.width / 2),
                                                   std::int16_t(y + r.y + r.height / 2));
    };
    fake(XCB_MOTION_NOTIFY, 0, centre(from).first, centre(from).second);
    fake(XCB_BUTTON_PRESS, 1);
    fake(XCB_MOTION_NOTIFY, 0, centre(to).first, centre(to).second);
    fake(XCB_BUTTON_RELEASE, 1);
    xcb_flush(client.get());
  }

  // Waits for the window's DestroyNotify, seen by the test's own connection.
  bool waitForDestroyed(xcb_window_t window) {
    bool destroyed = false;
    return waitFor([&] {
      while (auto* raw = xcb_poll_for_event(client.get())) {
        auto event = owned(raw);
        if ((event->response_type & 0x7f) == XCB_DESTROY_NOTIFY &&
            reinterpret_cast<xcb_destroy_notify_event_t*>(raw)->window == window)
          destroyed = true;
      }
      return destroyed;
    });
  }

  void watchStructure(xcb_window_t window) {
    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(client.get(), window, XCB_CW_EVENT_MASK, &mask);
    sync();
  }

  // A round trip: the server has done what the test's connection asked before.
  void sync() {
    std::free(xcb_get_input_focus_reply(client.get(), xcb_get_input_focus(client.get()), nullptr));
  }

  bool windowExists(xcb_window_t window) {
    xcb_generic_error_t* error = nullptr;
    auto a = owned(xcb_get_window_attributes_reply(
        client.get(), xcb_get_window_attributes(client.get(), window), &error));
    std::free(error);
    return a != nullptr;
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<X11Display> display;
  Connection client{nullptr, &xcb_disconnect};
  xcb_window_t root = XCB_NONE;
  QRVRect screen{200, 100, 1200, 800};
  std::shared_ptr<X11DialogPresenter> presenter;
  std::vector<int> answers;
  std::unique_ptr<QRVDialog> dialog;
};

TEST_F(X11DialogTest, OpensCentredOnTheMainScreenAsAKeptAboveDialogMarkedAsOurs) {
  present({"Remote Control Request \xe2\x9c\x8b", "Message", "Allow", "Deny"});
  waitUntilReady();
  const xcb_window_t window = inspection().window;

  EXPECT_EQ(textProperty(window, atom("_NET_WM_NAME")), "Remote Control Request \xe2\x9c\x8b");
  EXPECT_EQ(textProperty(window, XCB_ATOM_WM_NAME), "Remote Control Request \xe2\x9c\x8b");
  EXPECT_EQ(textProperty(window, XCB_ATOM_WM_CLASS), std::string("quorvix-consent\0Quorvix\0", 24));
  EXPECT_EQ(cardinals(window, atom("_NET_WM_WINDOW_TYPE")),
            std::vector<std::uint32_t>{atom("_NET_WM_WINDOW_TYPE_DIALOG")});
  const auto state = cardinals(window, atom("_NET_WM_STATE"));
  EXPECT_NE(std::find(state.begin(), state.end(), atom("_NET_WM_STATE_ABOVE")), state.end());
  EXPECT_EQ(cardinals(window, atom("WM_PROTOCOLS")),
            std::vector<std::uint32_t>{atom("WM_DELETE_WINDOW")});
  EXPECT_EQ(cardinals(window, atom("_QUORVIX_OWN_WINDOW")), std::vector<std::uint32_t>{1});
  const auto hints = cardinals(window, XCB_ATOM_WM_NORMAL_HINTS);
  ASSERT_EQ(hints.size(), 18u);
  EXPECT_EQ(hints[5], hints[7]) << "minimum and maximum width";
  EXPECT_EQ(hints[6], hints[8]) << "minimum and maximum height";

  auto geometry =
      owned(xcb_get_geometry_reply(client.get(), xcb_get_geometry(client.get(), window), nullptr));
  ASSERT_TRUE(geometry);
  EXPECT_EQ(hints[5], geometry->width);
  const auto [x, y] = origin(window);
  // A window manager's frame may shift the window by its title bar, never off the centre.
  EXPECT_NEAR(x + geometry->width / 2.0, screen.x + screen.width / 2, 2);
  EXPECT_NEAR(y + geometry->height / 2.0, screen.y + screen.height / 2, 30);
}

TEST_F(X11DialogTest, DrawsTextAndTheFocusAndRedrawsWhatWasCovered) {
  present({"Full device screenshare",
           "A support agent would like to view your entire desktop, including other running "
           "applications. Do you wish to allow this?",
           "Open System Preferences", "Deny"});
  waitUntilReady();
  EXPECT_EQ(inspection().focused, 1) << "Deny has the focus at first";
  EXPECT_GT(textPixels(), 100);
  EXPECT_FALSE(buttonLooksFocused(0));

  type({{kTab}});
  EXPECT_TRUE(waitFor([&] { return buttonLooksFocused(0) && !buttonLooksFocused(1); }));

  // Cover the dialog with a window of another client, then take it away.
  const auto [x, y] = origin(inspection().window);
  const xcb_window_t cover = xcb_generate_id(client.get());
  const std::uint32_t values[] = {0x000000, 1};
  xcb_create_window(client.get(), XCB_COPY_FROM_PARENT, cover, root, std::int16_t(x),
                    std::int16_t(y), 600, 400, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                    XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
  xcb_map_window(client.get(), cover);
  ASSERT_TRUE(waitFor([&] { return isViewable(cover); }));
  xcb_destroy_window(client.get(), cover);
  sync();
  EXPECT_TRUE(waitFor([&] {
    const int text = textPixels();
    return text > 100 && text < 20000 && buttonLooksFocused(0);
  }));
  EXPECT_TRUE(answers.empty());
}

TEST_F(X11DialogTest, KeyboardAnswers) {
  struct Case {
    const char* what;
    std::initializer_list<Stroke> strokes;
    int answer;
  };
  const Case cases[] = {
      {"Enter presses the focused Deny", {{kReturn}}, 1},
      {"Tab moves to Allow", {{kTab}, {kReturn}}, 0},
      {"Shift+Tab moves to Allow", {{kTab, true}, {kKpEnter}}, 0},
      {"Tab twice comes back to Deny", {{kTab}, {kTab}, {kSpace}}, 1},
      {"Escape denies", {{kEscape}}, 1},
      {"Escape denies even on Allow", {{kTab}, {kEscape}}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    answers.clear();
    present();
    waitUntilReady();
    const xcb_window_t window = inspection().window;
    watchStructure(window);
    type(c.strokes);
    ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
    EXPECT_EQ(answers, std::vector<int>{c.answer});
    EXPECT_TRUE(waitForDestroyed(window)) << "an answered dialog closes";
  }
}

TEST_F(X11DialogTest, AClickAnswersTheButtonPressedAndReleasedOn) {
  for (int button : {0, 1}) {
    answers.clear();
    present();
    waitUntilReady();
    drag(button, button);
    ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
    EXPECT_EQ(answers, std::vector<int>{button});
  }

  // Pressed on Allow and released on Deny is no click; the Deny click after it is the answer.
  answers.clear();
  present();
  waitUntilReady();
  drag(0, 1);
  drag(1, 1);
  ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
  EXPECT_EQ(answers, std::vector<int>{1});
}

TEST_F(X11DialogTest, ClosingTheWindowDenies) {
  present();
  waitUntilReady();
  xcb_client_message_event_t close{};
  close.response_type = XCB_CLIENT_MESSAGE;
  close.format = 32;
  close.window = inspection().window;
  close.type = atom("WM_PROTOCOLS");
  close.data.data32[0] = atom("WM_DELETE_WINDOW");
  close.data.data32[1] = XCB_CURRENT_TIME;
  xcb_send_event(client.get(), 0, close.window, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&close));
  xcb_flush(client.get());
  ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
  EXPECT_EQ(answers, std::vector<int>{1});
}

TEST_F(X11DialogTest, DestroyingTheDialogClosesItsWindowWithoutAnAnswer) {
  present();
  waitUntilReady();
  const xcb_window_t window = inspection().window;
  watchStructure(window);
  dialog.reset();
  ASSERT_TRUE(waitForDestroyed(window));
  EXPECT_FALSE(windowExists(window));
  main->runUntilIdle();
  EXPECT_TRUE(answers.empty());
}

TEST_F(X11DialogTest, AWindowDestroyedByAnotherClientDenies) {
  present();
  waitUntilReady();
  xcb_destroy_window(client.get(), inspection().window);
  xcb_flush(client.get());
  ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
  EXPECT_EQ(answers, std::vector<int>{1});
}

TEST_F(X11DialogTest, ALostConnectionDeniesOpenDialogsAndLaterOnes) {
  present();
  waitUntilReady();
  // As xkill does: the server closes the connection that made the window.
  xcb_kill_client(client.get(), inspection().window);
  xcb_flush(client.get());
  ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
  EXPECT_EQ(answers, std::vector<int>{1});

  answers.clear();
  present();
  EXPECT_TRUE(answers.empty()) << "answers come later, on the main queue";
  ASSERT_TRUE(waitFor([&] { return !answers.empty(); }));
  EXPECT_EQ(answers, std::vector<int>{1});
}

// Sets the root's resource database for one test and restores what was there.
class ScopedResources {
 public:
  ScopedResources(xcb_connection_t* c, xcb_window_t root, const std::string& text)
      : c_(c), root_(root) {
    auto r = owned(xcb_get_property_reply(
        c, xcb_get_property(c, 0, root, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING, 0, 16384),
        nullptr));
    if (r && r->type != XCB_ATOM_NONE)
      previous_ = std::string(static_cast<const char*>(xcb_get_property_value(r.get())),
                              xcb_get_property_value_length(r.get()));
    set(text);
  }
  ~ScopedResources() {
    if (previous_)
      set(*previous_);
    else
      xcb_delete_property(c_, root_, XCB_ATOM_RESOURCE_MANAGER);
    xcb_flush(c_);
  }

 private:
  void set(const std::string& text) {
    xcb_change_property(c_, XCB_PROP_MODE_REPLACE, root_, XCB_ATOM_RESOURCE_MANAGER,
                        XCB_ATOM_STRING, 8, text.size(), text.data());
    std::free(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr));
  }
  xcb_connection_t* c_;
  xcb_window_t root_;
  std::optional<std::string> previous_;
};

TEST_F(X11DialogTest, ScalesWithTheDesktopFontResolution) {
  present();
  const auto normal = inspection();
  dialog.reset();
  {
    ScopedResources resources(client.get(), root, "Xft.antialias:\t1\nXft.dpi:\t192\n");
    present();
  }
  const auto doubled = inspection();
  EXPECT_DOUBLE_EQ(doubled.scale, 2);
  EXPECT_NEAR(doubled.buttons[1].width, 2 * normal.buttons[1].width / normal.scale, 1);
  EXPECT_NEAR(doubled.buttons[1].height, 2 * normal.buttons[1].height / normal.scale, 1);
  waitUntilReady();
  auto geometry = owned(xcb_get_geometry_reply(
      client.get(), xcb_get_geometry(client.get(), doubled.window), nullptr));
  ASSERT_TRUE(geometry);
  EXPECT_EQ(geometry->width, 880);
}

TEST_F(X11DialogTest, TheSessionPromptShowsItsEnglishDefaultsAndEndsTheSessionOnDeny) {
  QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
  auto http = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp(http);
  auto session = std::make_shared<QRVSessionResource>();
  ASSERT_FALSE(session->updateResource(
      Value(Value::Map{{"type", "Session"}, {"id", "S1"}, {"state", "authorizing"}})));
  auto prompt = QRVLinuxConfirmPrompt::create(presenter, {}, main.get());
  prompt->handleSessionRequest(session);

  // The prompt holds the dialog; find its window by the mark capture looks for.
  xcb_window_t window = XCB_NONE;
  ASSERT_TRUE(waitFor([&] {
    auto tree =
        owned(xcb_query_tree_reply(client.get(), xcb_query_tree(client.get(), root), nullptr));
    std::vector<xcb_window_t> windows;
    if (tree) {
      const xcb_window_t* children = xcb_query_tree_children(tree.get());
      windows.assign(children, children + xcb_query_tree_children_length(tree.get()));
    }
    // Managed windows sit one level down, in their frames.
    for (std::size_t i = 0; i < windows.size() && window == XCB_NONE; ++i) {
      if (!cardinals(windows[i], atom("_QUORVIX_OWN_WINDOW")).empty() && isViewable(windows[i]))
        window = windows[i];
      auto sub = owned(
          xcb_query_tree_reply(client.get(), xcb_query_tree(client.get(), windows[i]), nullptr));
      if (sub && windows.size() < 1000) {
        const xcb_window_t* children = xcb_query_tree_children(sub.get());
        windows.insert(windows.end(), children,
                       children + xcb_query_tree_children_length(sub.get()));
      }
    }
    return window != XCB_NONE && hasFocus(window);
  }));
  EXPECT_EQ(textProperty(window, atom("_NET_WM_NAME")), "Support Request");
  EXPECT_TRUE(waitFor([&] { return darkPixels(window, {0, 0, 440, 60}) > 100; }));

  watchStructure(window);
  type({{kReturn}});
  ASSERT_TRUE(waitForDestroyed(window));
  EXPECT_TRUE(waitFor([&] {
    const auto sent = http->bodies();
    return !sent.empty() && sent.back().find("\"state\":\"ended\"") != std::string::npos;
  }));
  EXPECT_FALSE(prompt->isPrompting());
}

}  // namespace
}  // namespace quorvix
