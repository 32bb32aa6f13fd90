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
  if (status.ok()) return true;
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
  if (format == Format::kAuto) {
    if (LooksLikeText(bytes)) {
      format = LooksLikeJson(bytes) ? Format::kJson : Format::kText;
      // A short binary file can happen to hold printable bytes only.
      Qvrcs binary;
      QuietProtobufLog();
      if (!(format == Format::kJson ? ParseJson(bytes, message, error) : ParseText(bytes, message, error)) &&
          qvr::ParseTuningBytes(bytes, binary)) {
        message = std::move(binary);
        format = Format::kBinary;
      }
      used = format;
      return format == Format::kBinary || error.empty();
    }
    format = Format::kBinary;
  }
  used = format;
  switch (format) {
    case Format::kText:
      return ParseText(bytes, message, error);
    case Format::kJson:
      return ParseJson(bytes, message, error);
    default:
      QuietProtobufLog();
      if (qvr::ParseTuningBytes(bytes, message)) return true;
      error = "does not parse as a tuning file (truncated, or not a tuning file)";
      return false;
  }
}

std::string Located(const std::string& shown, const std::string& error) {
  // Text errors start with "line:column: ".
  const bool located = !error.empty() && error[0] >= '1' && error[0] <= '9';
  return shown + (located ? ":" : ": ") + error;
}

bool ReaderInput(const std::string& path, const std::string& bytes, Format format, TempFile& copy,
                 std::string& readerPath, std::string& error) {
  if (path != "-" && (format == Format::kAuto ? SniffFormat(bytes) : format) == Format::kBinary) {
    readerPath = path;
    return true;
  }
  Qvrcs message;
  Format used = Format::kBinary;
  if (!ParseTuningAs(bytes, format, message, used, error) && used != Format::kBinary) return false;
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
  if (ParseTuningAs(bytes, options.format, reading->message, used, error)) {
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
    error += "; not device-side data either (" + std::to_string(bytes.size()) + " bytes)";
  }
  return false;
}

}  // namespace qvrcs_tool
