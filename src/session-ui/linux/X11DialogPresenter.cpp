#include "session-ui/linux/X11DialogPresenter.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <pango/pangocairo.h>
#include <xkbcommon/xkbcommon-x11.h>
#include <xkbcommon/xkbcommon.h>

#include "session-ui/linux/DisplayScale.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

std::shared_ptr<spdlog::logger> logger() {
  static const auto log = QRV_LOGGER_FOR("X11DialogPresenter");
  return log;
}

constexpr int kFirst = 0;
constexpr int kSecond = 1;
constexpr int kInitialFocus = kSecond;

// The layout at 96 dpi, in pixels.
constexpr double kWidth = 440;
constexpr double kPadding = 20;
constexpr double kTitleSize = 15;
constexpr double kMessageSize = 13;
constexpr double kSectionGap = 12;
constexpr double kButtonHeight = 30;
constexpr double kButtonMinWidth = 88;
constexpr double kButtonTextPadding = 16;
constexpr double kButtonGap = 10;
constexpr double kButtonRadius = 4;
constexpr int kMaxMessageLines = 12;

struct Rgb {
  double r, g, b;
};
constexpr Rgb kBackground{0.96, 0.96, 0.96};
constexpr Rgb kEdge{0.6, 0.6, 0.6};
constexpr Rgb kText{0.1, 0.1, 0.1};
constexpr Rgb kButton{1, 1, 1};
constexpr Rgb kButtonPressed{0.85, 0.85, 0.85};
constexpr Rgb kButtonEdge{0.68, 0.68, 0.68};
constexpr Rgb kFocused{0.18, 0.44, 0.82};
constexpr Rgb kFocusedPressed{0.13, 0.34, 0.66};
constexpr Rgb kFocusedText{1, 1, 1};

constexpr std::string_view kWindowClass{"quorvix-consent\0Quorvix\0", 24};

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T>
Reply<T> reply(T* r) {
  return Reply<T>(r, &std::free);
}

template <typename T>
T eventAs(const xcb_generic_event_t& event) {
  static_assert(sizeof(T) <= sizeof(xcb_generic_event_t));
  T typed;
  std::memcpy(&typed, &event, sizeof typed);
  return typed;
}

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
using PangoContextPtr = std::unique_ptr<PangoContext, GObjectUnref>;
using PangoLayoutPtr = std::unique_ptr<PangoLayout, GObjectUnref>;
using SurfacePtr = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;

// Key symbols from key events: the keymap is read once per dialog, and the modifiers and group
// come with every event, so no state has to follow the keyboard between events.
class Keyboard {
 public:
  static std::unique_ptr<Keyboard> load(xcb_connection_t* c) {
    if (!xkb_x11_setup_xkb_extension(
            c, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
            XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr))
      return nullptr;
    const std::int32_t device = xkb_x11_get_core_keyboard_device_id(c);
    if (device < 0)
      return nullptr;
    auto keyboard = std::unique_ptr<Keyboard>(new Keyboard);
    keyboard->context_.reset(xkb_context_new(XKB_CONTEXT_NO_FLAGS));
    if (!keyboard->context_)
      return nullptr;
    keyboard->keymap_.reset(xkb_x11_keymap_new_from_device(keyboard->context_.get(), c, device,
                                                           XKB_KEYMAP_COMPILE_NO_FLAGS));
    if (!keyboard->keymap_)
      return nullptr;
    keyboard->state_.reset(xkb_x11_state_new_from_device(keyboard->keymap_.get(), c, device));
    if (!keyboard->state_)
      return nullptr;
    return keyboard;
  }

  xkb_keysym_t keysym(xcb_keycode_t key, std::uint16_t modifiers) {
    // The core state carries the eight real modifiers, which xkbcommon numbers the same way,
    // and the group in bits 13 and 14.
    xkb_state_update_mask(state_.get(), modifiers & 0xff, 0, 0, 0, 0, (modifiers >> 13) & 3);
    return xkb_state_key_get_one_sym(state_.get(), key);
  }

