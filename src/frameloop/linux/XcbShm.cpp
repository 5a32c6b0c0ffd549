#include "frameloop/linux/XcbShm.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>

#include "utils/Logging.h"

namespace quorvix::x11 {
namespace {

std::atomic<ShmSegment::Kinds> gKinds{ShmSegment::Kinds::all};

}  // namespace

void ShmSegment::setKindsForTesting(Kinds kinds) {
  gKinds = kinds;
}

std::unique_ptr<ShmSegment> ShmSegment::create(const XcbConnection& c, std::size_t size) {
  const Kinds kinds = gKinds;
  if (kinds == Kinds::none)
    return nullptr;
  if (kinds == Kinds::all)
    if (auto sysv = createSysV(c, size))
      return sysv;
  QRV_LOGGER_FOR(c.category())
      ->debug("SysV shared memory refused; asking the server for a segment");
  return createFd(c, size);
}

ShmSegment::ShmSegment(const XcbConnection& c,
                       xcb_shm_seg_t seg,
                       void* data,
                       std::size_t size,
                       bool sysv)
    : c_(c), seg_(seg), data_(data), size_(size), mapping_(data, [size, sysv](void* p) {
        if (sysv)
          shmdt(p);
        else
          munmap(p, size);
      }) {}

ShmSegment::~ShmSegment() {
  if (!c_.lost())
    xcb_shm_detach(c_.get(), seg_);
}

std::unique_ptr<ShmSegment> ShmSegment::createSysV(const XcbConnection& c, std::size_t size) {
  const int shmid = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
  if (shmid < 0)
    return nullptr;
  void* data = shmat(shmid, nullptr, 0);
  const xcb_shm_seg_t seg = xcb_generate_id(c.get());
  bool attached = false;
  if (data != reinterpret_cast<void*>(-1))
    attached =
        c.check(xcb_shm_attach_checked(c.get(), seg, std::uint32_t(shmid), 0), "MIT-SHM attach");
  // Marked for removal at once: it goes with the last detach, even if this process dies.
  shmctl(shmid, IPC_RMID, nullptr);
  if (!attached) {
    if (data != reinterpret_cast<void*>(-1))
      shmdt(data);
    return nullptr;
  }
  return std::unique_ptr<ShmSegment>(new ShmSegment(c, seg, data, size, true));
}

std::unique_ptr<ShmSegment> ShmSegment::createFd(const XcbConnection& c, std::size_t size) {
  const xcb_shm_seg_t seg = xcb_generate_id(c.get());
  auto reply = replyOf(c, xcb_shm_create_segment_reply,
                       xcb_shm_create_segment(c.get(), seg, std::uint32_t(size), 0),
                       "MIT-SHM create segment");
  if (!reply || reply->nfd != 1)
    return nullptr;
  const int fd = xcb_shm_create_segment_reply_fds(c.get(), reply.get())[0];
  void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (data == MAP_FAILED) {
    xcb_shm_detach(c.get(), seg);
    return nullptr;
  }
  return std::unique_ptr<ShmSegment>(new ShmSegment(c, seg, data, size, false));
}

}  // namespace quorvix::x11
