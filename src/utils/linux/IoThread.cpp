#include "utils/linux/IoThread.h"

#include <future>
#include <mutex>

#include <boost/asio/executor_work_guard.hpp>

#include <pthread.h>

namespace quorvix {

std::shared_ptr<IoThread> IoThread::shared() {
  static std::mutex mutex;
  static std::weak_ptr<IoThread> current;
  std::lock_guard lock(mutex);
  auto thread = current.lock();
  if (!thread) {
    thread = std::make_shared<IoThread>("quorvix-net");
    current = thread;
  }
  return thread;
}

IoThread::IoThread(const char* name) : io_(std::make_shared<boost::asio::io_context>(1)) {
  std::promise<void> started;
  thread_ = std::thread([io = io_, name, &started] {
    pthread_setname_np(pthread_self(), name);
    auto work = boost::asio::make_work_guard(*io);
    started.set_value();
    io->run();
  });
  threadId_ = thread_.get_id();
  started.get_future().wait();
}

IoThread::~IoThread() {
  io_->stop();
  if (isCurrent())
    thread_.detach();
  else
    thread_.join();
}

}  // namespace quorvix
