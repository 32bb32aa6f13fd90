// The Korva driver answered inside the configurator's own process, for the
// whole-run benchmark: qvr_configurator linked with -Wl,--wrap=open and
// -Wl,--wrap=ioctl. Opening either driver node returns a descriptor of
// /dev/null that stands for the driver; its requests land in __wrap_ioctl
// here. Every other file is opened, and every other descriptor's ioctl
// answered, as usual. No socket, no second process.
//
// The driver does only what a device's driver must: it checks each request's
// record (the cache size, the block layout inside the cache, the upload's
// size against the selected block), writes the query replies and answers. It
// keeps no copy of the uploads and logs nothing, so that what the run costs
// is the configurator's own work. The fuzzers' driver (fuzz/fake_driver.h,
// the simulator's model) stores and journals every request for their checks;
// this one is its lean counterpart behind the same seam.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "configurator/korva_driver.h"
#include "configurator/settings.h"
#include "tools/korva-driver-sim/sim_model.h"

namespace {

using korva_sim::BlockExtent;
using korva_sim::kMaxCacheSize;

constexpr char kDspVersion[] = "BENCH";
constexpr char kDspDescription[] = "in-process Korva driver";

int g_driverFd = -1;
int64_t g_cacheSize = -1;
int64_t g_selectedOffset = -1;

int Refuse(int error) {
  errno = error;
  return -1;
}

int Answer(uint32_t request, void* argument) {
  if (argument == nullptr) return Refuse(EFAULT);
  switch (request) {
    case QVR_KORVA_IOCTL_SET_CACHE_SIZE: {
      int32_t size;
      std::memcpy(&size, argument, sizeof size);
      if (size < 0 || size > kMaxCacheSize) return Refuse(EINVAL);
      g_cacheSize = size;
      g_selectedOffset = -1;
      return 0;
    }
    case QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS:
      return 0;
    case QVR_KORVA_IOCTL_SET_CACHE_BLOCK: {
      qvr_korva_cache_block block;
      std::memcpy(&block, argument, sizeof block);
      if (int64_t{block.kGlobalOffset} + static_cast<int64_t>(BlockExtent(block)) > g_cacheSize) {
        return Refuse(EINVAL);
      }
      g_selectedOffset = block.kGlobalOffset;
      return 0;
    }
    case QVR_KORVA_IOCTL_SET_PARAM: {
      qvr_korva_param_desc desc;
      std::memcpy(&desc, argument, sizeof desc);
      if (desc.size < 0 || g_selectedOffset < 0 || g_selectedOffset + desc.size > g_cacheSize) {
        return Refuse(EINVAL);
      }
      return 0;
    }
    case QVR_KORVA_IOCTL_GET_PARAM: {
      qvr_korva_param_desc desc;
      std::memcpy(&desc, argument, sizeof desc);
      if (desc.size < 0 || (desc.id != PARAM_ID_DSP_VERSION && desc.id != PARAM_ID_DSP_DESCRIPTION)) {
        return Refuse(EINVAL);
      }
      const char* text = desc.id == PARAM_ID_DSP_VERSION ? kDspVersion : kDspDescription;
      const size_t replySize = std::min(static_cast<size_t>(desc.size), kQvrKorvaReplySpace);
      auto* reply = static_cast<char*>(argument) + sizeof desc;
      std::memset(reply, 0, replySize);
      std::memcpy(reply, text, std::min(std::strlen(text), replySize));
      return 0;
    }
    default:
      return Refuse(ENOTTY);
  }
}

}  // namespace

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __real_ioctl(int fd, unsigned long request, ...);

extern "C" int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, int));
    va_end(args);
  }
  if (std::strcmp(path, kQvrKorvaHardwareNode) != 0 && std::strcmp(path, kQvrKorvaSoftwareNode) != 0) {
    return __real_open(path, flags, mode);
  }
  if (g_driverFd < 0) g_driverFd = __real_open("/dev/null", O_RDWR | O_CLOEXEC);
  g_cacheSize = -1;
  g_selectedOffset = -1;
  return g_driverFd;
}

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (fd < 0 || fd != g_driverFd) return __real_ioctl(fd, request, argument);
  return Answer(static_cast<uint32_t>(request), argument);
}
