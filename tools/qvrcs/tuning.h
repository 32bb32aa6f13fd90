// Inputs of the qvrcs tool: tuning files and payload files, read with
// one-line reasons for whatever is wrong with them, and converted by the
// configurator's own reader steps, with the trace of the conversion.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "configurator/tuning_reader.h"
#include "korva_v1_1.pb.h"
#include "qvrcs/layout.h"
#include "qvrcs/trace.h"
#include "qvrcsPB.pb.h"

namespace qvrcs_tool {

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;

struct Input {
  std::string path;
  bool isPayload = false;
  std::unique_ptr<qvr::TuningReading> reading;  // tuning files: parsed into reading->message
  std::vector<uint8_t> payload;                 // payload files: the cache block payload
};

// Protobuf's own complaints (a message missing required fields) are kept out
// of the tool's output: the tool says what is wrong itself.
void QuietProtobufLog();

// What the reader made of a tuning file, with the converters' trace.
struct Conversion {
  std::unique_ptr<qvr::TuningReading> reading;
  qvrcs::ConversionTrace trace;
  int32_t readerStatus = 0;  // the reader's result, as the device logs it
  std::string log;           // the reader's log lines, one per line

  bool selected() const { return reading->selection.settings != nullptr; }
  const KorvaSettings& settings() const { return *reading->selection.settings; }
  int32_t premixStatus() const { return reading->resPre; }
  int32_t postmixStatus() const { return reading->resPost; }
  bool ok() const { return reading->stage == qvr::ReaderStage::kConverted && (premixStatus() | postmixStatus()) == 0; }
  // Why nothing could be selected ("the file has no workspace").
  std::string SelectError() const;
  // The cache block payload as the blocks stand (a failed conversion: as far
  // as it got), the fade areas zero as in the configurator's zero-filled buffer.
  std::vector<uint8_t> Payload() const;
};

// Converts a parsed tuning input with the reader's convert step (the
// conversion takes over its reading).
std::unique_ptr<Conversion> Convert(Input& input);

// One run of the reader's steps over `path`, as the configurator reads it,
// into a zero-filled payload: its result and log lines, and the conversion.
struct ReaderRun {
  std::unique_ptr<Conversion> conversion;
  std::vector<uint8_t> payload;  // what the configurator would upload when the status is 0
};
ReaderRun RunReader(const std::string& path);

}  // namespace qvrcs_tool
