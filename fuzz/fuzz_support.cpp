#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

namespace fuzz {

namespace {

std::string g_scratch;

void RemoveScratch() {
  std::error_code ignored;
  if (!g_scratch.empty()) std::filesystem::remove_all(g_scratch, ignored);
}

}  // namespace

const std::string& ScratchDir() {
  if (g_scratch.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qvr_fuzz_XXXXXX";
    FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr);
    g_scratch = pattern;
    std::atexit(RemoveScratch);
  }
  return g_scratch;
}

bool WriteBytes(const std::string& path, const void* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = size == 0 || write(fd, data, size) == static_cast<ssize_t>(size);
  return close(fd) == 0 && written;
}

MemoryFile::MemoryFile() {
  fd_ = memfd_create("qvr_fuzz_tuning", MFD_CLOEXEC);
  FUZZ_CHECK(fd_ >= 0);
  // Opening this name gives a new, independent description of the same file,
  // read from its start, just as a tuning file on disk is.
  path_ = "/proc/self/fd/" + std::to_string(fd_);
}

MemoryFile::~MemoryFile() {
  if (fd_ >= 0) close(fd_);
}

bool MemoryFile::Store(const void* data, size_t size) {
  if (ftruncate(fd_, 0) != 0) return false;
  return size == 0 || pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size);
}

}  // namespace fuzz