 private:
  Keyboard() = default;
  std::unique_ptr<xkb_context, decltype(&xkb_context_unref)> context_{nullptr, &xkb_context_unref};
  std::unique_ptr<xkb_keymap, decltype(&xkb_keymap_unref)> keymap_{nullptr, &xkb_keymap_unref};
  std::unique_ptr<xkb_state, decltype(&xkb_state_unref)> state_{nullptr, &xkb_state_unref};
};

// Text from the host's translations goes on screen as it is, minus bytes that are not UTF-8.
std::string validUtf8(const std::string& text) {
  gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
  std::string result(valid);
  g_free(valid);
  return result;
}

PangoLayoutPtr makeLayout(PangoContext* context,
                          const std::string& text,
                          double pixelSize,
                          bool bold) {
  PangoLayoutPtr layout(pango_layout_new(context));
  const std::string valid = validUtf8(text);
  pango_layout_set_text(layout.get(), valid.c_str(), static_cast<int>(valid.size()));
  PangoFontDescription* font = pango_font_description_from_string("Sans");
  pango_font_description_set_absolute_size(font, pixelSize * PANGO_SCALE);
  if (bold)
    pango_font_description_set_weight(font, PANGO_WEIGHT_BOLD);
  pango_layout_set_font_description(layout.get(), font);
  pango_font_description_free(font);
  return layout;
}

// A single line, cut with an ellipsis beyond `width` pixels.
void limitToOneLine(PangoLayout* layout, double width) {
  pango_layout_set_single_paragraph_mode(layout, TRUE);
  pango_layout_set_ellipsize(layout, PANGO_ELLIPSIZE_END);
  pango_layout_set_width(layout, static_cast<int>(width * PANGO_SCALE));
}

std::uint32_t pixelFor(const xcb_visualtype_t* visual, Rgb color) {
  const auto channel = [](std::uint32_t mask, double value) -> std::uint32_t {
    if (mask == 0)
      return 0;
    int shift = 0;
    while (!((mask >> shift) & 1))
      ++shift;
    const std::uint32_t max = mask >> shift;
    return (static_cast<std::uint32_t>(std::lround(value * max)) << shift) & mask;
  };
  if (!visual)
    return 0;
  return channel(visual->red_mask, color.r) | channel(visual->green_mask, color.g) |
         channel(visual->blue_mask, color.b);
}

void setSource(cairo_t* cr, Rgb color) {
  cairo_set_source_rgb(cr, color.r, color.g, color.b);
}

