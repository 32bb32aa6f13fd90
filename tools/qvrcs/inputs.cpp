#include "tools/qvrcs/inputs.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "configurator/korva_driver.h"
#include "configurator/payload.h"
#include "tools/qvrcs/command.h"
#include "tools/qvrcs/io.h"

namespace qvrcs_tool {
namespace {

// The first text-format error, as "line:column: message" (1-based).
class FirstError : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (!text.empty()) return;
    text = line < 0 ? message : std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

// UTF-8 without NUL or control bytes other than white space: written by
// hand or by a text printer, not by a binary encoder.
bool LooksLikeText(const std::string& bytes) {
  if (bytes.empty() || !ValidUtf8(bytes)) return false;
  for (const char c : bytes) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 && u != '\n' && u != '\r' && u != '\t') return false;
  }
  return true;
}

// Text a person wrote, worth a text error: it holds a word (two letters in
// a row), where a short binary file of printable bytes (",", "{") does not.
bool PlausiblyText(const std::string& bytes) {
  size_t run = 0;
  for (const char c : bytes) {
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
    run = letter ? run + 1 : 0;
    if (run >= 2) return true;
  }
  return false;
}

bool LooksLikeJson(const std::string& bytes) {
  const size_t first = bytes.find_first_not_of(" \t\r\n");
  return first != std::string::npos && bytes[first] == '{';
}

bool ParseText(const std::string& bytes, Qvrcs& message, std::string& error) {
  FirstError errors;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  if (parser.ParseFromString(bytes, &message)) return true;
  error = errors.text.empty() ? "does not parse as a text-format tuning file" : errors.text;
  return false;
}

// Calls `change` on every string field of `message` and its sub-messages.
template <class Change>
void ForEachString(google::protobuf::Message& message, const Change& change) {
  const google::protobuf::Reflection* reflection = message.GetReflection();
  std::vector<const google::protobuf::FieldDescriptor*> fields;
  reflection->ListFields(message, &fields);
  for (const google::protobuf::FieldDescriptor* field : fields) {
    const bool repeated = field->is_repeated();
    const int count = repeated ? reflection->FieldSize(message, field) : 1;
    for (int i = 0; i < count; ++i) {
      if (field->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_MESSAGE) {
        ForEachString(repeated ? *reflection->MutableRepeatedMessage(&message, field, i)
                               : *reflection->MutableMessage(&message, field),
                      change);
      } else if (field->type() == google::protobuf::FieldDescriptor::TYPE_STRING) {
        const std::string text =
            repeated ? reflection->GetRepeatedString(message, field, i) : reflection->GetString(message, field);
        const std::string changed = change(text);
        if (changed == text) continue;
        if (repeated) {
          reflection->SetRepeatedString(&message, field, i, changed);
        } else {
          reflection->SetString(&message, field, changed);
        }
      }
    }
  }
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The first JSON syntax error in `bytes` as "line:column: what" (1-based), or
// "" when it is JSON. The protobuf parser's own account is several lines and
// locates no line.
std::string JsonSyntaxError(const std::string& bytes) {
  try {
    const nlohmann::json parsed = nlohmann::json::parse(bytes);
    return parsed.is_discarded() ? "1:1: does not parse as JSON" : std::string();
  } catch (const nlohmann::json::parse_error& e) {
    // e.byte: the 1-based offset of the byte last read.
    const size_t at = std::min(bytes.size(), e.byte > 0 ? e.byte - 1 : 0);
    const size_t lineStart = at == 0 ? 0 : bytes.rfind('\n', at - 1) + 1;  // npos + 1: the first line
    const size_t line = 1 + static_cast<size_t>(std::count(bytes.begin(), bytes.begin() + static_cast<long>(at), '\n'));
    std::string what = e.what();
    const size_t column = what.find(", column ");
    const size_t colon = column == std::string::npos ? std::string::npos : what.find(": ", column);
    if (colon != std::string::npos) what.erase(0, colon + 2);
    return std::to_string(line) + ":" + std::to_string(at - lineStart + 1) + ": " + what;
  }
}

bool ParseJson(const std::string& bytes, Qvrcs& message, std::string& error) {
  const auto status = google::protobuf::util::JsonStringToMessage(bytes, &message);
  if (status.ok()) {
    UnescapeStringsFromJson(message);
    return true;
  }
  error = JsonSyntaxError(bytes);
  if (!error.empty()) return false;
  // Valid JSON that is not a tuning message: the field path says where.
  std::string what(status.message());
  std::replace(what.begin(), what.end(), '\n', ' ');
  error = "does not parse as a JSON tuning file: " + what;
  return false;
}

// Device-side data by its size: a payload, an upload (descriptor and
// payload) or the whole driver cache.
bool LoadDeviceSide(const std::string& bytes, const LoadOptions& options, LoadedInput& loaded, std::string& error) {
  Input& input = loaded.input;
  input.isPayload = true;
  if (bytes.size() == qvr::kCacheBlockSize) {
    loaded.form = "payload";
    input.payload.assign(bytes.begin(), bytes.end());
    return true;
  }
  if (bytes.size() == sizeof(qvr_korva_upload)) {
    qvr_korva_param_desc desc{};
    std::memcpy(&desc, bytes.data(), sizeof desc);
    loaded.form = "upload";
    loaded.hasDescriptor = true;
    loaded.descriptorId = desc.id;
    loaded.descriptorSize = desc.size;
    loaded.descriptorOffset = desc.offset;
    loaded.descriptorDevice = desc.device;
    input.payload.assign(bytes.begin() + sizeof desc, bytes.end());
    return true;
  }
  if (bytes.size() == static_cast<size_t>(qvr::kDriverCacheSize)) {
    if (options.block < 0 || static_cast<size_t>(options.block) >= qvr::kCacheBlockCount) {
      error = "a dump of the whole driver cache (" + std::to_string(qvr::kCacheBlockCount) +
              " blocks): choose one with --block 0.." + std::to_string(qvr::kCacheBlockCount - 1);
      return false;
    }
    const size_t at = static_cast<size_t>(options.block) * qvr::kCacheBlockSize;
    loaded.form = "cache dump block " + std::to_string(options.block);
    input.payload.assign(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                         bytes.begin() + static_cast<std::ptrdiff_t>(at + qvr::kCacheBlockSize));
    return true;
  }
  error = "not device-side data: " + std::to_string(bytes.size()) + " bytes, where a payload has " +
          std::to_string(qvr::kCacheBlockSize) + ", an upload " + std::to_string(sizeof(qvr_korva_upload)) +
          " and a cache dump " + std::to_string(qvr::kDriverCacheSize);
  return false;
}

bool IsUpload(const std::string& bytes) {
  if (bytes.size() != sizeof(qvr_korva_upload)) return false;
  qvr_korva_param_desc desc{};
  std::memcpy(&desc, bytes.data(), sizeof desc);
  return desc.id == PARAM_ID_PREMIX && desc.size == static_cast<int32_t>(qvr::kCacheBlockSize);
}

}  // namespace

