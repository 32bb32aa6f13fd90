// The one file that talks to the driver with ioctl.
#include <sys/ioctl.h>

#include "configurator/korva_driver.h"

qvr_korva_cache_block qvr_make_cache_block(uint32_t idx, uint32_t bitmask) {
  qvr_korva_cache_block block{};
  block.idx = idx;
  block.bitmask = bitmask;
  block.kGlobalOffset = static_cast<uint32_t>(idx * qvr::kCacheBlockSize);
  block.preCmd = PARAM_ID_PREMIX;
  block.preSize = static_cast<uint32_t>(qvrcs::kPremixBlockSize);
  block.preOff = static_cast<uint32_t>(qvr::kPremixFadeOffset);
  block.preFadeCmd = 0;
  block.preFadeSize = static_cast<uint32_t>(qvr::kFadeAreaSize);
  block.postOff = static_cast<uint32_t>(qvr::kPostmixPayloadOffset);
  block.postCmd = PARAM_ID_POSTMIX;
  block.postSize = static_cast<uint32_t>(qvrcs::kPostmixBlockSize);
  block.fadeOff = static_cast<uint32_t>(qvr::kPostmixFadeOffset);
  block.postFadeCmd = 0;
  block.postFadeSize = static_cast<uint32_t>(qvr::kFadeAreaSize);
  return block;
}

int32_t qvr_set_cache_size(int fd, int32_t size) {
  return ioctl(fd, QVR_KORVA_IOCTL_SET_CACHE_SIZE, &size);
}

int32_t qvr_get_param(int fd, qvr_korva_param_query* query) {
  return ioctl(fd, QVR_KORVA_IOCTL_GET_PARAM, query);
}

int32_t qvr_set_param(int fd, const qvr_korva_upload* upload) {
  return ioctl(fd, QVR_KORVA_IOCTL_SET_PARAM, upload);
}

int32_t qvr_set_cache_block(int fd, const qvr_korva_cache_block* block) {
  return ioctl(fd, QVR_KORVA_IOCTL_SET_CACHE_BLOCK, block);
}

int32_t qvr_set_volume_controls(int fd, uint32_t value) {
  return ioctl(fd, QVR_KORVA_IOCTL_SET_VOLUME_CONTROLS, &value);
}