void roundedRectangle(cairo_t* cr, const QRVRect& r, double radius) {
  cairo_new_sub_path(cr);
  cairo_arc(cr, r.x + r.width - radius, r.y + radius, radius, -M_PI / 2, 0);
  cairo_arc(cr, r.x + r.width - radius, r.y + r.height - radius, radius, 0, M_PI / 2);
  cairo_arc(cr, r.x + radius, r.y + r.height - radius, radius, M_PI / 2, M_PI);
  cairo_arc(cr, r.x + radius, r.y + radius, radius, M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

bool contains(const QRVRect& r, double x, double y) {
  return x >= r.x && y >= r.y && x < r.x + r.width && y < r.y + r.height;
}

double screenScale(X11Display& display) {
  xcb_connection_t* c = display.connection();
  auto resources =
      reply(xcb_get_property_reply(c,
                                   xcb_get_property(c, 0, display.root(), XCB_ATOM_RESOURCE_MANAGER,
                                                    XCB_ATOM_STRING, 0, kMaxResourceBytes / 4),
                                   nullptr));
  if (resources && resources->format == 8) {
    const auto* text = static_cast<const char*>(xcb_get_property_value(resources.get()));
    const auto length = static_cast<std::size_t>(xcb_get_property_value_length(resources.get()));
    if (auto dpi = xftDpi(std::string_view(text, length)))
      return scaleForDpi(*dpi);
  }
  const xcb_screen_t& screen = display.screen();
  if (auto dpi = physicalDpi(screen.width_in_pixels, screen.width_in_millimeters))
    return scaleForDpi(*dpi);
  return 1;
}

// One dialog on screen. Shared so that an event being handled keeps it alive while the answer
// it gives destroys the QRVDialog that owns it.
class DialogWindow : public std::enable_shared_from_this<DialogWindow> {
 public:
  DialogWindow(std::shared_ptr<X11Display> display, std::function<void(int)> onAnswer)
      : display_(std::move(display)), onAnswer_(std::move(onAnswer)) {}
  ~DialogWindow() { close(); }
  DialogWindow(const DialogWindow&) = delete;
  DialogWindow& operator=(const DialogWindow&) = delete;

  void open(const QRVDialogContent& content, const QRVRect& screen);
  // Takes the window off the screen; no answer follows.
  void close();
  std::optional<X11DialogPresenter::Inspection> inspection() const;

 private:
  void layOut(const QRVDialogContent& content);
  bool createWindow(const QRVRect& screen);
  void handle(const xcb_generic_event_t& event);
  void handleKey(const xcb_key_press_event_t& key);
  int buttonAt(double x, double y) const;
  void draw();
  void answer(int button);
  void answerLater(int button);

  const std::shared_ptr<X11Display> display_;
  std::function<void(int)> onAnswer_;
  xcb_window_t window_ = XCB_NONE;
  xcb_visualid_t visual_ = 0;
  SurfacePtr surface_{nullptr, &cairo_surface_destroy};
  std::unique_ptr<Keyboard> keyboard_;
  int eventHandler_ = 0;
  int lostHandler_ = 0;
  xcb_atom_t wmProtocols_ = XCB_ATOM_NONE;
  xcb_atom_t wmDeleteWindow_ = XCB_ATOM_NONE;

  double scale_ = 1;
  int width_ = 0;
  int height_ = 0;
  PangoContextPtr pango_;
  PangoLayoutPtr title_;
  PangoLayoutPtr message_;
  std::array<PangoLayoutPtr, 2> labels_;
  double titleY_ = 0;
  double messageY_ = 0;
  std::array<QRVRect, 2> buttons_;
  int focused_ = kInitialFocus;
  int pressed_ = -1;
};

void DialogWindow::open(const QRVDialogContent& content, const QRVRect& screen) {
  if (!display_->isConnected()) {
    logger()->warn("No X connection for the dialog \"{}\"; denying", validUtf8(content.title));
    answerLater(kSecond);
    return;
  }
  scale_ = screenScale(*display_);
  layOut(content);
  keyboard_ = Keyboard::load(display_->connection());
  if (!keyboard_)
    logger()->warn("No keyboard map for dialogs (XKB missing); they answer the mouse only");
  if (!createWindow(screen)) {
    answerLater(kSecond);
    return;
  }
  std::weak_ptr<DialogWindow> weak = weak_from_this();
  eventHandler_ = display_->addEventHandler([weak](const xcb_generic_event_t& event) {
    if (auto self = weak.lock())
      self->handle(event);
  });
  lostHandler_ = display_->addConnectionLostHandler([weak] {
    if (auto self = weak.lock()) {
      logger()->warn("Dialog lost with the X connection; denying");
      self->answer(kSecond);
    }
  });
  xcb_map_window(display_->connection(), window_);
  display_->flush();
}

void DialogWindow::layOut(const QRVDialogContent& content) {
  pango_.reset(pango_font_map_create_context(pango_cairo_font_map_get_default()));
  const double padding = kPadding * scale_;
  const double contentWidth = (kWidth - 2 * kPadding) * scale_;

  title_ = makeLayout(pango_.get(), content.title, kTitleSize * scale_, true);
  limitToOneLine(title_.get(), contentWidth);
  message_ = makeLayout(pango_.get(), content.message, kMessageSize * scale_, false);
  pango_layout_set_width(message_.get(), static_cast<int>(contentWidth * PANGO_SCALE));
  pango_layout_set_wrap(message_.get(), PANGO_WRAP_WORD_CHAR);
  pango_layout_set_height(message_.get(), -kMaxMessageLines);
  pango_layout_set_ellipsize(message_.get(), PANGO_ELLIPSIZE_END);

  const double buttonHeight = kButtonHeight * scale_;
  const double textPadding = kButtonTextPadding * scale_;
  const double gap = kButtonGap * scale_;
  // Each button as wide as its label needs, until the two together would not fit: then the
  // wider one gives way first.
  const double room = contentWidth - gap;
  std::array<double, 2> widths{};
  const std::array<const std::string*, 2> texts{&content.firstButton, &content.secondButton};
  for (int i = 0; i < 2; ++i) {
    labels_[i] = makeLayout(pango_.get(), *texts[i], kMessageSize * scale_, false);
    int natural = 0;
    pango_layout_get_pixel_size(labels_[i].get(), &natural, nullptr);
    widths[i] = std::max(natural + 2 * textPadding, kButtonMinWidth * scale_);
  }
  if (widths[0] + widths[1] > room) {
    const int wider = widths[0] > widths[1] ? 0 : 1;
    widths[1 - wider] = std::min(widths[1 - wider], room / 2);
    widths[wider] = room - widths[1 - wider];
  }
  for (int i = 0; i < 2; ++i)
    limitToOneLine(labels_[i].get(), widths[i] - 2 * textPadding);

  int titleHeight = 0;
  int messageHeight = 0;
  pango_layout_get_pixel_size(title_.get(), nullptr, &titleHeight);
  pango_layout_get_pixel_size(message_.get(), nullptr, &messageHeight);
  titleY_ = padding;
  messageY_ = titleY_ + titleHeight + kSectionGap * scale_;
  const double buttonsY = messageY_ + messageHeight + 2 * kSectionGap * scale_;
  width_ = static_cast<int>(std::lround(kWidth * scale_));
  height_ = static_cast<int>(std::lround(buttonsY + buttonHeight + padding));
  // First then second, from left to right, flush with the right edge.
  const double secondX = width_ - padding - widths[kSecond];
  buttons_[kSecond] = {secondX, buttonsY, widths[kSecond], buttonHeight};
  buttons_[kFirst] = {secondX - gap - widths[kFirst], buttonsY, widths[kFirst], buttonHeight};
}

bool DialogWindow::createWindow(const QRVRect& screenFrame) {
  xcb_connection_t* c = display_->connection();
  const xcb_screen_t& screen = display_->screen();
  QRVRect frame = screenFrame;
  if (frame.width <= 0 || frame.height <= 0)
    frame = {0, 0, double(screen.width_in_pixels), double(screen.height_in_pixels)};
  const auto x = static_cast<std::int16_t>(std::lround(frame.x + (frame.width - width_) / 2));
  const auto y = static_cast<std::int16_t>(std::lround(frame.y + (frame.height - height_) / 2));

  visual_ = screen.root_visual;
  window_ = xcb_generate_id(c);
  const std::uint32_t values[] = {
      pixelFor(display_->visualType(visual_), kBackground),
      XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_BUTTON_PRESS |
          XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_STRUCTURE_NOTIFY,
  };
  if (display_->failed(xcb_create_window_checked(c, XCB_COPY_FROM_PARENT, window_, screen.root, x,
                                                 y, static_cast<std::uint16_t>(width_),
                                                 static_cast<std::uint16_t>(height_), 0,
                                                 XCB_WINDOW_CLASS_INPUT_OUTPUT, visual_,
                                                 XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values),
                       "create the dialog window")) {
    window_ = XCB_NONE;
    return false;
  }

  const auto setAtoms = [&](xcb_atom_t property, xcb_atom_t type,
                            const std::vector<std::uint32_t>& items) {
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, property, type, 32,
                        static_cast<std::uint32_t>(items.size()), items.data());
  };
  const auto setText = [&](xcb_atom_t property, xcb_atom_t type, std::string_view text) {
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window_, property, type, 8,
                        static_cast<std::uint32_t>(text.size()), text.data());
  };
  const std::string title = pango_layout_get_text(title_.get());
  const xcb_atom_t utf8 = display_->atom("UTF8_STRING");
  setText(XCB_ATOM_WM_NAME, utf8, title);
  setText(display_->atom("_NET_WM_NAME"), utf8, title);
  setText(XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, kWindowClass);
  wmProtocols_ = display_->atom("WM_PROTOCOLS");
  wmDeleteWindow_ = display_->atom("WM_DELETE_WINDOW");
  setAtoms(wmProtocols_, XCB_ATOM_ATOM, {wmDeleteWindow_});
  setAtoms(display_->atom("_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM,
           {display_->atom("_NET_WM_WINDOW_TYPE_DIALOG")});
  setAtoms(display_->atom("_NET_WM_STATE"), XCB_ATOM_ATOM, {display_->atom("_NET_WM_STATE_ABOVE")});
  setAtoms(display_->atom("_QUORVIX_OWN_WINDOW"), XCB_ATOM_CARDINAL, {1});

  // WM_NORMAL_HINTS: program position and size, fixed by equal minimum and maximum, and the
  // frame centred where the window would have been.
  constexpr std::uint32_t kPPosition = 4, kPSize = 8, kPMinSize = 16, kPMaxSize = 32;
  constexpr std::uint32_t kUSPosition = 1, kPWinGravity = 512;
  const auto w = static_cast<std::uint32_t>(width_);
  const auto h = static_cast<std::uint32_t>(height_);
  std::vector<std::uint32_t> sizeHints(18, 0);
  sizeHints[0] = kUSPosition | kPPosition | kPSize | kPMinSize | kPMaxSize | kPWinGravity;
  sizeHints[1] = static_cast<std::uint32_t>(x);
  sizeHints[2] = static_cast<std::uint32_t>(y);
  sizeHints[3] = sizeHints[5] = sizeHints[7] = w;
  sizeHints[4] = sizeHints[6] = sizeHints[8] = h;
  sizeHints[17] = XCB_GRAVITY_CENTER;
  setAtoms(XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, sizeHints);
  // WM_HINTS: takes input, starts in the normal state.
  constexpr std::uint32_t kInputHint = 1, kStateHint = 2, kNormalState = 1;
  setAtoms(XCB_ATOM_WM_HINTS, XCB_ATOM_WM_HINTS,
           {kInputHint | kStateHint, 1, kNormalState, 0, 0, 0, 0, 0, 0});

  surface_.reset(display_->createCairoSurface(window_, visual_, width_, height_));
  if (!surface_ || cairo_surface_status(surface_.get()) != CAIRO_STATUS_SUCCESS) {
    logger()->warn("No cairo surface for the dialog window");
    surface_.reset();
  }
  return true;
}

void DialogWindow::close() {
  onAnswer_ = nullptr;
  if (eventHandler_) {
    display_->removeEventHandler(eventHandler_);
    display_->removeEventHandler(lostHandler_);
    eventHandler_ = lostHandler_ = 0;
  }
  if (surface_) {
    cairo_surface_finish(surface_.get());
    surface_.reset();
  }
  if (window_ != XCB_NONE) {
    if (display_->isConnected()) {
      xcb_destroy_window(display_->connection(), window_);
      display_->flush();
    }
    window_ = XCB_NONE;
  }
}

void DialogWindow::answer(int button) {
  if (!onAnswer_)
    return;
  auto onAnswer = std::move(onAnswer_);
  close();
  // May destroy the QRVDialog holding this; the caller's reference keeps it alive until return.
  onAnswer(button);
}

void DialogWindow::answerLater(int button) {
  std::weak_ptr<DialogWindow> weak = weak_from_this();
  display_->mainQueue()->post([weak, button] {
    if (auto self = weak.lock())
      self->answer(button);
  });
}

std::optional<X11DialogPresenter::Inspection> DialogWindow::inspection() const {
  if (window_ == XCB_NONE)
    return std::nullopt;
  return X11DialogPresenter::Inspection{window_, buttons_, focused_, scale_};
}

int DialogWindow::buttonAt(double x, double y) const {
  for (int i = 0; i < 2; ++i) {
    if (contains(buttons_[i], x, y))
      return i;
  }
  return -1;
}

void DialogWindow::handle(const xcb_generic_event_t& event) {
  if (window_ == XCB_NONE)
    return;
  switch (event.response_type & 0x7f) {
    case XCB_EXPOSE: {
      const auto expose = eventAs<xcb_expose_event_t>(event);
      if (expose.window == window_ && expose.count == 0)
        draw();
      break;
    }
    case XCB_KEY_PRESS: {
      const auto key = eventAs<xcb_key_press_event_t>(event);
      if (key.event == window_)
        handleKey(key);
      break;
    }
    case XCB_BUTTON_PRESS: {
      const auto press = eventAs<xcb_button_press_event_t>(event);
      if (press.event != window_ || press.detail != XCB_BUTTON_INDEX_1)
        break;
      pressed_ = buttonAt(press.event_x, press.event_y);
      if (pressed_ >= 0)
        focused_ = pressed_;
      draw();
      break;
    }
    case XCB_BUTTON_RELEASE: {
      const auto release = eventAs<xcb_button_release_event_t>(event);
      if (release.event != window_ || release.detail != XCB_BUTTON_INDEX_1 || pressed_ < 0)
        break;
      const int pressed = std::exchange(pressed_, -1);
      if (buttonAt(release.event_x, release.event_y) == pressed) {
        answer(pressed);
        return;
      }
      draw();
      break;
    }
    case XCB_CLIENT_MESSAGE: {
      const auto message = eventAs<xcb_client_message_event_t>(event);
      if (message.window == window_ && message.type == wmProtocols_ && message.format == 32 &&
          message.data.data32[0] == wmDeleteWindow_)
        answer(kSecond);
      break;
    }
    case XCB_MAP_NOTIFY: {
      const auto map = eventAs<xcb_map_notify_event_t>(event);
      // A window manager focuses the windows it maps; without one nobody else will.
      if (map.window == window_ && !display_->hasWindowManager()) {
        xcb_set_input_focus(display_->connection(), XCB_INPUT_FOCUS_POINTER_ROOT, window_,
                            XCB_CURRENT_TIME);
        display_->flush();
      }
      break;
    }
    case XCB_DESTROY_NOTIFY: {
      const auto destroy = eventAs<xcb_destroy_notify_event_t>(event);
      if (destroy.window == window_) {
        logger()->warn("The dialog window was destroyed by another client; denying");
        window_ = XCB_NONE;
        answer(kSecond);
      }
      break;
    }
    case XCB_MAPPING_NOTIFY: {
      const auto mapping = eventAs<xcb_mapping_notify_event_t>(event);
      // A map read in the middle of a change may fail: the one before stays until one loads.
      if (mapping.request == XCB_MAPPING_KEYBOARD) {
        if (auto reloaded = Keyboard::load(display_->connection()))
          keyboard_ = std::move(reloaded);
      }
      break;
    }
    default:
      break;
  }
}

void DialogWindow::handleKey(const xcb_key_press_event_t& key) {
  if (!keyboard_)
    return;
  const auto moveFocus = [this](int button) {
    focused_ = button;
    draw();
  };
  const int other = focused_ == kFirst ? kSecond : kFirst;
  switch (keyboard_->keysym(key.detail, key.state)) {
    // With two buttons, forward and backward both lead to the other one.
    case XKB_KEY_Tab:
    case XKB_KEY_ISO_Left_Tab:
      moveFocus(other);
      break;
    case XKB_KEY_Left:
      moveFocus(kFirst);
      break;
    case XKB_KEY_Right:
      moveFocus(kSecond);
      break;
    case XKB_KEY_Return:
    case XKB_KEY_KP_Enter:
    case XKB_KEY_space:
      answer(focused_);
      break;
    case XKB_KEY_Escape:
      answer(kSecond);
      break;
    default:
      break;
  }
}

void DialogWindow::draw() {
  if (!surface_)
    return;
  cairo_t* cr = cairo_create(surface_.get());
  cairo_push_group(cr);
  setSource(cr, kBackground);
  cairo_paint(cr);
  // An edge of its own: without a window manager there is no frame around it.
  setSource(cr, kEdge);
  cairo_set_line_width(cr, 1);
  cairo_rectangle(cr, 0.5, 0.5, width_ - 1, height_ - 1);
  cairo_stroke(cr);

  const double padding = kPadding * scale_;
  setSource(cr, kText);
  cairo_move_to(cr, padding, titleY_);
  pango_cairo_show_layout(cr, title_.get());
  cairo_move_to(cr, padding, messageY_);
  pango_cairo_show_layout(cr, message_.get());

  for (int i = 0; i < 2; ++i) {
    const QRVRect& r = buttons_[i];
    const bool focused = i == focused_;
    const bool pressed = i == pressed_;
    roundedRectangle(cr, {r.x + 0.5, r.y + 0.5, r.width - 1, r.height - 1}, kButtonRadius * scale_);
    setSource(cr, focused ? (pressed ? kFocusedPressed : kFocused)
                          : (pressed ? kButtonPressed : kButton));
    cairo_fill_preserve(cr);
    setSource(cr, focused ? kFocusedPressed : kButtonEdge);
    cairo_set_line_width(cr, std::max(1.0, std::round(scale_)));
    cairo_stroke(cr);
    int textWidth = 0;
    int textHeight = 0;
    pango_layout_get_pixel_size(labels_[i].get(), &textWidth, &textHeight);
    setSource(cr, focused ? kFocusedText : kText);
    cairo_move_to(cr, std::round(r.x + (r.width - textWidth) / 2),
                  std::round(r.y + (r.height - textHeight) / 2));
    pango_cairo_show_layout(cr, labels_[i].get());
  }
  cairo_pop_group_to_source(cr);
  cairo_paint(cr);
  cairo_destroy(cr);
  cairo_surface_flush(surface_.get());
  display_->flush();
}

class X11Dialog : public QRVDialog {
 public:
  explicit X11Dialog(std::shared_ptr<DialogWindow> window) : window_(std::move(window)) {}
  ~X11Dialog() override { window_->close(); }
  const DialogWindow& window() const { return *window_; }

 private:
  std::shared_ptr<DialogWindow> window_;
};

}  // namespace

X11DialogPresenter::X11DialogPresenter(std::shared_ptr<X11Display> display, MainScreen mainScreen)
    : display_(std::move(display)), mainScreen_(std::move(mainScreen)) {}

std::unique_ptr<QRVDialog> X11DialogPresenter::present(const QRVDialogContent& content,
                                                       std::function<void(int answer)> onAnswer) {
  assert(display_->mainQueue()->isCurrent());
  auto window = std::make_shared<DialogWindow>(display_, std::move(onAnswer));
  window->open(content, mainScreen_ ? mainScreen_() : QRVRect{});
  return std::make_unique<X11Dialog>(std::move(window));
}

std::optional<X11DialogPresenter::Inspection> X11DialogPresenter::inspect(const QRVDialog& dialog) {
  const auto* x11 = dynamic_cast<const X11Dialog*>(&dialog);
  return x11 ? x11->window().inspection() : std::nullopt;
}

}  // namespace quorvix