void EscapeStringsForJson(google::protobuf::Message& message) {
  ForEachString(message, [](const std::string& text) {
    if (text.find('\\') == std::string::npos && ValidUtf8(text)) return text;
    std::string escaped;
    size_t start = 0;
    for (size_t at = text.find('\\'); at != std::string::npos; at = text.find('\\', start)) {
      escaped += Utf8Safe(text.substr(start, at - start)) + "\\\\";
      start = at + 1;
    }
    return escaped + Utf8Safe(text.substr(start));
  });
}

void UnescapeStringsFromJson(google::protobuf::Message& message) {
  ForEachString(message, [](const std::string& text) {
    if (text.find('\\') == std::string::npos) return text;
    std::string plain;
    for (size_t at = 0; at < text.size(); ++at) {
      if (text[at] == '\\' && at + 1 < text.size() && text[at + 1] == '\\') {
        plain += '\\';
        ++at;
      } else if (text[at] == '\\' && at + 3 < text.size() && text[at + 1] == 'x' && HexDigit(text[at + 2]) >= 0 &&
                 HexDigit(text[at + 3]) >= 0) {
        plain += static_cast<char>(HexDigit(text[at + 2]) * 16 + HexDigit(text[at + 3]));
        at += 3;
      } else {
        plain += text[at];
      }
    }
    return plain;
  });
}

Format SniffFormat(const std::string& bytes) {
  if (!LooksLikeText(bytes)) return Format::kBinary;
  return LooksLikeJson(bytes) ? Format::kJson : Format::kText;
}

bool ParseFormat(const std::string& name, Format& format) {
  for (const Format f : {Format::kAuto, Format::kBinary, Format::kText, Format::kJson}) {
    if (name == FormatName(f)) {
      format = f;
      return true;
    }
  }
  return false;
}

const char* FormatName(Format format) {
  switch (format) {
    case Format::kAuto:
      return "auto";
    case Format::kBinary:
      return "binary";
    case Format::kText:
      return "text";
    case Format::kJson:
      return "json";
  }
  return "auto";
}

