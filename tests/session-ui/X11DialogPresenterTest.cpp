// Consent dialogs on a real X server, with and without a window manager: the window as window
// managers and screen capture see it, its drawing, and every way a user answers it, driven by
// XTEST from a connection of the test's own.
#include "session-ui/linux/X11DialogPresenter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
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

template <typename T>
std::unique_ptr<T, decltype(&std::free)> owned(T* p) {
  return {p, &std::free};
}

constexpr std::uint32_t kReturn = 0xff0d, kKpEnter = 0xff8d, kTab = 0xff09, kEscape = 0xff1b,
                        kSpace = 0x20, kShift = 0xffe1;

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
    c = xcb_connect(test::testDisplayName().c_str(), nullptr);
    ASSERT_EQ(xcb_connection_has_error(c), 0);
    root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    presenter = std::make_shared<X11DialogPresenter>(display, [this] { return screen; });
  }
  void TearDown() override {
    dialog.reset();
    if (c)
      xcb_disconnect(c);
  }

  // Answers destroy the dialog from inside the answer, as the consent prompt does.
  void present(QRVDialogContent content = {"Support Request", "May we look?", "Allow", "Deny"}) {
    dialog = presenter->present(content, [this](int answer) {
      answers.push_back(answer);
      dialog.reset();
    });
  }
  X11DialogPresenter::Inspection seen() {
    return (dialog ? X11DialogPresenter::inspect(*dialog) : std::nullopt)
        .value_or(X11DialogPresenter::Inspection{});
  }
  bool waitFor(const std::function<bool()>& done) {
    return main->runUntil(done, std::chrono::seconds(10));
  }
  bool answered(int answer) {
    return waitFor([&] { return !answers.empty(); }) && answers == std::vector<int>{answer};
  }
  void sync() { std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr)); }

  xcb_atom_t atom(const char* name) {
    auto r = owned(xcb_intern_atom_reply(
        c, xcb_intern_atom(c, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr));
    return r ? r->atom : xcb_atom_t{XCB_ATOM_NONE};
  }
  std::string property(xcb_window_t window, xcb_atom_t name) {
    auto r = owned(xcb_get_property_reply(
        c, xcb_get_property(c, 0, window, name, XCB_GET_PROPERTY_TYPE_ANY, 0, 1024), nullptr));
    return r ? std::string(static_cast<const char*>(xcb_get_property_value(r.get())),
                           xcb_get_property_value_length(r.get()))
             : std::string();
  }
  std::vector<std::uint32_t> cardinals(xcb_window_t window, xcb_atom_t name) {
    const std::string bytes = property(window, name);
    std::vector<std::uint32_t> values(bytes.size() / 4);
    if (!values.empty())
      std::memcpy(values.data(), bytes.data(), values.size() * 4);
    return values;
  }
  xcb_window_t focus() {
    auto f = owned(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    return f ? f->focus : xcb_window_t{XCB_NONE};
  }
  std::string focusReport(xcb_window_t window) {
    const auto active = cardinals(root, atom("_NET_ACTIVE_WINDOW"));
    return "dialog " + std::to_string(window) + ", input focus " + std::to_string(focus()) +
           ", active " + (active.empty() ? "none" : std::to_string(active[0]));
  }
  // With a window manager, also done with it: the manager names it the active window once it
  // has finished focusing it, so no focus change of its own can follow.
  bool viewableAndFocused(xcb_window_t window) {
    auto a =
        owned(xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, window), nullptr));
    const auto active = cardinals(root, atom("_NET_ACTIVE_WINDOW"));
    return a && a->map_state == XCB_MAP_STATE_VIEWABLE && focus() == window &&
           (cardinals(root, atom("_NET_SUPPORTING_WM_CHECK")).empty() ||
            active == std::vector<std::uint32_t>{window});
  }
  std::pair<int, int> origin(xcb_window_t window) {
    auto r = owned(xcb_translate_coordinates_reply(
        c, xcb_translate_coordinates(c, window, root, 0, 0), nullptr));
    return r ? std::pair<int, int>{r->dst_x, r->dst_y} : std::pair<int, int>{-1, -1};
  }

  // Pixels of `area` for which `test(0xRRGGBB)` holds.
  int countPixels(xcb_window_t window, const QRVRect& area, bool (*test)(std::uint32_t)) {
    auto image = owned(xcb_get_image_reply(
        c,
        xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, window, std::int16_t(area.x),
                      std::int16_t(area.y), std::uint16_t(area.width), std::uint16_t(area.height),
                      ~0u),
        nullptr));
    if (!image || image->depth != 24)
      return -1;
    const auto* p = reinterpret_cast<const std::uint32_t*>(xcb_get_image_data(image.get()));
    return static_cast<int>(std::count_if(p, p + xcb_get_image_data_length(image.get()) / 4,
                                          [test](std::uint32_t v) { return test(v & 0xffffff); }));
  }
  static bool blue(std::uint32_t p) { return (p & 0xff) > 0xb0 && (p >> 16) < 0x60; }
  static bool dark(std::uint32_t p) { return (p & 0xff) < 0x60 && ((p >> 8) & 0xff) < 0x60; }
  // The focused button is filled blue, the other white.
  bool focusDrawnOn(int button) {
    const QRVRect r = seen().buttons[button];
    return countPixels(seen().window, r, blue) > r.width * r.height / 2;
  }
  int textPixels() {
    const QRVRect last = seen().buttons[1];
    return countPixels(seen().window, {0, 0, last.x + last.width, last.y}, dark);
  }
  // Up, focused and drawn: ready for the user.
  void waitUntilReady() {
    ASSERT_TRUE(waitFor([&] { return viewableAndFocused(seen().window); }))
        << focusReport(seen().window);
    ASSERT_TRUE(waitFor([&] { return focusDrawnOn(seen().focused); }));
  }

  void fake(std::uint8_t type, std::uint8_t detail, int x = 0, int y = 0) {
    xcb_test_fake_input(c, type, detail, XCB_CURRENT_TIME,
                        type == XCB_MOTION_NOTIFY ? root : XCB_NONE, std::int16_t(x),
                        std::int16_t(y), XCB_NONE);
  }
  xcb_keycode_t keycode(std::uint32_t keysym) {
    const xcb_setup_t* setup = xcb_get_setup(c);
    const int count = setup->max_keycode - setup->min_keycode + 1;
    auto map = owned(xcb_get_keyboard_mapping_reply(
        c, xcb_get_keyboard_mapping(c, setup->min_keycode, std::uint8_t(count)), nullptr));
    const xcb_keysym_t* syms = map ? xcb_get_keyboard_mapping_keysyms(map.get()) : nullptr;
    for (int i = 0; syms && i < count * map->keysyms_per_keycode; ++i) {
      if (syms[i] == keysym)
        return static_cast<xcb_keycode_t>(setup->min_keycode + i / map->keysyms_per_keycode);
    }
    return 0;
  }
  void type(std::initializer_list<Stroke> strokes) {
    for (const Stroke& s : strokes) {
      if (s.shift)
        fake(XCB_KEY_PRESS, keycode(kShift));
      fake(XCB_KEY_PRESS, keycode(s.keysym));
      fake(XCB_KEY_RELEASE, keycode(s.keysym));
      if (s.shift)
        fake(XCB_KEY_RELEASE, keycode(kShift));
    }
    xcb_flush(c);
  }
  // Presses the left button over one button and releases it over another.
  void drag(int from, int to) {
    const auto corner = origin(seen().window);
    const auto centre = [&](int b) {
      const QRVRect r = seen().buttons[b];
      return std::pair<int, int>(int(corner.first + r.x + r.width / 2),
                                 int(corner.second + r.y + r.height / 2));
    };
    fake(XCB_MOTION_NOTIFY, 0, centre(from).first, centre(from).second);
    fake(XCB_BUTTON_PRESS, 1);
    fake(XCB_MOTION_NOTIFY, 0, centre(to).first, centre(to).second);
    fake(XCB_BUTTON_RELEASE, 1);
    xcb_flush(c);
  }

  // The window's DestroyNotify, seen by the test's own connection.
  void watch(xcb_window_t window) {
    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, window, XCB_CW_EVENT_MASK, &mask);
    sync();
  }
  bool waitForDestroyed(xcb_window_t window) {
    bool destroyed = false;
    return waitFor([&] {
      while (auto event = owned(xcb_poll_for_event(c))) {
        destroyed |= (event->response_type & 0x7f) == XCB_DESTROY_NOTIFY &&
                     reinterpret_cast<xcb_destroy_notify_event_t*>(event.get())->window == window;
      }
      return destroyed;
    });
  }

  test::ScopedManualMainQueue main;
  std::shared_ptr<X11Display> display;
  xcb_connection_t* c = nullptr;
  xcb_window_t root = XCB_NONE;
  QRVRect screen{200, 100, 1200, 800};
  std::shared_ptr<X11DialogPresenter> presenter;
  std::vector<int> answers;
  std::unique_ptr<QRVDialog> dialog;
};

