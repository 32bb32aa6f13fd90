// The tuning file reader: parses one tuning file, converts its first
// korva_v1_1 settings into the premix and postmix blocks and places both in
// the cache block payload.
#include "configurator/tuning_reader.h"

#include <cstring>
#include <fstream>
#include <new>

#include "configurator/log.h"
#include "configurator/payload.h"

using com::qvr::pb::korva_v1_1::KorvaSettings;
using com::qvr::pb::wbn::Qvrcs;

namespace {

// Log lines of this file.
constexpr char kLogNullArgument[] = "Error:  filename or outData is NULL";
constexpr char kLogCannotOpen[] = "Error: could not open %s";
constexpr char kLogEmptySelection[] = "Error: %s has no %s";
constexpr char kLogConversionFailed[] = "Error: parsing Pre (res = %i) or Post (res = %i)";

__attribute__((format(printf, 2, 3))) void Log(const qvr::LogSink& sink, const char* format, ...) {
  if (sink.print == nullptr) return;
  va_list args;
  va_start(args, format);
  sink.print(sink.context, format, args);
  va_end(args);
}

__attribute__((format(printf, 2, 0))) void PrintToAndroidLog(void* /*context*/, const char* format,
                                                               va_list args) {
  QVR_VLOG(format, args);
}

}  // namespace

namespace qvr {

LogSink AndroidLog() { return LogSink{PrintToAndroidLog, nullptr}; }

bool ParseTuningBytes(const std::string& bytes, Qvrcs& message) { return message.ParseFromString(bytes); }

SettingsSelection SelectSettings(const Qvrcs& message) {
  SettingsSelection selection;
  selection.workspaces = message.workspace_size();
  if (selection.workspaces == 0) {
    selection.missing = "workspace";
    return selection;
  }
  const auto& workspace = message.workspace(0);
  selection.routeConfigurations = workspace.routeconfiguration_size();
  if (selection.routeConfigurations == 0) {
    selection.missing = "routeConfiguration in workspace 0";
    return selection;
  }
  const auto& route = workspace.routeconfiguration(0);
  selection.techs = route.tech_size();
  if (selection.techs == 0) {
    selection.missing = "tech in routeConfiguration 0";
    return selection;
  }
  const auto& tech = route.tech(0);
  selection.secondVersion = tech.has_korva();
  selection.firstVersion = tech.has_korva_v1_1();
  selection.settings = &tech.korva_v1_1();
  return selection;
}

void ConvertSettings(TuningReading& reading, qvrcs::TraceObserver* trace) {
  ConvertSettings(reading, reading.premix, reading.postmix, trace);
}

void ConvertSettings(TuningReading& reading, qvrcs::PremixBlock& premix, qvrcs::PostmixBlock& postmix,
                     qvrcs::TraceObserver* trace) {
  const KorvaSettings& settings = *reading.selection.settings;
  qvrcs::QVRCS_InitContext(reading.context, kDspSampleRate);
  reading.resPre = qvrcs::QVRCS_ConvertPremix(reading.context, settings, premix, true, trace);
  // The reader has no models of its own; the postmix's own model is added
  // by the converter.
  const qvrcs::ListeningModelList models;
  reading.resPost = qvrcs::QVRCS_ConvertPostmix(reading.context, settings, postmix, true, models, trace);
  reading.stage = ReaderStage::kConverted;
}

void PlaceBlocks(const TuningReading& reading, uint8_t* outData) {
  std::memcpy(outData + kPremixPayloadOffset, reading.premix.data(), reading.premix.size());
  std::memcpy(outData + kPostmixPayloadOffset, reading.postmix.data(), reading.postmix.size());
}

namespace {

// Steps 1 to 5, the file parsed into `message`; `inPlace`: both blocks
// converted straight into `outData`.
int32_t Read(const char* filename, uint8_t* outData, TuningReading& reading, Qvrcs& message,
             const LogSink& log, qvrcs::TraceObserver* trace, bool inPlace) {
  if (filename == nullptr || outData == nullptr) {
    reading.stage = ReaderStage::kNullArgument;
    Log(log, kLogNullArgument);
    return kReaderFailed;
  }

  std::ifstream file(filename, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    reading.stage = ReaderStage::kCannotOpen;
    Log(log, kLogCannotOpen, filename);
    return kReaderFailed;
  }

  // A file that does not parse is deliberately not reported: the caller
  // uploads the payload as it stands.
  if (!message.ParseFromIstream(&file)) {
    reading.stage = ReaderStage::kUnparsable;
    return kReaderOk;
  }

  reading.selection = SelectSettings(message);
  if (reading.selection.settings == nullptr) {
    reading.stage = ReaderStage::kNoSelection;
    Log(log, kLogEmptySelection, filename, reading.selection.missing);
    return kReaderFailed;
  }

  if (inPlace) {
    // The converters start each block from its template, so what the
    // payload held there before does not matter.
    auto* premix = new (outData + kPremixPayloadOffset) qvrcs::PremixBlock;
    auto* postmix = new (outData + kPostmixPayloadOffset) qvrcs::PostmixBlock;
    ConvertSettings(reading, *premix, *postmix, trace);
  } else {
    ConvertSettings(reading, trace);
  }
  if ((reading.resPre | reading.resPost) != 0) {
    Log(log, kLogConversionFailed, reading.resPre, reading.resPost);
    return kReaderFailed;
  }
  if (!inPlace) PlaceBlocks(reading, outData);
  return kReaderOk;
}

}  // namespace

int32_t ReadTuningFile(const char* filename, uint8_t* outData, TuningReading& reading, const LogSink& log,
                       qvrcs::TraceObserver* trace) {
  return Read(filename, outData, reading, reading.message, log, trace, false);
}

int32_t ReadTuningFileInPlace(const char* filename, uint8_t* outData, TuningReading& reading,
                              const LogSink& log, Qvrcs* message) {
  Qvrcs& into = message != nullptr ? *message : reading.message;
  return Read(filename, outData, reading, into, log, nullptr, true);
}

}  // namespace qvr

int32_t QVRCS_GetPremixData(const char* filename, uint8_t* outData) {
  // The message and both images (~61.6 KB) live in this frame.
  qvr::TuningReading reading;
  return qvr::ReadTuningFile(filename, outData, reading, qvr::AndroidLog(), nullptr);
}
