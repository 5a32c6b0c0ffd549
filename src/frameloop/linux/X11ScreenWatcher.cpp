// The X11 screen watcher: a thread of its own with its own connection waits for RandR and root
// configure notifications, re-reads the main screen and posts changes to the executor.
#include <poll.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <thread>

#include "frameloop/QRVScreenWatcher.h"
#include "frameloop/linux/X11Screens.h"
#include "frameloop/linux/XcbConnection.h"
#include "utils/Logging.h"

namespace quorvix {
namespace {

constexpr std::string_view kCategory = "QRVScreen";

class X11ScreenWatcher final : public QRVScreenWatcher {
 public:
  X11ScreenWatcher(std::shared_ptr<Executor> executor, const std::string& displayName)
      : shared_(std::make_shared<Shared>()) {
    shared_->executor = std::move(executor);
    connection_ = x11::XcbConnection::open(displayName, kCategory);
    if (!connection_)
      return;
    x11::selectScreenChanges(*connection_);
    shared_->screen = x11::readMainScreen(*connection_);
    if (pipe(wakePipe_) != 0) {
      QRV_LOGGER_FOR(kCategory)->debug("screen watcher: no wake pipe; changes are not followed");
      wakePipe_[0] = wakePipe_[1] = -1;
      return;
    }
    thread_ = std::thread([this] { run(); });
  }

  ~X11ScreenWatcher() override {
    if (thread_.joinable()) {
      const char byte = 0;
      [[maybe_unused]] auto written = write(wakePipe_[1], &byte, 1);
      thread_.join();
    }
    for (int fd : wakePipe_)
      if (fd >= 0)
        close(fd);
  }

  std::shared_ptr<const QRVScreen> mainScreen() const override {
    std::lock_guard lock(shared_->mutex);
    return shared_->screen;
  }

  int subscribe(Callback callback) override {
    std::lock_guard lock(shared_->mutex);
    const int id = ++shared_->nextId;
    shared_->subscribers[id] = std::make_shared<Callback>(std::move(callback));
    return id;
  }

  void unsubscribe(int id) override {
    std::lock_guard lock(shared_->mutex);
    shared_->subscribers.erase(id);
  }

 private:
  // What the watcher thread and posted tasks share with the owner.
  struct Shared {
    std::shared_ptr<Executor> executor;
    mutable std::mutex mutex;
    std::shared_ptr<const QRVScreen> screen;
    std::map<int, std::shared_ptr<Callback>> subscribers;
    int nextId = 0;
  };

  // Runs on the watcher thread until the wake pipe is written or the connection is lost.
  void run() {
    const int xfd = xcb_get_file_descriptor(connection_->get());
    for (;;) {
      bool changed = false;
      while (auto event = x11::XcbPtr<xcb_generic_event_t>(xcb_poll_for_event(connection_->get())))
        changed = changed || x11::isScreenChangeEvent(*connection_, *event);
      if (connection_->lost()) {
        QRV_LOGGER_FOR(kCategory)->error("screen watcher: X connection lost ({})",
                                         connection_->lossReason());
        publish(nullptr);
        return;
      }
      if (changed) {
        publish(x11::readMainScreen(*connection_));
        // The reads wait for replies, and events arriving meanwhile are queued inside XCB, not
        // left on the socket, where poll() would never see them: look at the queue again first.
        continue;
      }
      pollfd fds[2] = {{xfd, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
      if (poll(fds, 2, -1) < 0 && errno != EINTR)
        return;
      if (fds[1].revents != 0)
        return;
    }
  }

  void publish(std::shared_ptr<const QRVScreen> screen) {
    {
      std::lock_guard lock(shared_->mutex);
      if (sameScreen(shared_->screen, screen))
        return;
      QRV_LOGGER_FOR(kCategory)->debug("main screen changed to {} from {}", describe(screen),
                                       describe(shared_->screen));
      shared_->screen = screen;
    }
    std::weak_ptr<Shared> weak = shared_;
    shared_->executor->post([weak, screen] {
      auto shared = weak.lock();
      if (!shared)
        return;
      std::vector<std::pair<int, std::shared_ptr<Callback>>> callbacks;
      {
        std::lock_guard lock(shared->mutex);
        callbacks.assign(shared->subscribers.begin(), shared->subscribers.end());
      }
      for (const auto& [id, callback] : callbacks) {
        bool stillSubscribed = false;
        {
          std::lock_guard lock(shared->mutex);
          stillSubscribed = shared->subscribers.count(id) != 0;
        }
        if (stillSubscribed)
          (*callback)(screen);
      }
    });
  }

  const std::shared_ptr<Shared> shared_;
  std::unique_ptr<x11::XcbConnection> connection_;
  int wakePipe_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace

std::unique_ptr<QRVScreenWatcher> QRVScreenWatcher::createX11(std::shared_ptr<Executor> executor,
                                                              const std::string& displayName) {
  return std::make_unique<X11ScreenWatcher>(std::move(executor), displayName);
}

}  // namespace quorvix