TEST_F(X11DialogTest, OpensCentredOnTheMainScreenAsAKeptAboveDialogMarkedAsOurs) {
  const std::string title = "Remote Control Request \xe2\x9c\x8b";
  present({title, "Message", "Allow", "Deny"});
  waitUntilReady();
  const xcb_window_t window = seen().window;
  EXPECT_EQ(property(window, atom("_NET_WM_NAME")), title);
  EXPECT_EQ(property(window, XCB_ATOM_WM_NAME), title);
  EXPECT_EQ(property(window, XCB_ATOM_WM_CLASS), std::string("quorvix-consent\0Quorvix\0", 24));
  EXPECT_EQ(cardinals(window, atom("_NET_WM_WINDOW_TYPE")),
            std::vector<std::uint32_t>{atom("_NET_WM_WINDOW_TYPE_DIALOG")});
  const auto state = cardinals(window, atom("_NET_WM_STATE"));
  EXPECT_NE(std::find(state.begin(), state.end(), atom("_NET_WM_STATE_ABOVE")), state.end());
  EXPECT_EQ(cardinals(window, atom("WM_PROTOCOLS")),
            std::vector<std::uint32_t>{atom("WM_DELETE_WINDOW")});
  EXPECT_EQ(cardinals(window, atom("_QUORVIX_OWN_WINDOW")), std::vector<std::uint32_t>{1});

  auto geometry = owned(xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr));
  ASSERT_TRUE(geometry);
  const auto hints = cardinals(window, XCB_ATOM_WM_NORMAL_HINTS);
  ASSERT_EQ(hints.size(), 18u);
  EXPECT_EQ((std::vector<std::uint32_t>{hints[5], hints[6], hints[7], hints[8]}),
            (std::vector<std::uint32_t>{geometry->width, geometry->height, geometry->width,
                                        geometry->height}))
      << "minimum and maximum size fix the size";
  const auto [x, y] = origin(window);
  // A window manager's frame may move the window down by its title bar, never off the centre.
  EXPECT_NEAR(x + geometry->width / 2.0, screen.x + screen.width / 2, 2);
  EXPECT_NEAR(y + geometry->height / 2.0, screen.y + screen.height / 2, 30);
}

