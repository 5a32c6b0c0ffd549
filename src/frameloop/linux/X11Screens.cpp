#include "frameloop/linux/X11Screens.h"

#include <algorithm>
#include <string>

#include <xcb/randr.h>
#include <xcb/xfixes.h>

namespace quorvix::x11 {
namespace {

constexpr std::uint32_t kRandrMinor = 5;  // monitors came with 1.5

bool hasRandr(const XcbConnection& c, std::uint32_t minor) {
  if (!c.hasExtension(&xcb_randr_id))
    return false;
  auto version = replyOf(c, xcb_randr_query_version_reply,
                         xcb_randr_query_version(c.get(), 1, kRandrMinor), "RandR version");
  return version && (version->major_version > 1 || version->minor_version >= minor);
}

std::string atomName(const XcbConnection& c, xcb_atom_t atom) {
  auto reply = replyOf(c, xcb_get_atom_name_reply, xcb_get_atom_name(c.get(), atom), "atom name");
  if (!reply)
    return "monitor";
  return std::string(xcb_get_atom_name_name(reply.get()),
                     std::size_t(xcb_get_atom_name_name_length(reply.get())));
}

// Hz of the mode driving the output's CRTC; 0 when unknown (Xvfb's modes have no timings).
double refreshRateOf(const XcbConnection& c, xcb_randr_output_t output) {
  auto resources =
      replyOf(c, xcb_randr_get_screen_resources_current_reply,
              xcb_randr_get_screen_resources_current(c.get(), c.root()), "RandR screen resources");
  if (!resources)
    return 0;
  auto info = replyOf(c, xcb_randr_get_output_info_reply,
                      xcb_randr_get_output_info(c.get(), output, resources->config_timestamp),
                      "RandR output info");
  if (!info || info->crtc == XCB_NONE)
    return 0;
  auto crtc = replyOf(c, xcb_randr_get_crtc_info_reply,
                      xcb_randr_get_crtc_info(c.get(), info->crtc, resources->config_timestamp),
                      "RandR CRTC info");
  if (!crtc || crtc->mode == XCB_NONE)
    return 0;
  const xcb_randr_mode_info_t* modes =
      xcb_randr_get_screen_resources_current_modes(resources.get());
  const int count = xcb_randr_get_screen_resources_current_modes_length(resources.get());
  for (int i = 0; i < count; ++i) {
    const xcb_randr_mode_info_t& m = modes[i];
    if (m.id != crtc->mode)
      continue;
    double vtotal = m.vtotal;
    if (m.mode_flags & XCB_RANDR_MODE_FLAG_DOUBLE_SCAN)
      vtotal *= 2;
    if (m.mode_flags & XCB_RANDR_MODE_FLAG_INTERLACE)
      vtotal /= 2;
    if (m.htotal == 0 || vtotal == 0)
      return 0;
    return double(m.dot_clock) / (double(m.htotal) * vtotal);
  }
  return 0;
}

std::shared_ptr<const QRVScreen> wholeRoot(const XcbConnection& c) {
  auto geometry =
      replyOf(c, xcb_get_geometry_reply, xcb_get_geometry(c.get(), c.root()), "root geometry");
  if (!geometry)
    return nullptr;
  return std::make_shared<const QRVScreen>(
      "root", QRVScreenRect{0, 0, geometry->width, geometry->height}, 0.0);
}

}  // namespace

std::shared_ptr<const QRVScreen> readMainScreen(const XcbConnection& c) {
  if (c.lost())
    return nullptr;
  if (!hasRandr(c, kRandrMinor))
    return wholeRoot(c);
  auto monitors = replyOf(c, xcb_randr_get_monitors_reply,
                          xcb_randr_get_monitors(c.get(), c.root(), 1), "RandR monitors");
  if (!monitors)
    return c.lost() ? nullptr : wholeRoot(c);
  const xcb_randr_monitor_info_t* chosen = nullptr;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(monitors.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    if (it.data->width == 0 || it.data->height == 0)
      continue;
    if (chosen == nullptr || (it.data->primary && !chosen->primary))
      chosen = it.data;
  }
  if (chosen == nullptr)
    return wholeRoot(c);
  double rate = 0;
  if (xcb_randr_monitor_info_outputs_length(chosen) > 0)
    rate = refreshRateOf(c, xcb_randr_monitor_info_outputs(chosen)[0]);
  return std::make_shared<const QRVScreen>(
      atomName(c, chosen->name), QRVScreenRect{chosen->x, chosen->y, chosen->width, chosen->height},
      rate);
}

bool selectScreenChanges(const XcbConnection& c, std::uint32_t rootEvents) {
  const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY | rootEvents;
  c.check(xcb_change_window_attributes_checked(c.get(), c.root(), XCB_CW_EVENT_MASK, &mask),
          "select root structure notifications");
  if (!hasRandr(c, 2))
    return false;
  return c.check(xcb_randr_select_input_checked(c.get(), c.root(),
                                                XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE |
                                                    XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                                                    XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE),
                 "select RandR notifications");
}

bool isScreenChangeEvent(const XcbConnection& c, const xcb_generic_event_t& event) {
  const std::uint8_t type = event.response_type & 0x7f;
  if (type == XCB_CONFIGURE_NOTIFY) {
    const auto& configure = reinterpret_cast<const xcb_configure_notify_event_t&>(event);
    return configure.window == c.root();
  }
  const xcb_query_extension_reply_t* randr = xcb_get_extension_data(c.get(), &xcb_randr_id);
  if (randr == nullptr || !randr->present)
    return false;
  return type == randr->first_event + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
         type == randr->first_event + XCB_RANDR_NOTIFY;
}

std::shared_ptr<const QRVCursorImage> CursorCache::image(const XcbConnection& c,
                                                         bool hasXFixes,
                                                         std::uint32_t& serial) {
  if (image_ && imageSerial_ == serial)
    return image_;
  imageSerial_ = serial;
  if (hasXFixes) {
    auto reply = replyOf(c, xcb_xfixes_get_cursor_image_reply, xcb_xfixes_get_cursor_image(c.get()),
                         "cursor image");
    auto image = reply ? QRVCursorImage::fromServer(
                             reply->width, reply->height, reply->xhot, reply->yhot,
                             xcb_xfixes_get_cursor_image_cursor_image(reply.get()),
                             std::size_t(std::max(
                                 0, xcb_xfixes_get_cursor_image_cursor_image_length(reply.get()))))
                       : nullptr;
    if (image) {
      image_ = std::move(image);
      serial = imageSerial_ = reply->cursor_serial;
      return image_;
    }
  }
  if (!image_)
    image_ = QRVCursorImage::builtinArrow();
  return image_;
}

}  // namespace quorvix::x11
