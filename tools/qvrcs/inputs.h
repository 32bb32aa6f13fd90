// What qvrcs takes as input: tuning files in their binary form, in protobuf
// text format or as the JSON `dump --json` writes, and the device side's
// data: a cache block payload, an upload captured from the driver (its
// descriptor decoded) and a dump of the whole driver cache (one block of it).
#pragma once

#include <cstdint>
#include <istream>
#include <string>

#include "tools/qvrcs/io.h"
#include "tools/qvrcs/tuning.h"

namespace qvrcs_tool {

// How a tuning file is written.
enum class Format { kAuto, kBinary, kText, kJson };

// "auto", "binary", "text", "json"; false for anything else.
bool ParseFormat(const std::string& name, Format& format);
const char* FormatName(Format format);

struct LoadOptions {
  Format format = Format::kAuto;  // kAuto: recognised by content
  bool tuningOnly = false;        // refuse device-side data
  bool deviceSide = false;        // take the file as device-side data only (--payload)
  int block = -1;                 // cache dumps: the block to take (--block)
};

// One input as read.
struct LoadedInput {
  Input input;  // the tuning message, or the payload
  std::string form;  // "tuning file", "text tuning file", "payload", "upload", "cache dump block 3"
  bool hasDescriptor = false;  // an upload: its parameter descriptor
  uint32_t descriptorId = 0;
  int32_t descriptorSize = 0;
  int32_t descriptorOffset = 0;
  uint32_t descriptorDevice = 0;
};

// Reads `path` ("-": `in`) as `options` say. False with a one-line reason in
// `error`; text errors name the line and column ("3:11: ...", given the file
// name by Located).
bool LoadInput(const std::string& path, const LoadOptions& options, std::istream& in, LoadedInput& loaded,
               std::string& error);

// `error` from LoadInput or ReaderInput about the input shown as `shown`, as
// one line: "FILE:3:11: what" when it names a line and column, else "FILE: what".
std::string Located(const std::string& shown, const std::string& error);

// The file to hand the configurator's reader (which takes a binary file by
// name) for the input `path` whose bytes are `bytes`, read as `format`
// (kAuto: by content): a binary file by its own name, parsable or not; a
// text or JSON file, or standard input ("-"), as a binary copy in `copy`.
// False with a one-line reason in `error` (as LoadInput's). A file that
// parses neither way is handed on as it is (the reader, as the device, finds
// it unparsable); `error` then holds the text error, or "".
bool ReaderInput(const std::string& path, const std::string& bytes, Format format, TempFile& copy,
                 std::string& readerPath, std::string& error);

// How `bytes` look: text, JSON or (anything else) binary; nothing is parsed.
Format SniffFormat(const std::string& bytes);

// The JSON form of a tuning file keeps every byte of its strings: a byte
// that is not part of valid UTF-8 is written as the four characters "\xNN"
// and a backslash as two, and reading JSON decodes both back (other
// backslashes stay as they are), so dump --json -> encode is exact.
void EscapeStringsForJson(google::protobuf::Message& message);
void UnescapeStringsFromJson(google::protobuf::Message& message);

// What the device makes of a file that does not parse as a tuning file.
inline constexpr const char kUnparsableTuning[] =
    "does not parse as a tuning file: the configurator uploads an all-zero payload";

// Parses `bytes` as a tuning file written as `format` (kAuto: by content);
// `used` is the form found. Errors as LoadInput's. Under kAuto, bytes that
// look like text but parse neither as text nor as binary are taken as the
// device takes them (`used` kBinary, kUnparsableTuning), with the text error
// as a second line when the bytes are plausibly text (hold a word).
bool ParseTuningAs(const std::string& bytes, Format format, Qvrcs& message, Format& used, std::string& error);

// The form to read the input `path` in: `format`, but a file named *.bin is
// binary unless `format` says otherwise. (The files a configurator.cfg names
// are always read as binary, as the device reads them.)
Format FormatFor(const std::string& path, Format format);

}  // namespace qvrcs_tool
