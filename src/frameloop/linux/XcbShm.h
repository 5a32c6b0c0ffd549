// A MIT-SHM segment shared with the X server, for reads of windows and the screen without
// copying through the socket. Used on its connection's thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <xcb/shm.h>

#include "frameloop/linux/XcbConnection.h"

namespace quorvix::x11 {

class ShmSegment {
 public:
  // A SysV segment, else one the server creates and passes as a file descriptor (for servers in
  // another IPC namespace); nullptr when neither works. `c` must outlive the segment.
  static std::unique_ptr<ShmSegment> create(const XcbConnection& c, std::size_t size);

  ~ShmSegment();
  ShmSegment(const ShmSegment&) = delete;
  ShmSegment& operator=(const ShmSegment&) = delete;

  xcb_shm_seg_t id() const { return seg_; }
  const std::uint8_t* data() const { return static_cast<const std::uint8_t*>(data_); }
  // Writable too: a read may be touched up in place before it is handed on.
  std::uint8_t* mutableData() { return static_cast<std::uint8_t*>(data_); }
  std::size_t size() const { return size_; }
  // Holds the memory mapped after the segment is gone (and its connection with it): a read handed
  // on keeps its pixels. Released on any thread.
  std::shared_ptr<void> mapping() const { return mapping_; }

  // Test hook: which kinds create() may make, to exercise the fallbacks on a server that offers
  // both.
  enum class Kinds { all, fdOnly, none };
  static void setKindsForTesting(Kinds kinds);

 private:
  ShmSegment(const XcbConnection& c, xcb_shm_seg_t seg, void* data, std::size_t size, bool sysv);
  static std::unique_ptr<ShmSegment> createSysV(const XcbConnection& c, std::size_t size);
  static std::unique_ptr<ShmSegment> createFd(const XcbConnection& c, std::size_t size);

  const XcbConnection& c_;
  const xcb_shm_seg_t seg_;
  void* const data_;
  const std::size_t size_;
  const std::shared_ptr<void> mapping_;
};

}  // namespace quorvix::x11
