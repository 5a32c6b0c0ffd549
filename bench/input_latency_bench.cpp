// Injection latency on X11: from the injector's post() to the event reaching a client window,
// over a private Xvfb this program starts and stops by its PID. Four kinds of event: a pointer
// motion, a physical key, a character on the layout, and a character on a spare keycode.
//
//   input_latency_bench [events per kind, default 1000]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "remote-control/linux/XTestInjector.h"
#include "support/ChildProcess.h"
#include "support/ManualExecutor.h"
#include "support/X11InputRecorder.h"

namespace {

using namespace quorvix;
using Steady = std::chrono::steady_clock;
using Kind = test::X11InputRecorder::Kind;

void report(const char* what, std::vector<double> us) {
  if (us.empty()) {
    std::printf("%-28s no samples\n", what);
    return;
  }
  std::sort(us.begin(), us.end());
  const auto at = [&](double q) { return us[std::min(us.size() - 1, std::size_t(q * us.size()))]; };
  std::printf("%-28s n=%zu  median %.0f us  p99 %.0f us  max %.0f us\n", what, us.size(), at(0.5),
              at(0.99), us.back());
}

}  // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
  test::ChildProcess xvfb(
      {"Xvfb", "-displayfd", "1", "-screen", "0", "1920x1080x24", "-nolisten", "tcp", "-noreset"});
  const auto number = xvfb.readLine();
  if (!xvfb.started() || !number) {
    std::fprintf(stderr, "Xvfb did not start\n");
    return 1;
  }
  const std::string display = ":" + *number;
  auto queue = std::make_shared<test::ManualExecutor>();
  test::X11InputRecorder client(display);
  XTestInjector injector(display, queue);
  if (!client.ok() || !injector.isAvailable()) {
    std::fprintf(stderr, "no client window or no XTEST on %s\n", display.c_str());
    return 1;
  }

  // Times one post until the client has one more event of `kind`.
  auto measure = [&](Kind kind, const auto& post) {
    const auto count = [&] {
      return std::count_if(client.events().begin(), client.events().end(),
                           [&](const auto& e) { return e.kind == kind; });
    };
    const auto before = count();
    const auto start = Steady::now();
    post();
    if (!client.waitUntil([&] { return count() > before; }))
      return -1.0;
    return std::chrono::duration<double, std::micro>(Steady::now() - start).count();
  };
  auto collect = [&](Kind kind, const auto& post) {
    std::vector<double> out;
    for (int i = 0; i < n; ++i) {
      const double us = measure(kind, [&] { post(i); });
      if (us >= 0)
        out.push_back(us);
    }
    client.clear();
    return out;
  };

  report("pointer motion", collect(Kind::motion, [&](int i) {
           injector.post(InjectedMouseEvent{MouseEventType::moved,
                                            MouseButton::left,
                                            {double(100 + i % 1000), double(200 + i % 2)}});
         }));
  report("physical key (KeyA)", collect(Kind::keyPress, [&](int) {
           injector.post(InjectedKeyEvent{"KeyA", 0, true, 0u, std::nullopt});
           injector.post(InjectedKeyEvent{"KeyA", 0, false, 0u, std::nullopt});
         }));
  report("character on the layout", collect(Kind::keyPress, [&](int i) {
           const char* text[] = {"a", "A", "1", "!"};
           injector.post(InjectedKeyEvent{"KeyA", 0, true, 0u, std::string(text[i % 4])});
           injector.post(InjectedKeyEvent{"KeyA", 0, false, 0u, std::string(text[i % 4])});
         }));
  // Eight characters the US layout lacks; each keeps its spare keycode once mapped.
  report("character on a spare key", collect(Kind::keyPress, [&](int i) {
           const char* text[] = {"é", "ß", "€", "Ж", "ø", "ñ", "Ω", "ç"};
           injector.post(InjectedKeyEvent{"KeyE", 0, true, 0u, std::string(text[i % 8])});
           injector.post(InjectedKeyEvent{"KeyE", 0, false, 0u, std::string(text[i % 8])});
         }));
  return 0;
}
