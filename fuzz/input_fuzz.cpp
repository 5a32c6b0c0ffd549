// The agent's input as it arrives: one CBOR item, converted as the socket converts it, decoded
// into each input record and played on a recording backend. Nothing may crash; decoded records
// keep the invariants the injector relies on.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "IncomingMessage.h"
#include "core/QRVSessionResource.h"
#include "remote-control/QRVXTestRemoteControl.h"
#include "remote-control/linux/Keysyms.h"
#include "remote-control/linux/XTestKeyTable.h"

namespace {

using namespace quorvix;

class Sink final : public InputInjector {
 public:
  bool isAvailable() override { return true; }
  void post(const InjectedMouseEvent&) override {}
  void post(const InjectedKeyEvent&) override {}
  QRVPoint pointerLocation() override { return {}; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto value = fuzz::incomingMessage(data, size);
  if (!value)
    return 0;
  static auto session =
      std::make_shared<QRVSessionResource>(Value::Map{{"state", "active"}, {"full_device", "on"}});
  QRVXTestRemoteControl control(session, std::make_shared<Sink>(), [] {
    return QRVScreenRect{0, 0, 1920, 1080};
  });
  if (auto mouse = QRVMouseEvent::from(*value)) {
    if (std::isnan(mouse->position().x) || std::isnan(mouse->position().y))
      std::abort();
    control.injectMouse(*mouse);
    (void)mouse->duration(mouse);
  }
  if (auto touch = QRVTouchEvent::from(*value)) {
    const QRVPoint p = touch->position();
    if (std::isfinite(p.x) && std::isfinite(p.y) && touch->distance(*touch) != 0)
      std::abort();
    control.injectTouch(*touch);
  }
  if (auto key = QRVKeyPress::from(*value)) {
    (void)key->isSingleCharacter();
    // What the X11 backend makes of the typed text: bounded, and only valid code points.
    const auto characters = codePoints(key->key(), 64);
    if (characters.size() > 64)
      std::abort();
    for (char32_t c : characters) {
      if (c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff))
        std::abort();
      (void)keysymForCharacter(c);
    }
    (void)physicalKeyFor(key->code());
    control.injectKeyPress(*key);
  }
  return 0;
}
