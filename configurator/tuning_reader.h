// The tuning file reader: one tuning file in, one cache block payload out.
//
// QVRCS_GetPremixData is what the device runs. It is composed of small steps
// (open, parse, select, convert, place) that the host tools call as well, so
// that they read and parse each file once, see the reader's log lines
// through their own sink and the converters' decisions through a trace.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "korva_v1_1.pb.h"
#include "qvrcs/qvrcs.h"
#include "qvrcsPB.pb.h"

// Parses `filename` as a Qvrcs tuning file, converts the selected korva_v1_1
// settings and, when both conversions succeed, writes the premix block at
// payload offset 0 and the postmix block at payload offset 176 of `outData`
// (a qvr::kCacheBlockSize-byte payload). Returns 0 on success and also when
// the file does not parse (nothing written); -4 for a null argument, a file
// that cannot be opened, an empty selection list or a failed conversion.
// Logs on the Android log.
int32_t QVRCS_GetPremixData(const char* filename, uint8_t* outData);

namespace qvr {

// The one rate the DSP runs at: every conversion is made for it.
constexpr uint32_t kDspSampleRate = 48000;

// Results of the reader.
constexpr int32_t kReaderOk = 0;
constexpr int32_t kReaderFailed = -4;

// Where the reader's log lines go: printf-style, one line per call.
struct LogSink {
  void (*print)(void* context, const char* format, va_list args) = nullptr;
  void* context = nullptr;
};

// The Android log: priority 4 under the configurator's tag.
LogSink AndroidLog();

// The selection of step 3 and what it passed over. The configurator converts
// workspace[0].routeConfiguration[0].tech[0].korva_v1_1 (its default instance
// when absent; the second settings version and every later element are
// ignored).
struct SettingsSelection {
  const com::qvr::pb::korva_v1_1::KorvaSettings* settings = nullptr;  // nullptr: an empty list
  const char* missing = nullptr;  // the empty list's name, e.g. "tech in routeConfiguration 0"
  int workspaces = 0;             // elements of the lists the first element is taken from
  int routeConfigurations = 0;
  int techs = 0;
  bool secondVersion = false;     // tech[0] also (or only) holds the second settings version
  bool firstVersion = false;      // tech[0] holds korva_v1_1
};

// How far a reading got.
enum class ReaderStage : uint8_t {
  kNotRun,
  kNullArgument,
  kCannotOpen,
  kUnparsable,  // result 0, nothing written, nothing logged
  kNoSelection,
  kConverted,   // both converters ran; see resPre and resPost
};

// The working storage of one reading: the parsed file, the selection, the
// context and both block images with their converters' results.
struct TuningReading {
  ReaderStage stage = ReaderStage::kNotRun;
  com::qvr::pb::wbn::Qvrcs message;
  SettingsSelection selection;
  qvrcs::ConversionContext context;
  int32_t resPre = 0;
  int32_t resPost = 0;
  qvrcs::PremixBlock premix;
  qvrcs::PostmixBlock postmix;
};

// Steps 1 and 2, for bytes a tool has already read: them as a Qvrcs message.
// (The device opens the file as a binary stream and parses from it.)
bool ParseTuningBytes(const std::string& bytes, com::qvr::pb::wbn::Qvrcs& message);

// Step 3: the settings the configurator converts, with what it passes over.
SettingsSelection SelectSettings(const com::qvr::pb::wbn::Qvrcs& message);

// Step 4: both converters over `reading.selection.settings`, from their
// templates, at kDspSampleRate, with no listening models of the caller's.
// `trace` (null on the device) sees every decision.
void ConvertSettings(TuningReading& reading, qvrcs::TraceObserver* trace);
// The same into blocks of the caller's (the reading's own are left alone).
void ConvertSettings(TuningReading& reading, qvrcs::PremixBlock& premix, qvrcs::PostmixBlock& postmix,
                     qvrcs::TraceObserver* trace);

// Step 5: both blocks into the payload at their offsets; nothing else of it
// is touched.
void PlaceBlocks(const TuningReading& reading, uint8_t* outData);

// Steps 1 to 5 with the device's log lines and results; `reading` keeps what
// each step made.
int32_t ReadTuningFile(const char* filename, uint8_t* outData, TuningReading& reading, const LogSink& log,
                       qvrcs::TraceObserver* trace);

// The device's steps 1 to 5: as ReadTuningFile with no trace, but both blocks
// are converted straight into their places in `outData` rather than into the
// reading and then copied, so each is written once. After a failed conversion
// (result kReaderFailed, stage kConverted) `outData` holds partly converted
// blocks: for a caller that then discards it. With a `message` of the
// caller's, the file is parsed into it rather than into reading.message (the
// selection then points into it). The parse clears it first; what it held
// before does not matter.
int32_t ReadTuningFileInPlace(const char* filename, uint8_t* outData, TuningReading& reading,
                              const LogSink& log, com::qvr::pb::wbn::Qvrcs* message = nullptr);

}  // namespace qvr
