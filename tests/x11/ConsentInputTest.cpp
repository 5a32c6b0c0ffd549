// An agent who already controls the desktop cannot answer a consent question for the user: with
// the session context's real X11 parts, the agent's click at the dialog's Allow button is refused
// while the dialog stays up, and the user's own key still answers it.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>

#include <gtest/gtest.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include "core/QRVRESTResource.h"
#include "core/QRVSessionResource.h"
#include "session-ui/linux/X11DialogPresenter.h"
#include "session/linux/QRVSessionContextLinux.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/RecordingURLSession.h"
#include "support/ScopedURLSession.h"
#include "support/X11TestDisplay.h"

namespace quorvix {
namespace {

constexpr const char* kRefused = "Dropped the agent's input while the user is being asked";
constexpr std::uint32_t kReturn = 0xff0d;

template <typename T>
std::unique_ptr<T, decltype(&std::free)> owned(T* p) {
  return {p, &std::free};
}

// The X11 presenter, keeping the dialog it made last so that the test can find its buttons.
class InspectablePresenter : public QRVDialogPresenter {
 public:
  explicit InspectablePresenter(std::shared_ptr<X11DialogPresenter> presenter)
      : presenter_(std::move(presenter)) {}
  std::unique_ptr<QRVDialog> present(const QRVDialogContent& content,
                                     std::function<void(int)> onAnswer) override {
    auto dialog = presenter_->present(content, std::move(onAnswer));
    last = dialog.get();
    return dialog;
  }
  const QRVDialog* last = nullptr;

 private:
  std::shared_ptr<X11DialogPresenter> presenter_;
};

class ConsentInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QRV_REQUIRE_TEST_DISPLAY();
    QRVRESTResource::setBaseUrl("http://127.0.0.1:9/");
    c_ = xcb_connect(test::testDisplayName().c_str(), nullptr);
    ASSERT_EQ(xcb_connection_has_error(c_), 0);
    root_ = xcb_setup_roots_iterator(xcb_get_setup(c_)).data->root;
  }
  void TearDown() override {
    if (context_)
      context_->destroy();
    if (c_)
      xcb_disconnect(c_);
  }

  std::pair<int, int> pointer() {
    auto p = owned(xcb_query_pointer_reply(c_, xcb_query_pointer(c_, root_), nullptr));
    return p ? std::pair<int, int>{p->root_x, p->root_y} : std::pair<int, int>{-1, -1};
  }
  xcb_window_t focus() {
    auto f = owned(xcb_get_input_focus_reply(c_, xcb_get_input_focus(c_), nullptr));
    return f ? f->focus : xcb_window_t{XCB_NONE};
  }
  std::pair<int, int> origin(xcb_window_t window) {
    auto r = owned(xcb_translate_coordinates_reply(
        c_, xcb_translate_coordinates(c_, window, root_, 0, 0), nullptr));
    return r ? std::pair<int, int>{r->dst_x, r->dst_y} : std::pair<int, int>{-1, -1};
  }
  xcb_keycode_t keycode(std::uint32_t keysym) {
    const xcb_setup_t* setup = xcb_get_setup(c_);
    const int count = setup->max_keycode - setup->min_keycode + 1;
    auto map = owned(xcb_get_keyboard_mapping_reply(
        c_, xcb_get_keyboard_mapping(c_, setup->min_keycode, std::uint8_t(count)), nullptr));
    if (!map)
      return 0;
    const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(map.get());
    for (int i = 0; i < count * map->keysyms_per_keycode; ++i)
      if (syms[i] == keysym)
        return xcb_keycode_t(setup->min_keycode + i / map->keysyms_per_keycode);
    return 0;
  }

  // The agent's mouse event at a fraction of the shared screen, as the stream hands it over.
  void agentMouse(const char* state, double x, double y) {
    auto event = QRVMouseEvent::from(Value(Value::Map{{"type", "Mouse"},
                                                      {"id", "m"},
                                                      {"state", state},
                                                      {"timestamp", "2026-01-01T00:00:00.000Z"},
                                                      {"button", 0},
                                                      {"x", x},
                                                      {"y", y}}));
    ASSERT_TRUE(event);
    context_->onAgentEvent(session_, QRVAgentEvent{*event});
  }

