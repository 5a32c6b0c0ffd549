#include "utils/linux/IoThread.h"

#include <future>

#include <boost/asio/executor_work_guard.hpp>

#include <openssl/ssl.h>
#include <pthread.h>

namespace quorvix {
namespace {

// Stops and joins the thread when the process exits, whoever else still holds it.
struct JoinAtExit {
  const std::shared_ptr<IoThread>& thread;
  ~JoinAtExit() { thread->stop(); }
};

}  // namespace

std::shared_ptr<IoThread> IoThread::shared() {
  // Connections still open at exit hold the thread too, so the last release can come after
  // OpenSSL's exit-time cleanup, from a handler still running on the thread. It is therefore
  // joined at exit and never destroyed: what is still queued stays reachable and unrun.
  //
  // OpenSSL goes first, so that its cleanup is registered before the join and runs after it.
  static const std::shared_ptr<IoThread>& thread = *[] {
    OPENSSL_init_ssl(0, nullptr);
    // Leaked on purpose, like the loggers; see above.
    return new std::shared_ptr<IoThread>(std::make_shared<IoThread>("quorvix-net"));
  }();
  static const JoinAtExit join{thread};
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
  stop();
  // Still running only when the last release came from a handler on the thread itself.
  if (thread_.joinable())
    thread_.detach();
}

void IoThread::stop() {
  io_->stop();
  if (thread_.joinable() && !isCurrent())
    thread_.join();
}

}  // namespace quorvix
