// An owned XCB connection and the helpers that check every request made on it. A connection
// belongs to one thread at a time; XCB itself is thread-safe, but the owners here never share one.
// Failures never end the process: a failed request is logged and reported to the caller, and a
// lost connection is seen through lost() so that its owner can drop it and connect again.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include <xcb/xcb.h>

namespace quorvix::x11 {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
// A reply or event that XCB allocated with malloc.
template <class T>
using XcbPtr = std::unique_ptr<T, FreeDeleter>;

class XcbConnection {
 public:
  // Connects to `displayName` ("" = $DISPLAY). nullptr, with the reason logged under `category`,
  // when no connection could be made.
  static std::unique_ptr<XcbConnection> open(const std::string& displayName,
                                             std::string_view category);
  ~XcbConnection();
  XcbConnection(const XcbConnection&) = delete;
  XcbConnection& operator=(const XcbConnection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  const xcb_screen_t& screen() const { return *screen_; }
  xcb_window_t root() const { return screen_->root; }
  std::string_view category() const { return category_; }

  // Whether the connection broke (server gone, protocol error); nothing on it works any more.
  bool lost() const;
  // XCB's reason for the loss, for the log.
  std::string lossReason() const;

  // Waits for a void request's outcome; false (logged) when it failed.
  bool check(xcb_void_cookie_t cookie, std::string_view what) const;
  // Logs a request's error and frees it; false when there was one.
  bool noError(xcb_generic_error_t* error, std::string_view what) const;

  // Whether the server offers the extension.
  bool hasExtension(xcb_extension_t* extension) const;

 private:
  XcbConnection(xcb_connection_t* connection, const xcb_screen_t* screen, std::string category)
      : connection_(connection), screen_(screen), category_(std::move(category)) {}

  xcb_connection_t* const connection_;
  const xcb_screen_t* const screen_;
  const std::string category_;
};

// The reply to a request made with its cookie, or nullptr with the error logged.
//   auto geometry = replyOf(c, xcb_get_geometry_reply, xcb_get_geometry(c.get(), w), "geometry");
template <class ReplyFn, class Cookie>
auto replyOf(const XcbConnection& c, ReplyFn fn, Cookie cookie, std::string_view what) {
  using Reply = std::remove_pointer_t<decltype(fn(c.get(), cookie, nullptr))>;
  xcb_generic_error_t* error = nullptr;
  XcbPtr<Reply> reply(fn(c.get(), cookie, &error));
  if (!c.noError(error, what))
    reply.reset();
  return reply;
}

}  // namespace quorvix::x11
