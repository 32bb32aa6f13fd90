// What every qvrcs command shares: its streams (data on standard output,
// diagnostics and status lines on standard error, "-" for standard input),
// and the JSON documents it writes.
#pragma once

#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

namespace qvrcs_tool {

using Json = nlohmann::ordered_json;

// Version of the JSON documents' shape, in each document's "format".
constexpr int kJsonFormat = 1;

struct Streams {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  bool quiet = false;  // -q: no status lines

  // "qvrcs: SUBJECT: what" on the error stream.
  void Error(const std::string& subject, const std::string& what) const;
  // A status line on the error stream, unless quiet.
  void Status(const std::string& line) const;
  // Writes `bytes` to the output `path`: "-" is `out`, anything else goes
  // through WriteOutput (io.h), after what `out` holds so far. False after
  // the error line ("qvrcs: -: cannot write: No space left on device").
  bool Output(const std::string& path, const std::string& bytes, const std::vector<std::string>& inputs) const;
  // Flushes `out`; false after the error line when anything written to it
  // was lost. Once said, a write error is not said again.
  bool Flush() const;

  mutable bool writeErrorSaid = false;
};

// Standard output for the tool: a buffer over a descriptor that keeps the
// reason of the first failed write (a stream keeps only that one failed).
class DescriptorOutput : public std::streambuf {
 public:
  explicit DescriptorOutput(int fd) : fd_(fd) { setp(buffer_, buffer_ + sizeof buffer_); }
  ~DescriptorOutput() override { sync(); }
  int error() const { return error_; }  // errno of the first failed write, 0 when none failed

 protected:
  int_type overflow(int_type ch) override;
  int sync() override;

 private:
  int fd_;
  int error_ = 0;
  char buffer_[1 << 16];
};

// A new document: {"format": 1, "command": command}.
Json Document(const char* command);

// `text` with every byte that is not part of valid UTF-8 written as the four
// characters "\xNN", so that no byte is lost and the JSON writer never fails.
std::string Utf8Safe(const std::string& text);

// Whether every byte of `text` is part of a valid UTF-8 sequence.
bool ValidUtf8(const std::string& text);

// The document as text (`indent` < 0: one line), every string and key made
// UTF-8 safe.
std::string JsonText(const Json& document, int indent = 2);

// Characters (UTF-8 code points) in `text`, for padding columns.
size_t DisplayWidth(const std::string& text);

// `text` padded with blanks to `width` characters, at least one blank after it.
std::string PadRight(const std::string& text, size_t width);

}  // namespace qvrcs_tool
