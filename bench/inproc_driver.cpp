// The Korva driver answered inside the configurator's own process, for the
// whole-run benchmark: qvr_configurator linked with -Wl,--wrap=open and
// -Wl,--wrap=ioctl. Opening either driver node starts the fuzzers' in-process
// driver (fuzz/fake_driver.h, the simulator's model) and returns its
// descriptor; its requests are answered by __wrap_ioctl there. Every other
// file is opened as usual. No socket, no second process: what the run costs
// is the configurator's own work.
#include <fcntl.h>

#include <cstdarg>
#include <cstring>

#include "configurator/korva_driver.h"
#include "configurator/settings.h"
#include "fuzz/fake_driver.h"

extern "C" int __real_open(const char* path, int flags, ...);

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
  fuzz::StartFakeDriver({});
  return g_fd;
}
