// Helpers shared by the fuzz targets and by the test that replays their corpora.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// An invariant of the code under test that the input broke: reported and
// turned into a crash, so that libFuzzer keeps the input (and a replaying
// test fails).
#define FUZZ_CHECK(condition)                                                          \
  do {                                                                                 \
    if (!(condition)) {                                                                \
      std::fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                    \
    }                                                                                  \
  } while (0)

namespace fuzz {

// A private directory, created on first use and removed with its contents
// when the process exits.
const std::string& ScratchDir();

// Writes `size` bytes to `path`, replacing it.
bool WriteBytes(const std::string& path, const void* data, size_t size);

// A memory file the tuning file reader can open by name: its contents are
// replaced by every Store, its name stays the same.
class MemoryFile {
 public:
  MemoryFile();
  ~MemoryFile();
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  bool Store(const void* data, size_t size);
  const std::string& path() const { return path_; }

 private:
  int fd_ = -1;
  std::string path_;
};

}  // namespace fuzz
