#include "tools/qvrcs/command.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/qvrcs/io.h"

namespace qvrcs_tool {
namespace {

// Length of the valid UTF-8 sequence at `at`, or 0.
size_t Utf8Length(const std::string& s, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(at);
  size_t length = 0;
  uint32_t cp = 0;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    cp = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    cp = lead & 0x07;
  } else {
    return 0;
  }
  if (at + length > s.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(at + i) & 0x3F);
  }
  const bool overlong = (length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000);
  const bool surrogate = cp >= 0xD800 && cp <= 0xDFFF;
  if (overlong || surrogate || cp > 0x10FFFF) return 0;
  return length;
}

void MakeSafe(Json& value) {
  if (value.is_string()) {
    value = Utf8Safe(value.get<std::string>());
  } else if (value.is_array()) {
    for (Json& element : value) MakeSafe(element);
  } else if (value.is_object()) {
    Json safe = Json::object();
    for (auto& [key, element] : value.items()) {
      MakeSafe(element);
      safe[Utf8Safe(key)] = std::move(element);
    }
    value = std::move(safe);
  }
}

}  // namespace

void Streams::Error(const std::string& subject, const std::string& what) const {
  err << "qvrcs: " << (subject.empty() ? "" : subject + ": ") << what << "\n";
}

void Streams::Status(const std::string& line) const {
  if (!quiet) err << line << "\n";
}

bool Streams::Flush() const {
  if (out.flush()) return true;
  if (!writeErrorSaid) {
    const auto* buffer = dynamic_cast<const DescriptorOutput*>(out.rdbuf());
    Error("-", std::string("cannot write: ") +
                   (buffer != nullptr && buffer->error() != 0 ? std::strerror(buffer->error()) : "write error"));
  }
  writeErrorSaid = true;
  return false;
}

bool Streams::Output(const std::string& path, const std::string& bytes, const std::vector<std::string>& inputs) const {
  if (path == "-") {
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return Flush();
  }
  // What this command wrote before goes first, should the output be standard output too.
  if (!Flush()) return false;
  std::string error;
  if (WriteOutput(path, bytes, inputs, error)) return true;
  Error(Shown(path), error);
  return false;
}

DescriptorOutput::int_type DescriptorOutput::overflow(int_type ch) {
  if (sync() != 0) return traits_type::eof();
  if (!traits_type::eq_int_type(ch, traits_type::eof())) {
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
  }
  return traits_type::not_eof(ch);
}

int DescriptorOutput::sync() {
  const size_t size = static_cast<size_t>(pptr() - pbase());
  setp(buffer_, buffer_ + sizeof buffer_);
  if (error_ != 0) return -1;
  if (size > 0 && !WriteAll(fd_, buffer_, size)) error_ = errno;
  return error_ != 0 ? -1 : 0;
}

bool ValidUtf8(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t n = Utf8Length(text, at);
    if (n == 0) return false;
    at += n;
  }
  return true;
}

Json Document(const char* command) { return Json{{"format", kJsonFormat}, {"command", command}}; }

std::string Utf8Safe(const std::string& text) {
  if (ValidUtf8(text)) return text;
  std::string safe;
  for (size_t at = 0; at < text.size();) {
    const size_t n = Utf8Length(text, at);
    if (n > 0) {
      safe.append(text, at, n);
      at += n;
      continue;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(text[at]));
    safe += escaped;
    ++at;
  }
  return safe;
}

std::string JsonText(const Json& document, int indent) {
  Json safe = document;
  MakeSafe(safe);
  return safe.dump(indent);
}

size_t DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (size_t at = 0; at < text.size();) {
    const size_t n = Utf8Length(text, at);
    at += n == 0 ? 1 : n;
    ++width;
  }
  return width;
}

std::string PadRight(const std::string& text, size_t width) {
  const size_t shown = DisplayWidth(text);
  return text + std::string(shown < width ? width - shown + 1 : 1, ' ');
}

}  // namespace qvrcs_tool
