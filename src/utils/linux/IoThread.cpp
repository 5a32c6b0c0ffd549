#include "utils/linux/IoThread.h"

#include <future>

#include <boost/asio/executor_work_guard.hpp>

#include <openssl/ssl.h>
#include <pthread.h>

namespace quorvix {

std::shared_ptr<IoThread> IoThread::shared() {
  // Started on first use and joined at exit. Connections also hold it, but the last release
  // never falls to a handler on the thread itself, which could only detach it while the
  // process tears down around it.
  //
  // OpenSSL goes first, so that its exit-time cleanup runs after this thread has been joined
  // and has let go of its per-thread state.
  static const auto thread = [] {
    OPENSSL_init_ssl(0, nullptr);
    return std::make_shared<IoThread>("quorvix-net");
  }();
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