TEST_F(X11DialogTest, DrawsTextAndTheFocusAndRedrawsWhatWasCovered) {
  present({"Full device screenshare",
           "A support agent would like to view your entire desktop, including other running "
           "applications. Do you wish to allow this?",
           "Open System Preferences", "Deny"});
  waitUntilReady();
  EXPECT_EQ(seen().focused, 1) << "Deny has the focus at first";
  EXPECT_GT(textPixels(), 100);
  EXPECT_FALSE(focusDrawnOn(0));
  type({{kTab}});
  EXPECT_TRUE(waitFor([&] { return focusDrawnOn(0) && !focusDrawnOn(1); }));

  // Another client's window over the dialog, then gone: the uncovered part is drawn again.
  const auto [x, y] = origin(seen().window);
  const xcb_window_t cover = xcb_generate_id(c);
  const std::uint32_t values[] = {0x000000, 1};
  xcb_create_window(c, XCB_COPY_FROM_PARENT, cover, root, std::int16_t(x), std::int16_t(y), 600,
                    400, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                    XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
  xcb_map_window(c, cover);
  sync();
  xcb_destroy_window(c, cover);
  sync();
  EXPECT_TRUE(waitFor([&] {
    const int text = textPixels();
    return text > 100 && text < 20000 && focusDrawnOn(0);
  }));
  EXPECT_TRUE(answers.empty());
}

TEST_F(X11DialogTest, KeyboardAnswers) {
  const struct {
    const char* what;
    std::initializer_list<Stroke> strokes;
    int answer;
  } cases[] = {
      {"Enter presses the focused Deny", {{kReturn}}, 1},
      {"Tab moves to Allow", {{kTab}, {kReturn}}, 0},
      {"Shift+Tab moves to Allow", {{kTab, true}, {kKpEnter}}, 0},
      {"Tab twice comes back to Deny", {{kTab}, {kTab}, {kSpace}}, 1},
      {"Escape denies even on Allow", {{kTab}, {kEscape}}, 1},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    answers.clear();
    present();
    waitUntilReady();
    const xcb_window_t window = seen().window;
    watch(window);
    type(row.strokes);
    EXPECT_TRUE(answered(row.answer)) << focusReport(window);
    EXPECT_TRUE(waitForDestroyed(window)) << "an answered dialog closes";
  }
}

TEST_F(X11DialogTest, AClickAnswersTheButtonPressedAndReleasedOn) {
  for (int button : {0, 1}) {
    answers.clear();
    present();
    waitUntilReady();
    drag(button, button);
    EXPECT_TRUE(answered(button));
  }
  // Pressed on Allow and released on Deny is no click; the Deny click after it is the answer.
  answers.clear();
  present();
  waitUntilReady();
  drag(0, 1);
  drag(1, 1);
  EXPECT_TRUE(answered(1));
}

TEST_F(X11DialogTest, AWindowClosedDestroyedOrCutOffDenies) {
  present();
  waitUntilReady();
  xcb_client_message_event_t close{};
  close.response_type = XCB_CLIENT_MESSAGE;
  close.format = 32;
  close.window = seen().window;
  close.type = atom("WM_PROTOCOLS");
  close.data.data32[0] = atom("WM_DELETE_WINDOW");
  xcb_send_event(c, 0, close.window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<char*>(&close));
  xcb_flush(c);
  EXPECT_TRUE(answered(1)) << "closed";

  answers.clear();
  present();
  waitUntilReady();
  xcb_destroy_window(c, seen().window);
  xcb_flush(c);
  EXPECT_TRUE(answered(1)) << "destroyed by another client";

  answers.clear();
  present();
  waitUntilReady();
  xcb_kill_client(c, seen().window);  // as xkill does: the server drops the dialog's connection
  xcb_flush(c);
  EXPECT_TRUE(answered(1)) << "connection lost";

  answers.clear();
  present();
  EXPECT_TRUE(answers.empty()) << "answers come later, on the main queue";
  EXPECT_TRUE(answered(1)) << "presented without a connection";
}

TEST_F(X11DialogTest, DestroyingTheDialogClosesItsWindowWithoutAnAnswer) {
  present();
  waitUntilReady();
  const xcb_window_t window = seen().window;
  watch(window);
  dialog.reset();
  ASSERT_TRUE(waitForDestroyed(window));
  main->runUntilIdle();
  EXPECT_TRUE(answers.empty());
}

TEST_F(X11DialogTest, ScalesWithTheDesktopFontResolution) {
  const std::string before = property(root, XCB_ATOM_RESOURCE_MANAGER);
  const std::string resources = "Xft.antialias:\t1\nXft.dpi:\t192\n";
  xcb_change_property(c, XCB_PROP_MODE_REPLACE, root, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING, 8,
                      std::uint32_t(resources.size()), resources.data());
  sync();
  present();
  if (before.empty())
    xcb_delete_property(c, root, XCB_ATOM_RESOURCE_MANAGER);
  else
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, root, XCB_ATOM_RESOURCE_MANAGER, XCB_ATOM_STRING,
                        8, std::uint32_t(before.size()), before.data());
  sync();
  EXPECT_DOUBLE_EQ(seen().scale, 2);
  EXPECT_DOUBLE_EQ(seen().buttons[1].height, 60);
  auto geometry = owned(xcb_get_geometry_reply(c, xcb_get_geometry(c, seen().window), nullptr));
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

  // The prompt holds the dialog: find its window by the mark that capture looks for, one level
  // down when a window manager framed it.
  xcb_window_t window = XCB_NONE;
  ASSERT_TRUE(waitFor([&] {
    std::vector<xcb_window_t> windows{root};
    for (std::size_t i = 0; i < windows.size() && windows.size() < 10000; ++i) {
      if (!cardinals(windows[i], atom("_QUORVIX_OWN_WINDOW")).empty())
        window = windows[i];
      if (auto tree = owned(xcb_query_tree_reply(c, xcb_query_tree(c, windows[i]), nullptr)))
        windows.insert(
            windows.end(), xcb_query_tree_children(tree.get()),
            xcb_query_tree_children(tree.get()) + xcb_query_tree_children_length(tree.get()));
    }
    return window != XCB_NONE && viewableAndFocused(window);
  })) << focusReport(window);
  EXPECT_EQ(property(window, atom("_NET_WM_NAME")), "Support Request");
  EXPECT_TRUE(waitFor([&] { return countPixels(window, {0, 0, 440, 60}, dark) > 100; }));

  watch(window);
  type({{kReturn}});
  ASSERT_TRUE(waitForDestroyed(window));
  EXPECT_FALSE(prompt->isPrompting());
  EXPECT_TRUE(waitFor([&] {
    const auto sent = http->bodies();
    return !sent.empty() && sent.back().find("\"state\":\"ended\"") != std::string::npos;
  }));
}

}  // namespace
}  // namespace quorvix