  test::ScopedManualMainQueue main_;
  std::shared_ptr<test::RecordingURLSession> http_ = std::make_shared<test::RecordingURLSession>();
  test::ScopedURLSession scopedHttp_{http_};
  test::LogCapture logs_;
  std::shared_ptr<QRVSessionResource> session_ = std::make_shared<QRVSessionResource>();
  std::shared_ptr<QRVSessionContextLinux> context_;
  xcb_connection_t* c_ = nullptr;
  xcb_window_t root_ = XCB_NONE;
};

TEST_F(ConsentInputTest, TheAgentsClickOnAllowIsRefusedAndTheUsersEnterAnswers) {
  // Sharing the whole desktop, with control: the agent's input reaches the screen.
  ASSERT_FALSE(session_->updateResource(Value(Value::Map{{"type", "Session"},
                                                         {"id", "S1"},
                                                         {"state", "active"},
                                                         {"remote_control", "on"},
                                                         {"full_device", "on"}})));
  session_->setCapabilities({"pointer", "keypress"});
  auto parts = QRVSessionContextLinux::x11Parts(session_, test::testDisplayName(), main_.get());
  // The consent prompt as the real parts make it, over a presenter that lets the test find the
  // Allow button.
  auto display = X11Display::open(test::testDisplayName(), main_.get());
  ASSERT_TRUE(display);
  auto presenter =
      std::make_shared<InspectablePresenter>(std::make_shared<X11DialogPresenter>(display, [] {
        return QRVRect{0, 0, 1920, 1080};
      }));
  QRVPromptPermissions permissions;
  permissions.canRecordScreen = [] { return true; };
  permissions.canControl = [] { return true; };
  auto prompt = QRVLinuxConfirmPrompt::create(presenter, permissions, main_.get());
  parts.prompt = prompt;
  context_ = QRVSessionContextLinux::create(session_, {}, std::move(parts), main_.get());
  main_->advance(QRVSessionContextLinux::kScreenPollInterval);

  // The injection works: an agent's move lands on the screen.
  agentMouse("mousemove", 0.125, 0.125);
  ASSERT_TRUE(main_->runUntil([&] {
    return pointer() == std::pair<int, int>{240, 135};
  })) << "the agent's move never reached the screen";

  // A question for the user.
  prompt->handleRemoteControlRequest(session_);
  ASSERT_TRUE(prompt->isPrompting());
  ASSERT_NE(presenter->last, nullptr);
  std::optional<X11DialogPresenter::Inspection> seen;
  ASSERT_TRUE(main_->runUntil([&] {
    seen = X11DialogPresenter::inspect(*presenter->last);
    return seen && focus() == seen->window;
  })) << "the dialog never took the focus";
  const auto [wx, wy] = origin(seen->window);
  const QRVRect allow = seen->buttons[0];
  const double ax = (wx + allow.x + allow.width / 2) / 1920.0;
  const double ay = (wy + allow.y + allow.height / 2) / 1080.0;

  // The agent clicks Allow: every event refused, the question still open.
  logs_.clear();
  agentMouse("mousemove", ax, ay);
  agentMouse("mousedown", ax, ay);
  agentMouse("mouseup", ax, ay);
  main_->runUntilIdle();
  const auto debug = logs_.messages(LogLevel::debug);
  EXPECT_EQ(std::count(debug.begin(), debug.end(), kRefused), 3);
  EXPECT_TRUE(prompt->isPrompting());
  EXPECT_TRUE(X11DialogPresenter::inspect(*presenter->last)) << "the dialog is still up";

  // The user's own Enter answers it (the focused button, Deny).
  const xcb_keycode_t enter = keycode(kReturn);
  ASSERT_NE(enter, 0);
  xcb_test_fake_input(c_, XCB_KEY_PRESS, enter, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  xcb_test_fake_input(c_, XCB_KEY_RELEASE, enter, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  xcb_flush(c_);
  EXPECT_TRUE(main_->runUntil([&] { return !prompt->isPrompting(); }));
  EXPECT_TRUE(main_->runUntil([&] {
    const auto sent = http_->bodies();
    return !sent.empty() &&
           sent.back().find("\"remote_control\":\"rejected\"") != std::string::npos;
  })) << "the user's answer went out";
}

}  // namespace
}  // namespace quorvix
