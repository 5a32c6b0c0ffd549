#include <future>
#include <mutex>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <pthread.h>

#include "quorvix/Executor.h"

namespace quorvix {
namespace {

namespace asio = boost::asio;

class SystemClock final : public Clock {
 public:
  SteadyTime now() const override { return std::chrono::steady_clock::now(); }
  WallTime wallNow() const override { return std::chrono::system_clock::now(); }
};

// A serial executor on a thread of its own. A cancelled delayed task stays in the timer queue
// until its deadline and is then skipped; the queue is only ever a few timers long.
class ThreadExecutor final : public Executor {
 public:
  explicit ThreadExecutor(const char* name) : io_(std::make_shared<asio::io_context>()) {
    std::promise<void> started;
    thread_ = std::thread([io = io_, name, &started] {
      pthread_setname_np(pthread_self(), name);
      auto work = asio::make_work_guard(*io);
      started.set_value();
      io->run();
    });
    threadId_ = thread_.get_id();
    started.get_future().wait();
  }

  ~ThreadExecutor() override {
    io_->stop();
    // The last owner may be a task on this very thread; it cannot wait for itself. The thread
    // shares the context, which then lives on until run() has returned.
    if (isCurrent())
      thread_.detach();
    else
      thread_.join();
  }

  bool isCurrent() const override { return std::this_thread::get_id() == threadId_; }

  void post(Task task) override { asio::post(*io_, std::move(task)); }

  TaskHandle postAfter(Duration delay, Task task) override {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    auto timer = std::make_shared<asio::steady_timer>(*io_, delay);
    timer->async_wait(
        [timer, cancelled, task = std::move(task)](const boost::system::error_code& ec) {
          if (!ec && !cancelled->load())
            task();
        });
    return TaskHandle(cancelled);
  }

  const Clock& clock() const override { return clock_; }

 private:
  // Shared with the thread; see the destructor.
  std::shared_ptr<asio::io_context> io_;
  std::thread thread_;
  std::thread::id threadId_;
  SystemClock clock_;
};

std::mutex gMainMutex;
std::shared_ptr<Executor> gMain;

}  // namespace

std::shared_ptr<Executor> makeThreadExecutor(const char* threadName) {
  return std::make_shared<ThreadExecutor>(threadName);
}

std::shared_ptr<Executor> mainQueue() {
  std::lock_guard lock(gMainMutex);
  if (!gMain)
    gMain = makeThreadExecutor();
  return gMain;
}

void setMainQueue(std::shared_ptr<Executor> executor) {
  std::shared_ptr<Executor> previous;
  {
    std::lock_guard lock(gMainMutex);
    previous = std::exchange(gMain, std::move(executor));
  }
  // `previous` may own a thread; it is released here, outside the lock.
}

void runOnMainSync(const Task& task) {
  auto queue = mainQueue();
  if (queue->isCurrent()) {
    task();
    return;
  }
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  // The task holds the only reference to the promise, so a queue that drops it unrun breaks it.
  queue->post([done = std::move(done), &task]() mutable {
    task();
    done->set_value();
  });
  queue.reset();
  try {
    finished.get();
  } catch (const std::future_error&) {
    // The queue was torn down with the task unrun: nothing is left to wait for.
  }
}

void runOnMainAsync(Task task) {
  mainQueue()->post(std::move(task));
}

}  // namespace quorvix
