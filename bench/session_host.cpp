// A host process for the whole-session benchmark: no window of its own, only the library, which
// shares the whole display of the benchmark scene. Every request (joining, the whole desktop,
// remote control) is answered yes at once through the delegate, so no dialog lands in the
// picture being measured. Uses the public API only, as a host application would.
//
//   session_host --api URL --license KEY [--latency-bound SECONDS] [--timecode 1]
//
// With --timecode, a strip at the top-left corner of the screen shows the wall clock (see
// Timecode.h), from which the agent reads the age of each picture.
// Prints "session code: CODE" and "pid: PID" once the session exists, then "session ended" when
// it ends; exits on the end of the session, SIGTERM or SIGINT.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include <unistd.h>

#include "Timecode.h"
#include "quorvix/Quorvix.h"

namespace {

using namespace quorvix;

std::promise<void> finished;
std::atomic<bool> finishing{false};

void finish() {
  if (!finishing.exchange(true))
    finished.set_value();
}

class YesDelegate : public QuorvixDelegate {
 public:
  void quorviSessionDidUpdate(const std::shared_ptr<QRVSession>&) override {}
  void quorviSessionDidEnd(const std::shared_ptr<QRVSession>&) override {
    std::printf("session ended\n");
    std::fflush(stdout);
    finish();
  }
  bool quorviHandleSessionRequest(const std::shared_ptr<QRVSession>& session) override {
    session->activate(nullptr);
    return true;
  }
  bool quorviHandleFullDeviceRequest(const std::shared_ptr<QRVSession>& session) override {
    session->setFullDevice(QRVConsentState::on, nullptr);
    return true;
  }
  bool quorviHandleRemoteControlRequest(const std::shared_ptr<QRVSession>& session) override {
    session->setRemoteControl(QRVConsentState::on, nullptr);
    return true;
  }
  // No border either: the benchmark measures the picture, not the library's own windows.
  bool quorviShowSessionControls(const std::shared_ptr<QRVSession>&) override { return true; }
  bool quorviHideSessionControls(const std::shared_ptr<QRVSession>&) override { return true; }
};

}  // namespace

int main(int argc, char** argv) {
  std::string api, license;
  double latencyBound = 0;
  bool timecode = false;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--api")
      api = argv[i + 1];
    else if (flag == "--license")
      license = argv[i + 1];
    else if (flag == "--latency-bound")
      latencyBound = std::strtod(argv[i + 1], nullptr);
    else if (flag == "--timecode")
      timecode = std::string(argv[i + 1]) != "0";
  }
  if (api.empty() || license.empty()) {
    std::fprintf(stderr, "usage: %s --api URL --license KEY [--latency-bound S] [--timecode 1]\n",
                 argv[0]);
    return 2;
  }
  // The signal only wakes a thread of ours; the library is stopped from main.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::thread waiter([signals] {
    int signal = 0;
    sigwait(&signals, &signal);
    finish();
  });
  waiter.detach();

  std::unique_ptr<bench::Timecode> strip;
  if (timecode)
    strip = std::make_unique<bench::Timecode>("");
  auto& quorvix = Quorvix::instance();
  quorvix.setApi(api);
  quorvix.setLicense(license);
  quorvix.setLatencyBound(latencyBound);
  quorvix.setDelegate(std::make_shared<YesDelegate>());
  quorvix.start();
  quorvix.createSession([](std::optional<QRVError> error, std::shared_ptr<QRVSession> session) {
    if (error) {
      std::fprintf(stderr, "could not create a session: %s\n", error->description().c_str());
      finish();
      return;
    }
    std::printf("session code: %s\npid: %d\n", session->code().value_or("?").c_str(),
                int(getpid()));
    std::fflush(stdout);
  });
  finished.get_future().wait();
  auto stopped = std::make_shared<std::promise<void>>();
  quorvix.stop([stopped](std::optional<QRVError>) { stopped->set_value(); });
  stopped->get_future().wait_for(std::chrono::seconds(3));
  return 0;
}
