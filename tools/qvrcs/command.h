// What every qvrcs command shares: its streams (data on standard output,
// diagnostics and status lines on standard error, "-" for standard input),
// and the JSON documents it writes.
#pragma once

#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

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