bool ParseTuningAs(const std::string& bytes, Format format, Qvrcs& message, Format& used, std::string& error) {
  QuietProtobufLog();
  if (format == Format::kAuto && LooksLikeText(bytes)) {
    used = LooksLikeJson(bytes) ? Format::kJson : Format::kText;
    std::string textError;
    if (used == Format::kJson ? ParseJson(bytes, message, textError) : ParseText(bytes, message, textError)) {
      return true;
    }
    // The device reads every file as binary: a short binary file can hold
    // printable bytes only.
    message.Clear();
    used = Format::kBinary;
    if (qvr::ParseTuningBytes(bytes, message)) return true;
    error = kUnparsableTuning;
    if (PlausiblyText(bytes)) error += "\n" + textError;
    return false;
  }
  used = format == Format::kAuto ? Format::kBinary : format;
  switch (used) {
    case Format::kText:
      return ParseText(bytes, message, error);
    case Format::kJson:
      return ParseJson(bytes, message, error);
    default:
      if (qvr::ParseTuningBytes(bytes, message)) return true;
      error = kUnparsableTuning;
      return false;
  }
}

Format FormatFor(const std::string& path, Format format) {
  const std::string binaryName = ".bin";
  const bool bin = path.size() > binaryName.size() &&
                   path.compare(path.size() - binaryName.size(), binaryName.size(), binaryName) == 0;
  return format == Format::kAuto && bin ? Format::kBinary : format;
}

std::string Located(const std::string& shown, const std::string& error) {
  // Text errors start with "line:column: "; a second line (the text error
  // behind a file that parses neither way) is indented below the first.
  auto one = [&](const std::string& line) {
    const bool located = !line.empty() && line[0] >= '1' && line[0] <= '9';
    return shown + (located ? ":" : ": ") + line;
  };
  const size_t newline = error.find('\n');
  if (newline == std::string::npos) return one(error);
  return one(error.substr(0, newline)) + "\n  " + one(error.substr(newline + 1));
}

bool ReaderInput(const std::string& path, const std::string& bytes, Format format, TempFile& copy,
                 std::string& readerPath, std::string& error) {
  format = FormatFor(path, format);
  if (path != "-" && (format == Format::kAuto ? SniffFormat(bytes) : format) == Format::kBinary) {
    readerPath = path;
    return true;
  }
  Qvrcs message;
  Format used = Format::kBinary;
  // A file that parses neither way goes to the reader as it is, which the
  // device would read as binary; `error` keeps the text error, if any.
  if (!ParseTuningAs(bytes, format, message, used, error) && used != Format::kBinary) return false;
  const size_t newline = error.find('\n');
  error = newline == std::string::npos ? std::string() : error.substr(newline + 1);
  if (!copy.Write(used == Format::kBinary ? bytes : message.SerializeAsString(), error)) return false;
  readerPath = copy.path();
  return true;
}

bool LoadInput(const std::string& path, const LoadOptions& options, std::istream& in, LoadedInput& loaded,
               std::string& error) {
  loaded = LoadedInput{};
  loaded.input.path = path;
  std::string bytes;
  if (!ReadInput(path, in, bytes, error)) return false;

  if (options.deviceSide) return LoadDeviceSide(bytes, options, loaded, error);
  if (!options.tuningOnly && options.format == Format::kAuto &&
      (IsUpload(bytes) || bytes.size() == static_cast<size_t>(qvr::kDriverCacheSize))) {
    return LoadDeviceSide(bytes, options, loaded, error);
  }
  auto reading = std::make_unique<qvr::TuningReading>();
  Format used = Format::kBinary;
  if (ParseTuningAs(bytes, FormatFor(path, options.format), reading->message, used, error)) {
    loaded.input.reading = std::move(reading);
    loaded.form = used == Format::kBinary ? "tuning file" : std::string(FormatName(used)) + " tuning file";
    return true;
  }
  if (!options.tuningOnly && options.format == Format::kAuto && used == Format::kBinary &&
      bytes.size() == qvr::kCacheBlockSize) {
    error.clear();
    return LoadDeviceSide(bytes, options, loaded, error);
  }
  if (bytes.empty()) error = "empty file";
  if (!options.tuningOnly && options.format == Format::kAuto && used == Format::kBinary && !bytes.empty()) {
    error.insert(std::min(error.find('\n'), error.size()),
                 "; not device-side data either (" + std::to_string(bytes.size()) + " bytes)");
  }
  return false;
}

}  // namespace qvrcs_tool
