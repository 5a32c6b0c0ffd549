// The network I/O thread shared by the socket transports: one Asio io_context on a thread of the
// library's own, alive while any connection holds it.
#pragma once

#include <memory>
#include <thread>

#include <boost/asio/io_context.hpp>

namespace quorvix {

class IoThread {
 public:
  // The process's I/O thread, started on first use.
  static std::shared_ptr<IoThread> shared();

  explicit IoThread(const char* name);
  ~IoThread();
  IoThread(const IoThread&) = delete;
  IoThread& operator=(const IoThread&) = delete;

  boost::asio::io_context& context() { return *io_; }
  // Runs nothing more and waits for the handler under way, if any. Called from a handler on
  // the thread itself, it only stops the thread.
  void stop();
  bool isCurrent() const { return std::this_thread::get_id() == threadId_; }

 private:
  // Shared with the thread so that a last release from a handler on the thread itself (which
  // must detach rather than join) leaves the context alive until run() returns.
  std::shared_ptr<boost::asio::io_context> io_;
  std::thread thread_;
  std::thread::id threadId_;
};

}  // namespace quorvix
