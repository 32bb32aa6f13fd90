// The simulator's share of a configurator run: the same sixteen driver
// requests, with the same records and sizes, through the configurator's own
// request functions, and nothing else. Under korva-driver-sim every request
// travels through the umockdev preload library to the simulator and back;
// this program's CPU time is that transport, which a device's kernel driver
// does not cost. With the argument "--open-only" the node is opened and
// closed and no request is made: the difference between the two runs is the
// transport alone. Exit status 0 when every request was answered 0.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "configurator/korva_driver.h"
#include "configurator/payload.h"

int main(int argc, char** argv) {
  const int fd = open(kQvrKorvaSoftwareNode, O_RDWR);
  if (fd < 0) return 1;
  if (argc > 1 && std::strcmp(argv[1], "--open-only") == 0) {
    close(fd);
    return 0;
  }
  int failures = 0;

  qvr_korva_param_query query{};
  query.desc = {PARAM_ID_DSP_VERSION, kDspVersionSize, kDspQueryOffset, kDeviceSelectBit | kDspQueryDevice};
  failures += qvr_get_param(fd, &query) < 0;
  query.desc.id = PARAM_ID_DSP_DESCRIPTION;
  query.desc.size = kDspDescriptionSize;
  failures += qvr_get_param(fd, &query) < 0;
  failures += qvr_set_volume_controls(fd, 0) < 0;
  failures += qvr_set_cache_size(fd, qvr::kDriverCacheSize) != 0;

  for (uint32_t index = 0; index < qvr::kCacheBlockCount; ++index) {
    const qvr_korva_cache_block block = qvr_make_cache_block(index, qvr_slot_bitmask(index, 1u << index));
    failures += qvr_set_cache_block(fd, &block) != 0;
    auto* upload = static_cast<qvr_korva_upload*>(std::calloc(1, sizeof(qvr_korva_upload)));
    if (upload == nullptr) return 1;
    upload->desc = {PARAM_ID_PREMIX, static_cast<int32_t>(sizeof upload->payload), 0,
                    block.bitmask | kDeviceSelectBit};
    failures += qvr_set_param(fd, upload) != 0;
    std::free(upload);
  }
  close(fd);
  return failures == 0 ? 0 : 1;
}
