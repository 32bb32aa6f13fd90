// Files in and out of qvrcs. Inputs are regular files (or "-", standard
// input) of at most kMaxInputSize bytes; anything else is named and refused
// before it is read, so a FIFO or a link to a device never hangs a run.
// Outputs go to "-" (standard output) or through a temporary file beside the
// target that is renamed over it only when complete, and never onto an input.
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

// Writes `bytes` to `path` through a temporary file in the same folder,
// renamed over `path` when complete. Refuses a `path` that is one of
// `inputs` (the same file, by device and inode, or the same name).
bool WriteAtomically(const std::string& path, const std::string& bytes, const std::vector<std::string>& inputs,
                     std::string& error);

// A new empty file named after `path` (path.XXXXXX) with the mode a new file
// gets, for writing an output whole before renaming it; "" when none can be made.
std::string TemporaryNear(const std::string& path);

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
