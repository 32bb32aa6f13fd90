// Files in and out of qvrcs. Inputs are regular files (or "-", standard
// input) of at most kMaxInputSize bytes; anything else is named and refused
// before it is read, so a FIFO or a link to a device never hangs a run.
// Outputs never land on an input and never replace anything but a regular
// file: see WriteOutput.
#pragma once

#include <cstddef>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace qvrcs_tool {

// Larger than any tuning file, payload, upload or cache dump by far.
constexpr size_t kMaxInputSize = 64u << 20;

// The name of a path in a message: `""` for the empty name.
std::string Shown(const std::string& path);

// Reads the whole regular file `path`; false with a one-line reason in
// `error` ("cannot open: No such file or directory", "is a FIFO, not a
// regular file", "larger than 67108864 bytes", ...).
bool ReadRegularFile(const std::string& path, std::string& bytes, std::string& error);

// Whether `path` is a regular file of at most kMaxInputSize bytes; false
// with the reason, as ReadRegularFile gives it. Nothing is read.
bool CheckRegularFile(const std::string& path, std::string& error);

// Reads at most kMaxInputSize bytes from `in` (standard input).
bool ReadStream(std::istream& in, std::string& bytes, std::string& error);

// Reads an input: `in` for "-", else the regular file `path`.
bool ReadInput(const std::string& path, std::istream& in, std::string& bytes, std::string& error);

// Writes all `size` bytes at `data` to the descriptor `fd`; false, with
// errno, when that fails.
bool WriteAll(int fd, const char* data, size_t size);

// Whether `bytes` may be written to the output `path` (not "-"): false with a
// one-line reason when `path` is empty, names a directory or one of `inputs`
// (the same file, by device and inode, through any link, or the same name).
// Nothing is written.
bool CheckOutput(const std::string& path, const std::vector<std::string>& inputs, std::string& error);

// Writes `bytes` to the output `path` (not "-"), after CheckOutput. Links are
// followed, the link left as it is. A regular file, or a name where nothing
// is yet, is written whole or not at all: through a temporary file beside it
// that is renamed onto it when complete (an existing file keeps its mode).
// Anything else is written in place, as `cat > path` would: a name for one of
// this process's descriptors (/dev/stdout, /dev/fd/N, /proc/self/fd/N) is that
// descriptor, a device, FIFO or socket is opened for writing. False with a
// one-line reason ("cannot write: No space left on device").
bool WriteOutput(const std::string& path, const std::string& bytes, const std::vector<std::string>& inputs,
                 std::string& error);

// A private temporary file holding `bytes`, removed when this goes away:
// for the configurator's reader, which takes a binary file by name.
class TempFile {
 public:
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile();
  bool Write(const std::string& bytes, std::string& error);
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace qvrcs_tool
