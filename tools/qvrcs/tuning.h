// Inputs of the qvrcs tool: tuning files and payload files, read with
// one-line reasons for whatever is wrong with them, and converted with the
// configurator's own reader and converters.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "configurator/tuning_reader.h"
#include "korva_v1_1.pb.h"
#include "qvrcs/layout.h"
#include "qvrcsPB.pb.h"

namespace qvrcs_tool {

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;

// The DSP's working rate: the reader converts every file at it.
constexpr uint32_t kSampleRate = qvr::kDspSampleRate;

// Status of the reader (QVRCS_GetPremixData) for a failed file.
constexpr int32_t kReaderFailed = -4;

// How an input file is taken.
enum class InputKind {
  kAuto,     // a payload when exactly one cache block long and not a tuning file
  kTuning,   // always a tuning file
  kPayload,  // always a payload (exactly one cache block long)
};

struct Input {
  std::string path;
  bool isPayload = false;
  std::unique_ptr<Qvrcs> tuning;  // tuning files
  std::vector<uint8_t> payload;   // payload files: the cache block payload
};

// Reads `path` as `kind`. False with a one-line reason in `error` ("cannot
// open: No such file or directory", "does not parse as a tuning file", ...).
bool ReadInput(const std::string& path, InputKind kind, Input& input, std::string& error);

// Reads the whole file; false with a one-line reason.
bool ReadBytes(const std::string& path, std::string& bytes, std::string& error);

// Parses `bytes` as a tuning file, as the reader does.
bool ParseTuning(const std::string& bytes, Qvrcs& message);

// workspace[0].routeConfiguration[0].tech[0].korva_v1_1 (its default
// instance when absent), or nullptr with the reason in `why` when one of the
// three lists is empty.
const KorvaSettings* SelectSettings(const Qvrcs& message, std::string& why);

// Both blocks as the converters leave them, with their statuses.
struct Conversion {
  bool selected = false;
  std::string selectError;  // why nothing could be selected
  const KorvaSettings* settings = nullptr;  // points into the message
  int32_t premixStatus = 0;
  int32_t postmixStatus = 0;
  qvrcs::PremixBlock premix{};
  qvrcs::PostmixBlock postmix{};

  bool ok() const { return selected && premixStatus == 0 && postmixStatus == 0; }
};

// Runs the premix and postmix converters over the selected settings, from
// their templates, with the reader's empty model list and rate.
std::unique_ptr<Conversion> Convert(const Qvrcs& message);

// The cache block payload holding both converted blocks at their payload
// offsets, the fade areas zero (as the configurator's zero-filled buffer).
std::vector<uint8_t> PayloadOf(const Conversion& conversion);

// One run of the configurator's tuning file reader over `path` into a
// zero-filled payload. The reader's log lines (liblog writes them to
// standard error) are captured into `log` instead of reaching the terminal.
struct ReaderRun {
  int32_t status = 0;
  std::vector<uint8_t> payload;
  std::string log;
};
ReaderRun RunReader(const std::string& path);

// Runs `body` with file descriptor 2 redirected into a temporary file and
// returns what was written there.
template <class Body>
std::string CaptureStderr(Body body);

// Implementation detail of CaptureStderr.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;
  std::string Finish();

 private:
  int saved_ = -1;
  int file_ = -1;
};

template <class Body>
std::string CaptureStderr(Body body) {
  StderrCapture capture;
  body();
  return capture.Finish();
}

}  // namespace qvrcs_tool
