#include "fuzz/fake_driver.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>

#include "configurator/korva_driver.h"
#include "configurator/settings.h"
#include "fuzz/fuzz_support.h"

namespace {

std::unique_ptr<korva_sim::Driver> g_driver;
int g_driverFd = -1;

}  // namespace

// The linker's name for the C library's ioctl when --wrap=ioctl is in force.
extern "C" int __real_ioctl(int fd, unsigned long request, ...);

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (g_driver == nullptr || fd != g_driverFd) return __real_ioctl(fd, request, argument);

  // The argument lives in this process: the model reads and writes it in
  // place, so an argument shorter than the request's record is an overflow
  // the address sanitizer reports.
  auto* bytes = static_cast<uint8_t*>(argument);
  korva_sim::ArgumentAccess access;
  access.resolve = [bytes](size_t) { return bytes; };
  access.peek = [bytes](size_t length) {
    return bytes == nullptr ? std::vector<uint8_t>{} : std::vector<uint8_t>(bytes, bytes + length);
  };
  const korva_sim::Outcome outcome =
      g_driver->Handle(kQvrKorvaSoftwareNode, static_cast<uint32_t>(request), access);
  if (outcome.answer < 0) {
    errno = outcome.error;
    return -1;
  }
  return static_cast<int>(outcome.answer);
}

namespace fuzz {

void StartFakeDriver(std::vector<korva_sim::AnswerRule> answers) {
  if (g_driverFd < 0) {
    // A real descriptor, so that anything else done with g_fd stays harmless.
    g_driverFd = open("/dev/null", O_RDWR | O_CLOEXEC);
    FUZZ_CHECK(g_driverFd >= 0);
  }
  korva_sim::DriverConfig config;
  config.dspVersion = "FUZZ";
  config.dspDescription = "in-process Korva driver";
  config.answers = std::move(answers);
  g_driver = std::make_unique<korva_sim::Driver>(std::move(config));
  std::string error;
  FUZZ_CHECK(g_driver->Start(error));
  g_fd = g_driverFd;
}

const korva_sim::Driver& FakeDriver() {
  FUZZ_CHECK(g_driver != nullptr);
  return *g_driver;
}

}  // namespace fuzz
